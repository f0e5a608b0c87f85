#pragma once

#include <nlohmann/json_fwd.hpp>

#include <memory>
#include <string>

#include "ports/FileManager.h"
#include "ports/UserDefaults.h"

namespace kestrune {

/// The preferences, stored as a JSON object in a file. Each call reads the file, so that changes by other
/// programs take effect. Keys that the client does not know are kept.
class PreferencesFile final : public UserDefaults {
 public:
  /// `files` must outlive this object.
  PreferencesFile(FileManager& files, std::string path);
  ~PreferencesFile() override;

  std::optional<bool> boolForKey(const std::string& key) const override;
  std::optional<std::string> stringForKey(const std::string& key) const override;
  void setBool(const std::string& key, bool value) override;
  void setString(const std::string& key, const std::string& value) override;

 private:
  nlohmann::json current() const;
  void set(const std::string& key, nlohmann::json value);
  Result<> save() const;

  FileManager& files;
  const std::string path;
  const std::unique_ptr<nlohmann::json> unsaved;   ///< values that were set but could not be written yet
  const std::unique_ptr<nlohmann::json> lastRead;  ///< the last values read; used if a read fails temporarily
};

}  // namespace kestrune
