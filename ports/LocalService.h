#pragma once

#include <optional>
#include <string>

namespace kestrune {

/// Sends requests to the backend's local service, an HTTP server on this machine.
class LocalService {
 public:
  virtual ~LocalService() = default;

  /// Sends "GET /desktop/projects" with `token` as bearer token, and returns the body of the answer, whatever
  /// its HTTP status. Follows no redirect. Keeps at most 16 MiB, cut between characters. Absent when the
  /// answer is not complete within 5 s, or when the token cannot be part of a header. No other program sees
  /// the token. Blocks for at most 6 s; any thread but the main thread.
  virtual std::optional<std::string> getProjects(const std::string& token) = 0;
};

}  // namespace kestrune
