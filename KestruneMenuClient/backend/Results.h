#pragma once

#include <string>

namespace kestrune {

/// The result of one shell command. `ok`: it exited with status 0 before the timeout. `output` is never
/// empty.
struct CommandResult {
  bool ok = false;
  std::string output;

  bool operator==(const CommandResult&) const = default;
};

/// The result of a file operation, with a message for the user.
struct OperationResult {
  bool ok = false;
  std::string message;

  bool operator==(const OperationResult&) const = default;
};

}  // namespace kestrune
