#pragma once

#include <cstdio>
#include <string>

namespace kestrune::testing {

/// Returns the output and errors of a shell command. If its status is not 0, "status" and the status follow.
inline std::string outputOf(const std::string& command) {
  FILE* const pipe = popen((command + " 2>&1").c_str(), "r");
  std::string text;
  char buffer[4096];
  for (std::size_t count; (count = fread(buffer, 1, sizeof buffer, pipe)) > 0;) text.append(buffer, count);
  const int status = pclose(pipe);
  return status == 0 ? text : text + "status " + std::to_string(status);
}

}  // namespace kestrune::testing
