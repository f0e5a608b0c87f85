#include "adapters/files/PreferencesFile.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <filesystem>
#include <utility>

#include "adapters/files/Files.h"
#include "adapters/system/Errors.h"
#include "adapters/system/WholeFile.h"

namespace kestrune {

namespace fs = std::filesystem;
using Json = nlohmann::json;

namespace {

constexpr std::size_t sizeLimit = std::size_t{1} << 20;  // bytes; the client writes a few hundred
constexpr int depthLimit = 100;  // levels of nested values; the client itself nests none

/// Returns the JSON value in `text`. If `text` is invalid, too large or too deep, returns a value that is not
/// an object. The depth is limited because nlohmann::json writes by recursion: a deeply nested value would
/// overflow the stack.
Json parsed(const std::string& text) {
  if (text.size() > sizeLimit) return {};
  bool tooDeep = false;
  const auto watchDepth = [&tooDeep](int depth, Json::parse_event_t, const Json&) {
    tooDeep = tooDeep || depth > depthLimit;
    return !tooDeep;
  };
  Json found = Json::parse(text, watchDepth, false);
  if (tooDeep) return {};
  return found;
}

/// Reads the preferences; a missing file has none. Fails with EBADMSG if the file is no JSON object.
std::error_code load(const std::string& path, Json& preferences) {
  preferences = Json::object();
  std::string text;
  const std::error_code failure = readWholeFile(path, text);
  const bool isMissing =
      failure == std::errc::no_such_file_or_directory || failure == std::errc::not_a_directory;
  if (failure) return isMissing ? std::error_code() : failure;
  Json found = parsed(text);
  if (!found.is_object()) return std::make_error_code(std::errc::bad_message);
  preferences = std::move(found);
  return {};
}

}  // namespace

PreferencesFile::PreferencesFile(std::string givenPath)
    : path(std::move(givenPath)),
      unsaved(std::make_unique<Json>(Json::object())),
      lastRead(std::make_unique<Json>(Json::object())) {}

PreferencesFile::~PreferencesFile() = default;

Json PreferencesFile::current() const {
  Json found;
  // After a temporary failure to read the file, the preferences that were read last stay in force.
  if (!isPassing(load(path, found))) *lastRead = std::move(found);
  Json preferences = *lastRead;
  preferences.update(*unsaved);
  return preferences;
}

std::optional<bool> PreferencesFile::boolForKey(const std::string& key) const {
  const Json preferences = current();
  const auto found = preferences.find(key);
  return found != preferences.end() && found->is_boolean() ? std::optional(found->get<bool>()) : std::nullopt;
}

std::optional<std::string> PreferencesFile::stringForKey(const std::string& key) const {
  const Json preferences = current();
  const auto found = preferences.find(key);
  return found != preferences.end() && found->is_string() ? std::optional(found->get<std::string>())
                                                          : std::nullopt;
}

void PreferencesFile::setBool(const std::string& key, bool value) {
  set(key, value);
}

void PreferencesFile::setString(const std::string& key, const std::string& value) {
  set(key, value);
}

void PreferencesFile::set(const std::string& key, Json value) {
  (*unsaved)[key] = std::move(value);
  if (const std::error_code failure = save()) {
    reportOnce("cannot write the preferences " + path + ": " + failure.message());
  } else {
    *unsaved = Json::object();
  }
}

std::error_code PreferencesFile::save() const {
  if (const auto failure = makeFolders(fs::path(path).parent_path())) return failure;
  Json preferences;
  if (const auto unread = load(path, preferences)) {
    // Do not write after a temporary failure: the keys that could not be read would be lost.
    if (isPassing(unread)) return unread;
    if (const auto failure = keepDamagedFile(path)) return failure;
  }
  preferences.update(*unsaved);
  const auto failure =
      writeFileAtomically(path, preferences.dump(2, ' ', false, Json::error_handler_t::replace) + "\n");
  if (!failure) *lastRead = std::move(preferences);
  return failure;
}

}  // namespace kestrune
