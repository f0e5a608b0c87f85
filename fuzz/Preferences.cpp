#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "adapters/files/PreferencesFile.h"
#include "fuzz/Fuzz.h"
#include "tests/rig/ScratchFolder.h"
#include "text/Text.h"

// The file of the preferences: a key, a text to be kept under it, and what the file holds.

namespace {

using namespace kestrune;
using fuzz::contentsOf;
using fuzz::require;
using nlohmann::json;

/// What others keep in the file.
json othersIn(const std::string& text, const std::string& key) {
  json preferences = json::parse(text, nullptr, false);
  if (!preferences.is_object()) return json::object();
  preferences.erase(key);
  return preferences;
}

void keep(const std::string& path, const std::string& key, const std::string& value,
          const std::string& text) {
  PreferencesFile preferences(path);
  preferences.setBool(key, true);
  require(preferences.boolForKey(key) == true, "a switch that was set holds");
  require(!preferences.stringForKey(key), "a switch is no text");
  preferences.setString(key, value);
  require(preferences.stringForKey(key) == value, "a text that was set holds");
  require(PreferencesFile(path).stringForKey(key) == value, "a text that was set outlives the process");

  const std::string damaged = path + ".damaged";
  if (!std::filesystem::exists(damaged)) {
    require(json::parse(text, nullptr, false).is_object(), "what could not be read is kept");
    require(othersIn(contentsOf(path), key) == othersIn(text, key), "what others keep stays");
    return;
  }
  require(contentsOf(damaged) == text, "what could not be read is kept as it is");
  const bool mayBeDeep =
      std::count(text.begin(), text.end(), '[') + std::count(text.begin(), text.end(), '{') > 90;
  require(mayBeDeep || !json::parse(text, nullptr, false).is_object(), "what can be read is no damage");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const testing::ScratchFolder folder;
  const std::string path = folder.file("preferences.json");
  fuzz::Input input(data, size);
  const std::string key(input.text());
  const std::string value(input.text());
  const std::string text(input.rest());
  fuzz::put(path, text);

  static_cast<void>(PreferencesFile(path).boolForKey(key));
  static_cast<void>(PreferencesFile(path).stringForKey(key));
  require(contentsOf(path) == text, "to look changes nothing");
  if (isValidUtf8(key) && isValidUtf8(value)) keep(path, key, value, text);
  std::filesystem::remove(path + ".damaged");
  return 0;
}
