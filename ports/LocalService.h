#pragma once

#include <optional>
#include <string>

namespace kestrune {

/// Asks the backend's local service. Behind a port so that a test needs no network.
class LocalService {
 public:
  virtual ~LocalService() = default;

  /// What the service answers to "GET /desktop/projects" with `token` as its bearer token, whatever the HTTP
  /// status; redirects are not followed. At most 16 MiB of it, cut between characters. Absent when there is
  /// no whole answer within 5 s, or when the token cannot stand in a header. The token is seen by nobody but
  /// the service. Blocks; any thread but the main one.
  virtual std::optional<std::string> getProjects(const std::string& token) = 0;
};

}  // namespace kestrune
