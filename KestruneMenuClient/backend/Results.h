#pragma once

#include <string>

namespace kestrune {

/// The outcome of one shell command. `ok`: it ended by itself, in time and with exit status 0. `output` is
/// never empty.
struct CommandResult {
  bool ok = false;
  std::string output;

  bool operator==(const CommandResult&) const = default;
};

/// The outcome of a file operation, with what the user may be told of it.
struct OperationResult {
  bool ok = false;
  std::string message;

  bool operator==(const OperationResult&) const = default;
};

}  // namespace kestrune
