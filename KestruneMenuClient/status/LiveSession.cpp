#include "KestruneMenuClient/status/LiveSession.h"

#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>

#include "text/Text.h"

namespace kestrune {

using Json = nlohmann::json;

constexpr int answerDepthLimit = 990;
constexpr std::size_t chatNameLimit = 34;  // characters

/// Returns whether Python treats `value` as true. The service that sends the JSON is a Python program.
static bool isTruthy(const Json& value) {
  return value != false && value != 0 && value != "" && !value.empty();
}

/// Returns the UTF-16 code unit of the \u escape at the start of `text`; 0 when there is no escape.
static unsigned escapedUnit(std::string_view text) {
  const std::string_view digits = text.starts_with("\\u") ? text.substr(2, 4) : "";
  unsigned unit = 0;
  const auto read = std::from_chars(digits.data(), digits.data() + digits.size(), unit, 16);
  return read.ptr - digits.data() == 4 ? unit : 0;
}

/// U+FDD0, a noncharacter that replaces each lone surrogate.
constexpr std::string_view surrogateMark = "\xEF\xB7\x90";

/// Replaces lone surrogates, because the JSON library rejects a text that contains one. Python's json module
/// writes lone surrogates for a folder name that is not UTF-8.
static std::string withoutLoneSurrogates(std::string_view answer) {
  const auto isHigh = [](unsigned unit) { return unit >> 10 == 0xD800 >> 10; };
  const auto isLow = [](unsigned unit) { return unit >> 10 == 0xDC00 >> 10; };
  std::string whole;
  whole.reserve(answer.size());
  while (!answer.empty()) {
    const auto plain = std::min(answer.find('\\'), answer.size());
    const std::string_view escape = answer.substr(plain);
    const unsigned unit = escapedUnit(escape);
    const bool pair = isHigh(unit) && isLow(escapedUnit(escape.substr(6)));
    const bool lone = !pair && (isHigh(unit) || isLow(unit));
    const auto length = std::min<std::size_t>(escape.size(), pair ? 12 : lone ? 6 : 2);
    whole += answer.substr(0, plain);
    whole += lone ? surrogateMark : escape.substr(0, length);
    answer = escape.substr(length);
  }
  return whole;
}

const LiveSession LiveSession::disabled{"未同步", "尚未啟動"};
const LiveSession LiveSession::notConfigured{"未配置", "未配置"};

LiveSession selectedSession(const std::optional<std::string>& answer) {
  if (!answer) return {};
  // Reject an answer that is nested too deeply, as the backend does: it reads the same answer with Python's
  // json module, which limits the depth.
  bool tooDeep = false;
  const auto watchDepth = [&tooDeep](int depth, Json::parse_event_t, const Json&) {
    tooDeep = tooDeep || depth > answerDepthLimit;
    return !tooDeep;
  };
  Json root = Json::parse(withoutLoneSurrogates(*answer), watchDepth, false);
  if (tooDeep || !root.is_object()) return {};
  Json& projects = root["projects"];  // null if there is no such member
  if (!projects.is_array()) return {};
  for (Json& project : projects) {
    if (!project.is_object()) return {};
    if (!isTruthy(project["selected"])) continue;
    LiveSession session;
    const auto take = [](const Json& value, std::string& into) {
      if (value.is_string() && isTruthy(value)) value.get_to(into);
    };
    const Json& title = project["title"];
    const Json& threadName = project["thread_name"];
    take(title, session.projectTitle);
    take(isTruthy(threadName) ? threadName : title, session.threadName);
    const bool isText = (session.projectTitle + session.threadName).find(surrogateMark) == std::string::npos;
    return isText ? session : LiveSession();
  }
  return {};
}

std::string compactThreadName(std::string_view name) {
  return shortened(trimmed(withoutEscapeSequences(name)), chatNameLimit);
}

}  // namespace kestrune
