#pragma once

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <list>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "adapters/instance/InstanceFolders.h"
#include "adapters/system/System.h"
#include "adapters/windows/protocol/DialogProtocol.h"
#include "tests/rig/ComesTrue.h"
#include "tests/rig/ScopedVariable.h"
#include "tests/rig/ScratchFolder.h"

namespace kestrune::testing {

/// Waits until this process has no children, not even zombies. At the time limit, kills and reaps the
/// children that the calling thread has started, and returns false.
inline bool hasNoChildren(EventLoop& loop) {
  const bool none = comesTrue(loop, [] {
    siginfo_t state{};
    return waitid(P_ALL, 0, &state, WEXITED | WNOHANG | WNOWAIT) == -1 && errno == ECHILD;
  });
  if (none) return true;
  std::ifstream left("/proc/thread-self/children");
  for (pid_t child = 0; left >> child;) {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
  }
  return false;
}

/// One run of the fake KestruneMenuDialogs. The test decides what the program sends.
class DialogsRun {
 public:
  DialogsRun(EventLoop& givenLoop, FileDescriptor givenConnection)
      : loop(givenLoop), connection(std::move(givenConnection)) {
    listen();
  }

  void listen() {
    readable = loop.onDescriptor(connection.get(), EPOLLIN, [this] { readSome(); });
  }
  /// Stops reading requests until the next listen().
  void lookAway() { readable.reset(); }

  void say(const std::string& text) const {
    if (send(connection.get(), text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size()))
      throw std::runtime_error("the fake dialogs program does not read");
  }
  void say(const dialogs::Event& event) const { say(dialogs::encode(event) + "\n"); }

  /// Closes the connection, as a real KestruneMenuDialogs does when it exits.
  void end() {
    readable.reset();
    connection.reset();
  }

  /// Waits until the client has closed the connection; false at the time limit.
  bool ends() {
    return comesTrue(loop, [this] { return ended; });
  }

  /// Waits until `count` requests of type `Kind` have come. Returns all requests of this type. Throws at the
  /// time limit.
  template <typename Kind>
  std::vector<Kind> asked(std::size_t count) {
    const auto ofKind = [this] {
      std::vector<Kind> found;
      for (const auto& each : requests) {
        if (const auto* const request = std::get_if<Kind>(&each)) found.push_back(*request);
      }
      return found;
    };
    if (!comesTrue(loop, [&] { return ofKind().size() >= count; }))
      throw std::runtime_error("no such request");
    return ofKind();
  }

  std::vector<dialogs::Request> requests;  ///< every request so far, in order
  bool ended = false;

 private:
  void readSome() {
    char buffer[65536];
    const ssize_t count = read(connection.get(), buffer, sizeof buffer);
    if (count <= 0) {
      ended = true;
      readable.reset();
      return;
    }
    begun.append(buffer, static_cast<std::size_t>(count));
    for (std::size_t end; (end = begun.find('\n')) != std::string::npos; begun.erase(0, end + 1)) {
      requests.push_back(std::get<dialogs::Request>(dialogs::decode<dialogs::Request>(begun.substr(0, end))));
      if (whenAsked) whenAsked(requests.back());
    }
  }

  EventLoop& loop;
  FileDescriptor connection;
  EventSource readable;
  std::string begun;

 public:
  std::function<void(const dialogs::Request&)> whenAsked;
};

/// Replaces KestruneMenuDialogs in a test. The client starts `program()`, a fake KestruneMenuDialogs. Each
/// run of the fake connects to this object, so that the test can read the client's requests and answer them
/// (`DialogsRun`).
class StandInDialogs {
 public:
  explicit StandInDialogs(EventLoop& givenLoop)
      : loop(givenLoop),
        listener(instanceSocket(folder.file("."), "socket", &::bind)),
        variable("TEST_DIALOGS_SOCKET", folder.file("socket")) {
    if (::listen(listener.get(), 8) != 0) throw std::runtime_error("no socket");
    // Give the program a path that no other test uses, because error messages contain this path. `reportOnce`
    // prints equal messages only once per process, so a later test would miss its message.
    std::filesystem::create_symlink(TEST_DIALOGS, program());
    arriving = loop.onDescriptor(listener.get(), EPOLLIN, [this] { accept(); });
  }

  std::string program() const { return folder.file("dialogs"); }

  void replaceBy(const std::string& script) const {
    std::filesystem::remove(program());
    put(program(), "#!/bin/sh\n" + script + "\n", 0755);
  }

  /// Waits until the program has been started `number` times, and returns the last of these runs. Throws at
  /// the time limit.
  DialogsRun& run(std::size_t number = 1) {
    if (!comesTrue(loop, [&] { return runs.size() >= number; }))
      throw std::runtime_error("the program was not started");
    return *std::next(runs.begin(), static_cast<std::ptrdiff_t>(number) - 1);
  }

  std::list<DialogsRun> runs;                 ///< every run so far, in order
  std::function<void(DialogsRun&)> whenRuns;  ///< called at the start of each run

 private:
  void accept() {
    FileDescriptor connection(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!connection) return;
    auto& run = runs.emplace_back(loop, std::move(connection));
    if (whenRuns) whenRuns(run);
  }

  EventLoop& loop;
  const ScratchFolder folder;
  const FileDescriptor listener;
  const ScopedVariable variable;
  EventSource arriving;
};

}  // namespace kestrune::testing
