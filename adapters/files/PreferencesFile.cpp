#include "adapters/files/PreferencesFile.h"

#include <utility>

#include "adapters/files/Files.h"
#include "adapters/system/System.h"

namespace kestrune {

using Json = nlohmann::json;

/// Returns the JSON object in `text`; absent if `text` is no JSON object, too large or too deep. The depth is
/// limited because nlohmann::json writes by recursion: a deeply nested value would overflow the stack.
static std::optional<Json> parsed(const std::string& text) {
  constexpr std::size_t sizeLimit = std::size_t{1} << 20;  // bytes; the client's keys need fewer than 1000
  constexpr int depthLimit = 100;  // levels of nested values; the client itself nests none
  if (text.size() > sizeLimit) return std::nullopt;
  bool tooDeep = false;
  const auto watchDepth = [&tooDeep](int depth, Json::parse_event_t, const Json&) {
    tooDeep = tooDeep || depth > depthLimit;
    return !tooDeep;
  };
  Json found = Json::parse(text, watchDepth, false);
  return tooDeep || !found.is_object() ? std::nullopt : std::optional(std::move(found));
}

Json PreferencesFile::current() const {
  const FileContents found = files.contents(path);
  // After a temporary failure to read the file, the preferences that were read last stay in force.
  if (found.outcome != ReadOutcome::temporaryFailure) lastRead = parsed(found.bytes).value_or(Json::object());
  Json preferences = lastRead;
  preferences.update(unsaved);
  return preferences;
}

std::optional<bool> PreferencesFile::boolForKey(const std::string& key) const {
  const Json value = current().value(key, Json());
  return value.is_boolean() ? std::optional(value.get<bool>()) : std::nullopt;
}

std::optional<std::string> PreferencesFile::stringForKey(const std::string& key) const {
  const Json value = current().value(key, Json());
  return value.is_string() ? std::optional(value.get<std::string>()) : std::nullopt;
}

void PreferencesFile::set(const std::string& key, Json value) {
  unsaved[key] = std::move(value);
  if (const Result<> saved = save(); !saved)
    reportOnce("cannot write the preferences " + path + ": " + saved.reason());
}

Result<> PreferencesFile::save() {
  if (const auto failure = makeFolders(path.substr(0, path.rfind('/')))) return Failure{failure.message()};
  const FileContents found = files.contents(path);
  // Do not write after a temporary failure: the keys that could not be read would be lost.
  if (found.outcome == ReadOutcome::temporaryFailure) return Failure{found.problem};
  const std::optional<Json> old = parsed(found.bytes);
  Json preferences = old.value_or(Json::object());
  preferences.update(unsaved);
  const std::string text = preferences.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
  if (old) {
    if (const auto written = files.writeAtomically(path, text); !written) return written;
  } else if (const auto replaced = files.replaceUnreadable(path, text); !replaced) {
    return Failure{replaced.reason()};
  }
  lastRead = std::move(preferences);
  unsaved.clear();
  return Done{};
}

}  // namespace kestrune
