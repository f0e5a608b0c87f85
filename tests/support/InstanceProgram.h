#pragma once

#include <csignal>
#include <string>

#include "platform/linux/SingleInstance.h"
#include "tests/support/ForkedProgram.h"

namespace kestrune::testing {

/// A process that claims to be the only one: says "alone" or "second", and "activated" whenever it is told to
/// show itself. One that is alone runs until SIGTERM.
class InstanceProgram : public ForkedProgram {
 public:
  InstanceProgram(const std::string& lockPath, SingleInstance::Claim kind)
      : ForkedProgram([&lockPath, kind](const Say& say) { run(lockPath, kind, say); }) {}

  static void run(const std::string& lockPath, SingleInstance::Claim kind, const Say& say,
                  bool takesItsTime = false) {
    EventLoop loop;
    SessionBus bus(loop);
    SingleInstance instance(loop, bus, lockPath, [&say] { say("activated"); });
    bus.connect();
    // Heard only from one that is not sure at once.
    bool decided = false;
    loop.mainQueue().async([&] {
      if (!decided) say("waiting");
    });
    decided = instance.claim(kind);
    say(decided ? "alone" : "second");
    if (decided) loop.runUntil([] { return false; });
    if (!takesItsTime) return;
    // Held back first, so that it cannot come too early.
    sigset_t release;
    sigemptyset(&release);
    sigaddset(&release, SIGCONT);
    sigprocmask(SIG_BLOCK, &release, nullptr);
    instance.announceEnd();
    say("ending");
    int released = 0;
    sigwait(&release, &released);
  }
};

/// One that says "ending" when it is told to end, and does so when it is told to continue.
struct SlowlyEndingInstance : ForkedProgram {
  explicit SlowlyEndingInstance(const std::string& lockPath)
      : ForkedProgram([&lockPath](const Say& say) {
          InstanceProgram::run(lockPath, SingleInstance::Claim::refuse, say, true);
        }) {}
};

}  // namespace kestrune::testing
