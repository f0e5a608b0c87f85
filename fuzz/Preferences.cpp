#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "adapters/files/Files.h"
#include "adapters/files/PreferencesFile.h"
#include "fuzz/Fuzz.h"
#include "tests/rig/ScratchFolder.h"
#include "text/Text.h"

// Fuzzes the preferences file. The input: a key, a value, the text of the file.

namespace {

using namespace kestrune;
using fuzz::require;
using nlohmann::json;
using testing::contentsOf;

/// Returns the preferences in `text` without `key`; empty if `text` is not a JSON object.
json othersIn(const std::string& text, const std::string& key) {
  json preferences = json::parse(text, nullptr, false);
  if (!preferences.is_object()) return json::object();
  preferences.erase(key);
  return preferences;
}

void keep(SystemFileManager& files, const std::string& path, const std::string& key, const std::string& value,
          const std::string& text) {
  PreferencesFile preferences(files, path);
  preferences.setBool(key, true);
  require(preferences.boolForKey(key) == true, "a bool that was set is read");
  require(!preferences.stringForKey(key), "a bool is no string");
  preferences.setString(key, value);
  require(preferences.stringForKey(key) == value, "a string that was set is read");
  require(PreferencesFile(files, path).stringForKey(key) == value, "a string that was set is in the file");

  const std::string damaged = path + ".unreadable";
  if (!std::filesystem::exists(damaged)) {
    require(json::parse(text, nullptr, false).is_object(), "a damaged file is kept");
    require(othersIn(contentsOf(path), key) == othersIn(text, key), "other keys are kept");
    return;
  }
  require(contentsOf(damaged) == text, "a damaged file is kept unchanged");
  const bool mayBeDeep =
      std::count(text.begin(), text.end(), '[') + std::count(text.begin(), text.end(), '{') > 90;
  require(mayBeDeep || !json::parse(text, nullptr, false).is_object(),
          "a file that can be read is not kept as damaged");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const testing::ScratchFolder folder;
  SystemFileManager files(folder.file(""));
  const std::string path = folder.file("preferences.json");
  fuzz::Input input(data, size);
  const std::string key(input.text());
  const std::string value(input.text());
  const std::string text(input.rest());
  testing::put(path, text);

  static_cast<void>(PreferencesFile(files, path).boolForKey(key));
  static_cast<void>(PreferencesFile(files, path).stringForKey(key));
  require(contentsOf(path) == text, "reading changes nothing");
  if (isValidUtf8(key) && isValidUtf8(value)) keep(files, path, key, value, text);
  std::filesystem::remove(path + ".unreadable");
  return 0;
}
