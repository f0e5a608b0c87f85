#pragma once

#include <optional>
#include <string>

namespace kestrune {

/// Sends requests to the backend's local service, an HTTP server on this machine.
class LocalService {
 public:
  virtual ~LocalService() = default;

  /// Sends "GET /desktop/projects" with `token` as bearer token, and returns the body of the answer, even if
  /// the HTTP status is an error. Follows no redirect. Cuts a body at 16 MiB, but not inside a UTF-8
  /// character. Absent when the answer is not complete within 5 s, or when the token cannot be part of a
  /// header. Never passes the token as a command-line argument, which other users could read. Blocks for at
  /// most 6 s; any thread but the main thread.
  virtual std::optional<std::string> getProjects(const std::string& token) = 0;
};

}  // namespace kestrune
