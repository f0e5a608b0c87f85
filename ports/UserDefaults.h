#pragma once

#include <optional>
#include <string>

namespace kestrune {

/// The user's preferences: keys and values in a persistent store. Each read sees what other programs have
/// changed in the store. No operation fails: if a value cannot be stored, it still applies in this process.
/// Main thread.
class UserDefaults {
 public:
  virtual ~UserDefaults() = default;

  /// Absent when the key was never written or its value is no boolean.
  virtual std::optional<bool> boolForKey(const std::string& key) const = 0;
  /// Absent when the key was never written or its value is no string.
  virtual std::optional<std::string> stringForKey(const std::string& key) const = 0;

  virtual void setBool(const std::string& key, bool value) = 0;
  virtual void setString(const std::string& key, const std::string& value) = 0;
};

}  // namespace kestrune
