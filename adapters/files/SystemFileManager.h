#pragma once

#include "ports/FileManager.h"

namespace kestrune {

/// The port FileManager, on the functions of adapters/files/Files.h.
class SystemFileManager final : public FileManager {
 public:
  explicit SystemFileManager(std::string home);

  bool fileExists(const std::string& path) const override;
  FileContents contents(const std::string& path) const override;
  Result<> writeAtomically(const std::string& path, const std::string& contents) override;
  Result<> writePrivately(const std::string& path, const std::string& contents) override;
  Result<> replaceUnreadable(const std::string& path, const std::string& contents) override;
  Result<> createDirectory(const std::string& path) override;
  Result<> removeItem(const std::string& path) override;
  std::string homeDirectoryPath() const override { return home; }

 private:
  const std::string home;
};

}  // namespace kestrune
