#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kestrune {

/// The project and the thread that the menu shows; placeholders until they are known.
struct LiveSession {
  std::string projectTitle = "目前專案";
  std::string threadName = "尚未取得";

  static const LiveSession disabled;       ///< with auto-connect off
  static const LiveSession notConfigured;  ///< without a token for the local service

  /// Whether they are known, and no placeholders.
  bool hasProject() const;
  bool hasThread() const;

  bool operator==(const LiveSession&) const = default;
};

/// Reads the local service's answer to "GET /desktop/projects": the first project that is selected. A thread
/// without a name takes the project's title. Placeholders for an answer that is absent or damaged. Any
/// thread.
LiveSession selectedSession(const std::optional<std::string>& answer);

/// A thread's name as the menu shows it: trimmed and at most 34 characters long.
std::string compactThreadName(std::string_view name);

}  // namespace kestrune
