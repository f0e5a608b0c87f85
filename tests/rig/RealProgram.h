#pragma once

#include <string>
#include <vector>

#include "tests/rig/ForkedProgram.h"

namespace kestrune::testing {

/// An installed program that runs beside a test, in its own process group. The destructor kills the group.
class RealProgram : public ForkedProgram {
 public:
  /// Starts `arguments[0]` from the PATH. `variables` ("NAME=value") are added to its environment.
  explicit RealProgram(std::vector<std::string> arguments, std::vector<std::string> variables = {})
      : name(arguments.at(0)) {
    run(true, [&](int output) {
      sigset_t none;
      sigemptyset(&none);
      sigprocmask(SIG_SETMASK, &none, nullptr);
      dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
      dup2(output, STDOUT_FILENO);
      for (auto& each : variables) putenv(each.data());
      std::vector<char*> words;
      for (auto& each : arguments) words.push_back(each.data());
      words.push_back(nullptr);
      execvp(words[0], words.data());
      _exit(127);
    });
  }

  /// Returns everything that the program has written to standard output so far.
  const std::string& output() { return allLines(); }
  const std::string& errors() { return standardError(); }

  bool says(const std::string& words) { return output().find(words) != std::string::npos; }

  /// Waits for the first line of standard output and returns it. Throws if no line comes in time.
  std::string firstLine() {
    const std::string first = line();
    if (output().find('\n') == std::string::npos) {
      throw std::runtime_error(name + " does not start: " + errors());
    }
    return first;
  }

  bool endsWithin(Seconds wait) const { return ends(pid(), wait); }

 private:
  const std::string name;
};

}  // namespace kestrune::testing
