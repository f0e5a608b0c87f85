#pragma once

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <list>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "adapters/system/FileDescriptor.h"
#include "adapters/windows/protocol/DialogProtocol.h"
#include "tests/rig/ComesTrue.h"
#include "tests/rig/ScopedVariable.h"
#include "tests/rig/ScratchFolder.h"

namespace kestrune::testing {

/// Whether all children of this process have ended and been reaped, or are so soon; what is left is ended.
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

/// One run of the stand-in, which does what the test says.
class DialogsRun {
 public:
  DialogsRun(EventLoop& givenLoop, FileDescriptor givenConnection)
      : loop(givenLoop), connection(std::move(givenConnection)) {
    listen();
  }

  void listen() {
    readable = loop.onDescriptor(connection.get(), EPOLLIN, [this] { readSome(); });
  }
  /// Takes no more of what is asked for.
  void lookAway() { readable.reset(); }

  void say(const std::string& text) const {
    if (send(connection.get(), text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size()))
      throw std::runtime_error("the stand-in does not listen");
  }
  void say(const dialogs::Event& event) const { say(dialogs::encode(event) + "\n"); }

  /// The program ends of itself.
  void end() {
    readable.reset();
    connection.reset();
  }

  /// Whether the program has ended, or does so soon.
  bool ends() {
    return comesTrue(loop, [this] { return ended; });
  }

  /// The first `count` requests of one kind.
  template <typename Kind>
  std::vector<Kind> asked(std::size_t count) {
    const auto ofKind = [this] {
      std::vector<Kind> found;
      for (const auto& each : requests) {
        if (const auto* const request = std::get_if<Kind>(&each)) found.push_back(*request);
      }
      return found;
    };
    if (!comesTrue(loop, [&] { return ofKind().size() >= count; })) throw std::runtime_error("not asked for");
    return ofKind();
  }

  std::vector<dialogs::Request> requests;  ///< all that was asked for
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
      requests.push_back(std::get<dialogs::Request>(dialogs::decodeRequest(begun.substr(0, end))));
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

/// A dialogs program that a test plays.
class StandInDialogs {
 public:
  explicit StandInDialogs(EventLoop& givenLoop)
      : loop(givenLoop),
        listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)),
        variable("TEST_DIALOGS_SOCKET", folder.file("socket")) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, folder.file("socket").c_str());
    if (bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener.get(), 8) != 0)
      throw std::runtime_error("no socket");
    // A name of its own, because a complaint about a program is made only once.
    std::filesystem::create_symlink(TEST_DIALOGS, program());
    arriving = loop.onDescriptor(listener.get(), EPOLLIN, [this] { accept(); });
  }

  std::string program() const { return folder.file("dialogs"); }

  /// Puts a shell script in the place of the stand-in.
  void replaceBy(const std::string& script) const {
    std::filesystem::remove(program());
    std::ofstream(program()) << "#!/bin/sh\n" << script << "\n";
    std::filesystem::permissions(program(), std::filesystem::perms::owner_all);
  }

  /// The run of that number, counted from 1; waits until it is there.
  DialogsRun& run(std::size_t number = 1) {
    if (!comesTrue(loop, [&] { return runs.size() >= number; })) throw std::runtime_error("not started");
    return *std::next(runs.begin(), static_cast<std::ptrdiff_t>(number) - 1);
  }

  std::list<DialogsRun> runs;                 ///< all that there were
  std::function<void(DialogsRun&)> whenRuns;  ///< called for each new one

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
