#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <fstream>

#include "tests/support/InstanceProgram.h"
#include "tests/support/NameOnBus.h"
#include "tests/support/PrivateBus.h"
#include "tests/support/Stranger.h"

namespace kestrune::testing {
namespace {

using Claim = SingleInstance::Claim;
constexpr auto clientName = "com.dovrel.kestrune.menuclient";

/// Has the name of the program, and is told to show itself, but says nothing.
class MuteInstance {
 public:
  MuteInstance() {
    sd_bus_open_user(&bus);
    sd_bus_add_filter(bus, nullptr, &hear, this);
    sd_bus_request_name(bus, clientName, 0);
  }
  ~MuteInstance() { end(); }
  MuteInstance(const MuteInstance&) = delete;
  MuteInstance& operator=(const MuteInstance&) = delete;

  bool isTold() {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (!told && std::chrono::steady_clock::now() < deadline) {
      if (sd_bus_process(bus, nullptr) == 0) sd_bus_wait(bus, 100000);  // microseconds
    }
    return told;
  }
  void end() {
    // Programs that were forked meanwhile have the connection, too.
    if (bus != nullptr) shutdown(sd_bus_get_fd(bus), SHUT_RDWR);
    bus = sd_bus_close_unref(bus);
  }

 private:
  static int hear(sd_bus_message* message, void* self, sd_bus_error*) {
    const bool asked = sd_bus_message_is_method_call(message, "org.freedesktop.Application", "Activate") > 0;
    if (asked) static_cast<MuteInstance*>(self)->told = true;
    return asked ? 1 : 0;
  }

  sd_bus* bus = nullptr;
  bool told = false;
};

/// How often anybody asks the bus whether a name has an owner.
class Questions {
 public:
  explicit Questions(const PrivateBus& daemon) {
    sd_bus_new(&bus);
    sd_bus_set_address(bus, daemon.address().c_str());
    sd_bus_set_bus_client(bus, 1);
    sd_bus_set_monitor(bus, 1);
    sd_bus_start(bus);
    sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                       "org.freedesktop.DBus.Monitoring", "BecomeMonitor", nullptr, nullptr, "asu", 1,
                       "type='method_call',member='NameHasOwner'", 0);
  }
  ~Questions() { sd_bus_flush_close_unref(bus); }
  Questions(const Questions&) = delete;
  Questions& operator=(const Questions&) = delete;

  /// Whether, sooner or later, it is so often.
  bool number(int count) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    for (int heard = 0; heard < count;) {
      sd_bus_message* message = nullptr;
      if (std::chrono::steady_clock::now() > deadline) return false;
      if (sd_bus_process(bus, &message) == 0) sd_bus_wait(bus, 100000);  // microseconds
      if (message != nullptr && sd_bus_message_is_method_call(message, nullptr, "NameHasOwner") > 0) ++heard;
      sd_bus_message_unref(message);
    }
    return true;
  }

 private:
  sd_bus* bus = nullptr;
};

struct SingleInstanceOnBus : ::testing::Test {
  void SetUp() override { daemon.start(); }

  PrivateBus daemon;
  ScratchFolder folder;
  const std::string lock = folder.file("runtime/lock");
};

TEST_F(SingleInstanceOnBus, OwnsTheNameOfTheProgram) {
  InstanceProgram first(lock, Claim::refuse);
  EXPECT_EQ(first.line(), "waiting");
  EXPECT_EQ(first.line(), "alone");
  EXPECT_EQ(NameOnBus(clientName).owner(), first.pid());
  EXPECT_FALSE(std::filesystem::exists(lock));
}

TEST_F(SingleInstanceOnBus, TurnsEveryLaterStartDownAndIsToldOfEach) {
  InstanceProgram first(lock, Claim::refuse);
  first.line();
  ASSERT_EQ(first.line(), "alone");
  for (int start = 0; start < 2; ++start) {
    InstanceProgram later(lock, Claim::refuse);
    EXPECT_EQ(later.line(), "waiting");
    EXPECT_EQ(later.line(), "second");
    later.waitForEnd();
    EXPECT_EQ(first.line(), "activated");
  }
  EXPECT_EQ(NameOnBus(clientName).owner(), first.pid());
  first.end(SIGTERM);
  EXPECT_EQ(first.line(), "end");
}

TEST_F(SingleInstanceOnBus, GivesWayWithoutAWordWhenItWasNotStartedByHand) {
  InstanceProgram first(lock, Claim::refuseQuietly);
  first.line();
  ASSERT_EQ(first.line(), "alone");
  InstanceProgram later(lock, Claim::refuseQuietly);
  later.line();
  EXPECT_EQ(later.line(), "second");
  later.waitForEnd();
  InstanceProgram loud(lock, Claim::refuse);
  loud.line();
  EXPECT_EQ(loud.line(), "second");
  loud.waitForEnd();
  EXPECT_EQ(first.line(), "activated");
  first.end(SIGTERM);
  EXPECT_EQ(first.line(), "end") << "the quiet one must not make it show itself";
}

TEST_F(SingleInstanceOnBus, MakesRoomWhenItEnds) {
  for (const int signal : {SIGTERM, SIGKILL}) {
    InstanceProgram first(lock, Claim::refuse);
    first.line();
    ASSERT_EQ(first.line(), "alone");
    first.end(signal);
  }
  InstanceProgram next(lock, Claim::refuse);
  next.line();
  EXPECT_EQ(next.line(), "alone");
}

TEST_F(SingleInstanceOnBus, WaitsForTheOneThatItReplaces) {
  InstanceProgram first(lock, Claim::refuse);
  first.line();
  ASSERT_EQ(first.line(), "alone");
  InstanceProgram successor(lock, Claim::wait);
  NameOnBus name(clientName);
  ASSERT_TRUE(name.isWantedBy(2));
  EXPECT_EQ(successor.line(), "waiting");
  EXPECT_TRUE(successor.isSilent());
  first.end(SIGTERM);
  EXPECT_EQ(first.line(), "end") << "a successor must not make it show itself";
  EXPECT_EQ(successor.line(), "alone");
  EXPECT_EQ(name.owner(), successor.pid());
}

TEST_F(SingleInstanceOnBus, TakesNobodysWordButThatOfTheBus) {
  InstanceProgram first(lock, Claim::refuse);
  first.line();
  ASSERT_EQ(first.line(), "alone");
  InstanceProgram successor(lock, Claim::wait);
  NameOnBus name(clientName);
  ASSERT_TRUE(name.isWantedBy(2));
  EXPECT_EQ(successor.line(), "waiting");
  Stranger stranger(daemon);
  stranger.tell(name.lastToWant(), "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameAcquired", "s",
                clientName);
  // By the same way, and so behind it.
  stranger.ask(name.lastToWant(), "/com/dovrel/kestrune/menuclient", "org.freedesktop.Application",
               "Activate", "a{sv}", 0);
  EXPECT_EQ(successor.line(), "activated");
  first.end(SIGTERM);
  EXPECT_EQ(successor.line(), "alone");
}

TEST_F(SingleInstanceOnBus, WaitsForOneThatIsAboutToEndHoweverItWasStarted) {
  for (const Claim kind : {Claim::refuse, Claim::refuseQuietly}) {
    SlowlyEndingInstance first(lock);
    first.line();
    ASSERT_EQ(first.line(), "alone");
    first.tell(SIGTERM);
    ASSERT_EQ(first.line(), "ending");
    Questions questions(daemon);
    InstanceProgram later(lock, kind);
    ASSERT_TRUE(questions.number(2));
    EXPECT_EQ(later.line(), "waiting");
    EXPECT_TRUE(later.isSilent());
    first.end(SIGCONT);
    EXPECT_EQ(first.line(), "end");
    EXPECT_EQ(later.line(), "alone");
    EXPECT_EQ(NameOnBus(clientName).owner(), later.pid());
  }
}

TEST_F(SingleInstanceOnBus, GivesWayToWhoeverReplacesOneThatIsAboutToEnd) {
  SlowlyEndingInstance first(lock);
  first.line();
  ASSERT_EQ(first.line(), "alone");
  InstanceProgram successor(lock, Claim::wait);
  ASSERT_TRUE(NameOnBus(clientName).isWantedBy(2));
  EXPECT_EQ(successor.line(), "waiting");
  first.tell(SIGTERM);
  ASSERT_EQ(first.line(), "ending");
  Questions questions(daemon);
  InstanceProgram later(lock, Claim::refuse);
  ASSERT_TRUE(questions.number(2));
  first.end(SIGCONT);
  EXPECT_EQ(successor.line(), "alone");
  EXPECT_EQ(successor.line(), "activated");
  EXPECT_EQ(later.line(), "waiting");
  EXPECT_EQ(later.line(), "second");
}

TEST_F(SingleInstanceOnBus, TakesThePlaceOfOneThatEndsInsteadOfShowingItself) {
  MuteInstance first;
  InstanceProgram later(lock, Claim::refuse);
  ASSERT_TRUE(first.isTold());
  first.end();
  EXPECT_EQ(later.line(), "waiting");
  EXPECT_EQ(later.line(), "alone");
  EXPECT_EQ(NameOnBus(clientName).owner(), later.pid());
}

TEST_F(SingleInstanceOnBus, DoesNotWaitWhenThereIsNobodyToReplace) {
  InstanceProgram successor(lock, Claim::wait);
  EXPECT_EQ(successor.line(), "waiting");
  EXPECT_EQ(successor.line(), "alone");
  EXPECT_EQ(NameOnBus(clientName).owner(), successor.pid());
}

TEST_F(SingleInstanceOnBus, TurnsAStartDownAfterItHasReplacedAnother) {
  InstanceProgram first(lock, Claim::wait);
  first.line();
  ASSERT_EQ(first.line(), "alone");
  InstanceProgram later(lock, Claim::refuse);
  later.line();
  EXPECT_EQ(later.line(), "second");
  EXPECT_EQ(first.line(), "activated");
}

TEST_F(SingleInstanceOnBus, ClaimsTheNameAgainOnABusThatStartsAnew) {
  for (const Claim kind : {Claim::refuse, Claim::wait}) {
    InstanceProgram first(lock, kind);
    first.line();
    ASSERT_EQ(first.line(), "alone");
    daemon.stop();
    daemon.start();
    EXPECT_EQ(NameOnBus(clientName).owner(), first.pid());
    InstanceProgram later(lock, Claim::refuse);
    later.line();
    EXPECT_EQ(later.line(), "second");
    EXPECT_EQ(first.line(), "activated");
  }
}

TEST_F(SingleInstanceOnBus, ClaimsTheNameOnABusThatStartsAnewMeanwhile) {
  daemon.freeze();
  InstanceProgram first(lock, Claim::refuse);
  ASSERT_EQ(first.line(), "waiting");
  daemon.stop();
  daemon.start();
  EXPECT_EQ(first.line(), "alone");
  EXPECT_EQ(NameOnBus(clientName).owner(), first.pid());
}

TEST_F(SingleInstanceOnBus, ReplacesAnotherOnABusThatStartsAnewMeanwhile) {
  InstanceProgram first(lock, Claim::refuse);
  first.line();
  ASSERT_EQ(first.line(), "alone");
  InstanceProgram successor(lock, Claim::wait);
  ASSERT_TRUE(NameOnBus(clientName).isWantedBy(2));
  ASSERT_EQ(successor.line(), "waiting");
  daemon.stop();
  first.end(SIGTERM);
  daemon.start();
  ASSERT_EQ(successor.line(), "alone");
  EXPECT_EQ(NameOnBus(clientName).owner(), successor.pid());
}

TEST_F(SingleInstanceOnBus, ClaimsTheNameWhenTheBusComesLater) {
  daemon.stop();
  InstanceProgram first(lock, Claim::refuse);
  ASSERT_EQ(first.line(), "alone");
  daemon.start();
  EXPECT_EQ(NameOnBus(clientName).owner(), first.pid());
  InstanceProgram later(lock, Claim::refuse);
  later.line();
  EXPECT_EQ(later.line(), "second");
  EXPECT_EQ(first.line(), "activated");
}

struct SingleInstanceWithoutBus : ::testing::Test {
  PrivateBus daemon;
  ScratchFolder folder;
  const std::string lock = folder.file("runtime/client/lock");
};

TEST_F(SingleInstanceWithoutBus, HoldsALockInAFolderOfTheUsersOwn) {
  InstanceProgram first(lock, Claim::refuse);
  EXPECT_EQ(first.line(), "alone");
  EXPECT_EQ(std::filesystem::status(folder.file("runtime/client")).permissions(),
            std::filesystem::perms::owner_all);
  EXPECT_EQ(std::filesystem::status(lock).permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST_F(SingleInstanceWithoutBus, TurnsEveryLaterStartDownAndIsToldOfEach) {
  InstanceProgram first(lock, Claim::refuse);
  ASSERT_EQ(first.line(), "alone");
  for (int start = 0; start < 2; ++start) {
    InstanceProgram later(lock, Claim::refuse);
    EXPECT_EQ(later.line(), "second");
    later.waitForEnd();
    EXPECT_EQ(first.line(), "activated");
  }
  first.end(SIGTERM);
  EXPECT_EQ(first.line(), "end");
}

TEST_F(SingleInstanceWithoutBus, GivesWayWithoutAWordWhenItWasNotStartedByHand) {
  InstanceProgram first(lock, Claim::refuseQuietly);
  ASSERT_EQ(first.line(), "alone");
  InstanceProgram later(lock, Claim::refuseQuietly);
  EXPECT_EQ(later.line(), "second");
  later.waitForEnd();
  InstanceProgram loud(lock, Claim::refuse);
  EXPECT_EQ(loud.line(), "second");
  loud.waitForEnd();
  EXPECT_EQ(first.line(), "activated");
  first.end(SIGTERM);
  EXPECT_EQ(first.line(), "end") << "the quiet one must not make it show itself";
}

TEST_F(SingleInstanceWithoutBus, MakesRoomWhenItEnds) {
  for (const int signal : {SIGTERM, SIGKILL}) {
    InstanceProgram first(lock, Claim::refuse);
    ASSERT_EQ(first.line(), "alone");
    first.end(signal);
  }
  InstanceProgram next(lock, Claim::refuse);
  EXPECT_EQ(next.line(), "alone");
}

TEST_F(SingleInstanceWithoutBus, WaitsForTheOneThatItReplaces) {
  InstanceProgram first(lock, Claim::refuse);
  ASSERT_EQ(first.line(), "alone");
  InstanceProgram successor(lock, Claim::wait);
  ASSERT_EQ(successor.line(), "waiting");
  EXPECT_TRUE(successor.isSilent());
  first.end(SIGTERM);
  EXPECT_EQ(first.line(), "end") << "a successor must not make it show itself";
  EXPECT_EQ(successor.line(), "alone");
}

TEST_F(SingleInstanceWithoutBus, WaitsForOneThatIsAboutToEndHoweverItWasStarted) {
  for (const Claim kind : {Claim::refuse, Claim::refuseQuietly}) {
    SlowlyEndingInstance first(lock);
    ASSERT_EQ(first.line(), "alone");
    first.tell(SIGTERM);
    ASSERT_EQ(first.line(), "ending");
    InstanceProgram later(lock, kind);
    EXPECT_EQ(later.line(), "waiting");
    EXPECT_TRUE(later.isSilent());
    first.end(SIGCONT);
    EXPECT_EQ(first.line(), "end");
    EXPECT_EQ(later.line(), "alone");
  }
}

TEST_F(SingleInstanceWithoutBus, DoesNotWaitWhenThereIsNobodyToReplace) {
  InstanceProgram successor(lock, Claim::wait);
  EXPECT_EQ(successor.line(), "alone");
}

TEST_F(SingleInstanceWithoutBus, DoesNotMindALockThatSomeoneLeftBehind) {
  std::filesystem::create_directories(folder.file("runtime/client"));
  std::ofstream(lock) << "1";
  InstanceProgram first(lock, Claim::refuse);
  EXPECT_EQ(first.line(), "alone");
}

TEST_F(SingleInstanceWithoutBus, GoesOnWhereNothingCanBeLocked) {
  std::ofstream(folder.file("file")) << "not a folder";
  for (const Claim kind : {Claim::refuse, Claim::wait}) {
    const std::string impossible = folder.file("file/lock");
    InstanceProgram first(impossible, kind);
    EXPECT_EQ(first.line(), "alone");
    first.end(SIGTERM);
    EXPECT_NE(first.standardError().find("KestruneMenuClient: cannot lock " + impossible + ": "),
              std::string::npos);
  }
}

TEST_F(SingleInstanceWithoutBus, DoesNotFollowALinkInPlaceOfItsLock) {
  std::filesystem::create_directories(folder.file("runtime/client"));
  std::filesystem::create_symlink(folder.file("elsewhere"), lock);
  InstanceProgram first(lock, Claim::refuse);
  EXPECT_EQ(first.line(), "alone");
  EXPECT_FALSE(std::filesystem::exists(folder.file("elsewhere")));
}

}  // namespace
}  // namespace kestrune::testing
