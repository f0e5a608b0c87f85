#pragma once

#include <optional>
#include <string>

namespace kestrune {

/// Sends requests to the backend's local service, an HTTP server on this machine.
class LocalService {
 public:
  virtual ~LocalService() = default;

  /// Sends "GET /desktop/projects" with `token` as bearer token. Returns the body of the answer, whatever the
  /// HTTP status is; absent if no complete answer comes within 5 s, or if `token` cannot be part of a header.
  /// Cuts the body at 16 MiB, but not inside a UTF-8 character. Blocks for at most 6 s, so do not call this
  /// on the main thread.
  virtual std::optional<std::string> getProjects(const std::string& token) = 0;
};

}  // namespace kestrune
