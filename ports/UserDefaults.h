#pragma once

#include <optional>
#include <string>

namespace kestrune {

/// The user's preferences: a store of keys that outlives the process. Behind a port because every host keeps
/// its preferences in a place of its own. Main thread; nothing is cached between calls, and nothing fails:
/// what cannot be written still holds for this process.
class UserDefaults {
 public:
  virtual ~UserDefaults() = default;

  /// Absent when the key was never written, or holds something other than a boolean.
  virtual std::optional<bool> boolForKey(const std::string& key) const = 0;
  /// Absent when the key was never written, or holds something other than text.
  virtual std::optional<std::string> stringForKey(const std::string& key) const = 0;

  virtual void setBool(const std::string& key, bool value) = 0;
  virtual void setString(const std::string& key, const std::string& value) = 0;
};

}  // namespace kestrune
