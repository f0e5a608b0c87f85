#pragma once

#include <optional>
#include <string>

namespace kestrune {

/// Asks the backend's local service.
class LocalService {
 public:
  virtual ~LocalService() = default;

  /// The body of the answer to "GET /desktop/projects" with `token` as bearer token, whatever the HTTP
  /// status. Follows no redirect. Keeps at most 16 MiB, cut between characters. Absent when the answer is not
  /// complete within 5 s, or when the token cannot be part of a header. Only the service sees the token.
  /// Blocks; any thread but the main one.
  virtual std::optional<std::string> getProjects(const std::string& token) = 0;
};

}  // namespace kestrune
