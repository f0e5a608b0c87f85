#include <dlfcn.h>
#include <gtest/gtest.h>
#include <systemd/sd-event.h>

#include <cmath>
#include <ctime>
#include <set>

#include "tests/support/InstanceProgram.h"
#include "tests/support/PrivateBus.h"

namespace {

/// By how much the timers of this process run too fast.
unsigned haste = 1;
/// How many of the next delays are nevertheless as long as they are meant to be.
unsigned unhurried = 0;
/// The delays of whole seconds that were asked for. The pauses between attempts are none of them.
std::set<long> delays;

void noteDelay(double seconds) {
  // A little of it may have passed already.
  constexpr double passed = 0.15;
  const long whole = std::lround(seconds);
  const double missing = static_cast<double>(whole) - seconds;
  if (missing > -0.01 && missing < passed) delays.insert(whole);
}

}  // namespace

// Takes the place of the library's own in this program, so that nobody has to wait for a patience to end.
extern "C" int sd_event_add_time(sd_event* loop, sd_event_source** source, clockid_t clock, std::uint64_t due,
                                 std::uint64_t accuracy, sd_event_time_handler_t handler, void* data) {
  static const auto real =
      reinterpret_cast<decltype(&sd_event_add_time)>(dlsym(RTLD_NEXT, "sd_event_add_time"));
  timespec time{};
  clock_gettime(clock, &time);
  const auto now =
      static_cast<std::uint64_t>(time.tv_sec) * 1000000 + static_cast<std::uint64_t>(time.tv_nsec) / 1000;
  if (haste > 1 && due > now) {
    noteDelay(static_cast<double>(due - now) / 1e6);
    if (unhurried > 0) {
      --unhurried;
    } else {
      due = now + (due - now) / haste;
    }
  }
  return real(loop, source, clock, due, accuracy, handler, data);
}

namespace kestrune::testing {
namespace {

using Claim = SingleInstance::Claim;

/// An instance whose time runs a hundred times too fast, but for its first `patiences`, and that says before
/// its verdict for how many seconds it was ready to wait.
struct HastyInstance : ForkedProgram {
  HastyInstance(const std::string& lockPath, Claim kind, unsigned patiences = 0)
      : ForkedProgram([&lockPath, kind, patiences](const Say& say) {
          haste = 100;
          unhurried = patiences;
          InstanceProgram::run(lockPath, kind, [&say](const std::string& line) {
            if (line != "waiting" && line != "activated") say("patience " + std::to_string(*delays.rbegin()));
            say(line);
          });
        }) {}
};

struct SingleInstancePatience : ::testing::Test {
  PrivateBus daemon;
  ScratchFolder folder;
  const std::string lock = folder.file("lock");
};

TEST_F(SingleInstancePatience, EndsAfterTwelveSecondsForOneThatDoesNotEnd) {
  daemon.start();
  InstanceProgram first(lock, Claim::refuse);
  first.line();
  ASSERT_EQ(first.line(), "alone");
  HastyInstance successor(lock, Claim::wait);
  EXPECT_EQ(successor.line(), "waiting");
  EXPECT_EQ(successor.line(), "patience 12");
  EXPECT_EQ(successor.line(), "alone");
}

TEST_F(SingleInstancePatience, EndsAfterTwelveSecondsForALockThatIsNotReleased) {
  InstanceProgram first(lock, Claim::refuse);
  ASSERT_EQ(first.line(), "alone");
  HastyInstance successor(lock, Claim::wait);
  EXPECT_EQ(successor.line(), "waiting");
  EXPECT_EQ(successor.line(), "patience 12");
  EXPECT_EQ(successor.line(), "alone");
}

TEST_F(SingleInstancePatience, EndsAfterTwoSecondsForABusThatDoesNotAnswer) {
  daemon.start();
  daemon.freeze();
  HastyInstance first(lock, Claim::refuse);
  EXPECT_EQ(first.line(), "waiting");
  EXPECT_EQ(first.line(), "patience 2");
  EXPECT_EQ(first.line(), "alone");
  HastyInstance later(lock, Claim::refuse);
  EXPECT_EQ(later.line(), "waiting");
  EXPECT_EQ(later.line(), "patience 2");
  EXPECT_EQ(later.line(), "second");
  EXPECT_EQ(first.line(), "activated");
  first.end(SIGTERM);
  EXPECT_NE(first.standardError().find("KestruneMenuClient: the session bus does not answer\n"),
            std::string::npos);
}

TEST_F(SingleInstancePatience, EndsForASuccessorOnABusThatDoesNotAnswer) {
  daemon.start();
  daemon.freeze();
  HastyInstance successor(lock, Claim::wait);
  ASSERT_EQ(successor.line(), "waiting");
  EXPECT_EQ(successor.line().rfind("patience ", 0), 0u);
  EXPECT_EQ(successor.line(), "alone");
}

TEST_F(SingleInstancePatience, EndsAfterTwoSecondsForAFirstOneThatDoesNotAnswer) {
  daemon.start();
  InstanceProgram first(lock, Claim::refuse);
  first.line();
  ASSERT_EQ(first.line(), "alone");
  first.tell(SIGSTOP);
  // The bus has time to say that there is another one.
  HastyInstance later(lock, Claim::refuse, 1);
  EXPECT_EQ(later.line(), "waiting");
  EXPECT_EQ(later.line(), "patience 2");
  EXPECT_EQ(later.line(), "second");
  later.waitForEnd();
  first.tell(SIGCONT);
  EXPECT_EQ(first.line(), "activated");
}

}  // namespace
}  // namespace kestrune::testing
