#pragma once

#include <sys/socket.h>

#include <filesystem>
#include <string>
#include <vector>

#include "adapters/instance/Rendezvous.h"
#include "tests/adapters/Loops.h"
#include "tests/rig/ScratchFolder.h"

namespace kestrune::testing {

/// Stands for one process of the client. `claims` returns whether this process has become the only client of
/// the user.
struct Start {
  Start(EventLoop& loop, const InstanceFolders& folders)
      : rendezvous(loop, folders, [this](const std::string& token) { shown.push_back(token); }) {}

  bool claims(const Claim& claim = {}) { return rendezvous.claim(claim); }

  std::vector<std::string> shown;  ///< the activation token of each request to show the menu
  Rendezvous rendezvous;
};

/// One event loop and one set of folders, shared by all clients that a test starts.
struct Instances : RealLoop {
  Instances() { std::filesystem::create_directories(runtime); }

  ScratchFolder folder;
  const std::string runtime = folder.file("runtime"), state = folder.file("state");
  const InstanceFolders folders{runtime, state, folder.file("none")};
  const std::string place = runtime + "/kestrune-menu-client";
  const std::string stateSocket = state + "/kestrune-menu-client/socket";
  const std::string socket = place + "/socket";
};

/// A connection to the socket of the running client. Collects the answers in `text`.
struct RawPeer {
  RawPeer(EventLoop& givenLoop, const std::string& place)
      : loop(givenLoop), socket(instanceSocket(place, "socket", &::connect)) {}

  void say(const std::string& words) const { send(socket.get(), words.data(), words.size(), MSG_NOSIGNAL); }

  /// Reads what has arrived, and sets `hasEnded` if the client has closed the connection.
  void read() {
    char bytes[4096];
    ssize_t count = 0;
    while ((count = recv(socket.get(), bytes, sizeof bytes, 0)) > 0) {
      text.append(bytes, static_cast<std::size_t>(count));
    }
    hasEnded = count == 0 || errno == ECONNRESET;
  }
  bool hears(const std::string& expected) {
    return comesTrueElsewhere(loop, [&] { return read(), text == expected; });
  }
  bool isDisconnected() {
    return comesTrueElsewhere(loop, [&] { return read(), hasEnded; });
  }

  EventLoop& loop;
  FileDescriptor socket;
  std::string text;
  bool hasEnded = false;
};

}  // namespace kestrune::testing
