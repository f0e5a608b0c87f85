#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <ctime>
#include <list>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "adapters/children/ChildProcesses.h"
#include "adapters/system/System.h"
#include "tests/rig/ComesTrue.h"
#include "tests/rig/ScratchFolder.h"
#include "tests/rig/SignalState.h"

namespace kestrune::testing {

using Arguments = std::vector<std::string>;

/// A named pipe. The child's step "touch" (see TestChild.cpp) opens the pipe for writing and closes it. The
/// test then knows that the child has performed all earlier steps.
class Milestone {
 public:
  explicit Milestone(std::string givenPath) : path(std::move(givenPath)) {
    if (mkfifo(path.c_str(), 0600) != 0) throw std::runtime_error("no named pipe");
    reader.reset(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  }

  /// Waits until the child has opened and closed the pipe (POLLHUP). Returns false if this takes longer than
  /// `wait`.
  bool isReached(Seconds wait = patience) const {
    pollfd waiting{reader.get(), POLLIN, 0};
    return poll(&waiting, 1, static_cast<int>(wait.count() * 1000)) == 1;
  }

  const std::string path;

 private:
  FileDescriptor reader;
};

/// Starts real children, waits for their end, and reaps the descendants that they leave behind.
class RealChildren {
 public:
  RealChildren() {
    // sigtimedwait(2) requires that SIGCHLD is blocked.
    sigemptyset(&childSignal);
    sigaddset(&childSignal, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &childSignal, nullptr);
    // Make this process the parent of its orphaned descendants, because only a parent can reap a process.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
  }
  ~RealChildren() {
    EXPECT_TRUE(groupEnds(anyGroup)) << "a test leaves a process behind";
    prctl(PR_SET_CHILD_SUBREAPER, 0);
  }
  RealChildren(const RealChildren&) = delete;
  RealChildren& operator=(const RealChildren&) = delete;

  /// Launches a child. Never returns null; throws if the launch fails.
  std::unique_ptr<Process> launch(const Arguments& arguments, const std::string& program = TEST_CHILD) {
    auto launched = processes.launch(program, arguments);
    if (!launched) throw std::runtime_error(launched.reason());
    return std::move(*launched);
  }

  /// Launches a child, and waits for its end, which must be a success. Returns its output.
  std::string outputOf(const Arguments& arguments, const std::string& program = TEST_CHILD) {
    const auto child = launch(arguments, program);
    std::string output = child->readOutput(patience);
    EXPECT_TRUE(ends(*child));
    EXPECT_EQ(child->terminationStatus(), 0) << output;
    return output;
  }

  /// Launches a child that performs the steps `arguments` (see TestChild.cpp), then the steps `rest`. Returns
  /// when the child has performed `arguments`.
  std::unique_ptr<Process> launchUpTo(Arguments arguments, const Arguments& rest = {"pause"}) {
    const Milestone& reached = milestones.emplace_back(folder.file(std::to_string(milestones.size())));
    arguments.insert(arguments.end(), {"touch", reached.path});
    arguments.insert(arguments.end(), rest.begin(), rest.end());
    auto child = launch(arguments);
    if (!reached.isReached()) throw std::runtime_error("the child does not do what it is told");
    return child;
  }

  /// Checks `condition` at once and after each SIGCHLD, until `condition` is true. If no SIGCHLD comes within
  /// `patience`, checks a last time. Returns the result of the last check.
  bool comesTrue(const std::function<bool()>& condition) {
    const timespec wait{static_cast<time_t>(patience.count()), 0};
    while (!condition()) {
      if (sigtimedwait(&childSignal, nullptr, &wait) != SIGCHLD && errno == EAGAIN) return condition();
    }
    return true;
  }

  bool ends(Process& child) {
    return comesTrue([&] { return !child.isRunning(); });
  }

  /// Reaps the descendants in the process group `group`, or all descendants if `group` is `anyGroup`. Returns
  /// false if one of them still runs when `comesTrue` gives up.
  bool groupEnds(pid_t group) {
    return comesTrue([&] {
      pid_t reaped = 0;
      while ((reaped = waitpid(group == anyGroup ? -1 : -group, nullptr, WNOHANG)) > 0) {
      }
      return reaped < 0 && errno == ECHILD;
    });
  }

  static constexpr pid_t anyGroup = 0;

  SignalState restored;
  ScratchFolder folder;
  ChildProcesses processes;

 private:
  sigset_t childSignal{};
  std::list<Milestone> milestones;
};

inline pid_t numberBehind(const std::string& text, const std::string& name) {
  const auto at = text.find(name + " ");
  if (at == std::string::npos) throw std::runtime_error("no " + name + " in: " + text);
  return std::stoi(text.substr(at + name.size() + 1));
}

}  // namespace kestrune::testing
