#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kestrune {

/// The titles of the project and of the chat thread that the menu shows. Both are placeholders until known.
struct LiveSession {
  std::string projectTitle = "目前專案";
  std::string threadName = "尚未取得";

  static const LiveSession disabled;       ///< shown while auto-connect is off
  static const LiveSession notConfigured;  ///< shown when .env has no token for the local service

  bool operator==(const LiveSession&) const = default;
};

/// Returns the first project that `answer` marks as selected, and the project's chat thread. `answer` is the
/// local service's answer to "GET /desktop/projects". A chat thread without a name gets the project's title.
/// Returns placeholders if `answer` is absent, is not the expected JSON or marks no project. Any thread.
LiveSession selectedSession(const std::optional<std::string>& answer);

/// Returns the name of a chat thread as the menu shows it: without terminal escape sequences, trimmed, and
/// shortened to 34 characters.
std::string compactThreadName(std::string_view name);

}  // namespace kestrune
