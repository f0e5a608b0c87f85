#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kestrune {

/// The project and the thread that the menu shows. Both are placeholders until they are known.
struct LiveSession {
  std::string projectTitle = "目前專案";
  std::string threadName = "尚未取得";

  static const LiveSession disabled;       ///< shown while auto-connect is off
  static const LiveSession notConfigured;  ///< shown without a token for the local service

  /// Returns whether `member` is a real name and not a placeholder.
  bool isKnown(std::string LiveSession::*member) const;

  bool operator==(const LiveSession&) const = default;
};

/// Returns the first selected project in the local service's answer to "GET /desktop/projects". A thread
/// without a name gets the project's title. Returns placeholders if the answer is absent or damaged. Any
/// thread.
LiveSession selectedSession(const std::optional<std::string>& answer);

/// Returns a thread's name as the menu shows it: trimmed and at most 34 characters long.
std::string compactThreadName(std::string_view name);

}  // namespace kestrune
