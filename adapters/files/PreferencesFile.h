#pragma once

#include <nlohmann/json_fwd.hpp>

#include <memory>
#include <string>
#include <system_error>

#include "ports/UserDefaults.h"

namespace kestrune {

/// The preferences as a JSON object in a file of the user's. The file is read at each call, so that what
/// another program wrote holds, too; keys of others are kept.
class PreferencesFile final : public UserDefaults {
 public:
  explicit PreferencesFile(std::string path);
  ~PreferencesFile() override;

  std::optional<bool> boolForKey(const std::string& key) const override;
  std::optional<std::string> stringForKey(const std::string& key) const override;
  void setBool(const std::string& key, bool value) override;
  void setString(const std::string& key, const std::string& value) override;

 private:
  nlohmann::json current() const;
  void set(const std::string& key, nlohmann::json value);
  std::error_code save() const;

  const std::string path;
  const std::unique_ptr<nlohmann::json> unsaved;   ///< what could not be written, and holds for this process
  const std::unique_ptr<nlohmann::json> lastRead;  ///< holds while the file cannot be opened
};

}  // namespace kestrune
