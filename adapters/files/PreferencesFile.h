#pragma once

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <utility>

#include "ports/FileManager.h"
#include "ports/UserDefaults.h"

namespace kestrune {

/// The preferences, stored as a JSON object in a file. Each call reads the file, so that changes by other
/// programs take effect. Keys that the client does not know are kept.
class PreferencesFile final : public UserDefaults {
 public:
  /// `givenFiles` must outlive this object.
  PreferencesFile(FileManager& givenFiles, std::string givenPath)
      : files(givenFiles), path(std::move(givenPath)) {}

  std::optional<bool> boolForKey(const std::string& key) const override;
  std::optional<std::string> stringForKey(const std::string& key) const override;
  void setBool(const std::string& key, bool value) override { set(key, value); }
  void setString(const std::string& key, const std::string& value) override { set(key, value); }

 private:
  nlohmann::json current() const;
  void set(const std::string& key, nlohmann::json value);
  Result<> save();

  FileManager& files;
  const std::string path;
  nlohmann::json unsaved = nlohmann::json::object();  ///< values that were set but could not be written yet
  mutable nlohmann::json lastRead = nlohmann::json::object();  ///< used while reads fail temporarily
};

}  // namespace kestrune
