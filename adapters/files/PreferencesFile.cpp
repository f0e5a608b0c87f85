#include "adapters/files/PreferencesFile.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <filesystem>
#include <utility>

#include "adapters/files/Files.h"
#include "adapters/system/StandardError.h"

namespace kestrune {

namespace fs = std::filesystem;
using Json = nlohmann::json;

namespace {

constexpr std::size_t sizeLimit = std::size_t{1} << 20;  // bytes; the client writes a few hundred
constexpr int depthLimit = 100;                          // of nested values; the client writes none

enum class State {
  usable,       ///< read, or does not exist yet
  damaged,      ///< exists, but is no JSON object
  unreachable,  ///< temporarily unreadable, such as EMFILE or EIO
};

struct Loaded {
  State state;
  Json preferences = Json::object();
};

/// The JSON in `text`; not an object if it is invalid, too large or too deep. nlohmann::json writes by
/// recursion: a later dump of a value that is nested too deeply would overflow the stack.
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

Loaded load(const std::string& path) {
  std::string text;
  if (const std::error_code failure = readWholeFile(path, text)) {
    if (failure == std::errc::no_such_file_or_directory || failure == std::errc::not_a_directory) {
      return {State::usable};
    }
    return {isPassing(failure) ? State::unreachable : State::damaged};
  }
  Json found = parsed(text);
  if (!found.is_object()) return {State::damaged};
  return {State::usable, std::move(found)};
}

}  // namespace

PreferencesFile::PreferencesFile(std::string givenPath)
    : path(std::move(givenPath)),
      unsaved(std::make_unique<Json>(Json::object())),
      lastRead(std::make_unique<Json>(Json::object())) {}

PreferencesFile::~PreferencesFile() = default;

Json PreferencesFile::current() const {
  Loaded found = load(path);
  // While the file cannot be read, the last known settings hold.
  if (found.state != State::unreachable) *lastRead = std::move(found.preferences);
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
  auto [state, preferences] = load(path);
  // Writing now would lose the keys that could not be read.
  if (state == State::unreachable) return std::make_error_code(std::errc::too_many_files_open);
  if (state == State::damaged) {
    if (const auto failure = keepDamagedFile(path)) return failure;
  }
  preferences.update(*unsaved);
  const auto failure =
      writeFileAtomically(path, preferences.dump(2, ' ', false, Json::error_handler_t::replace) + "\n");
  if (!failure) *lastRead = std::move(preferences);
  return failure;
}

}  // namespace kestrune
