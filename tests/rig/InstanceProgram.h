#pragma once

#include <csignal>
#include <string>

#include "adapters/instance/Rendezvous.h"
#include "tests/rig/ForkedProgram.h"

namespace kestrune::testing {

/// A child process that claims to be the one client of the user. Sends "waiting" if the claim is not
/// decided at once. Then sends "client" if this child is the client now, or "second" if another process is
/// the client. As the client, sends "shown" at each request to show its menu, and runs until a signal ends
/// it.
struct InstanceProgram : ForkedProgram {
  explicit InstanceProgram(const InstanceFolders& folders, const Claim& claim = {})
      : ForkedProgram([&folders, &claim](const Say& say) {
          EventLoop loop;
          Rendezvous rendezvous(loop, folders, [&say](const std::string&) { say("shown"); });
          bool isClear = false;
          loop.mainQueue().async([&] {
            if (!isClear) say("waiting");
          });
          const bool isClient = rendezvous.claim(claim);
          isClear = true;
          say(isClient ? "client" : "second");
          if (isClient) loop.runUntil([] { return false; });
        }) {}
};

}  // namespace kestrune::testing
