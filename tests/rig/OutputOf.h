#pragma once

#include <cstdio>
#include <string>

namespace kestrune::testing {

/// The output of a shell command, followed by its status if that is not 0.
inline std::string outputOf(const std::string& command) {
  FILE* const pipe = popen((command + " 2>&1").c_str(), "r");
  std::string text;
  char buffer[4096];
  for (std::size_t count; (count = fread(buffer, 1, sizeof buffer, pipe)) > 0;) text.append(buffer, count);
  const int status = pclose(pipe);
  return status == 0 ? text : text + "status " + std::to_string(status);
}

}  // namespace kestrune::testing
