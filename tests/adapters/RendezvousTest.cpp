#include "adapters/instance/Rendezvous.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <cstdlib>
#include <fstream>

#include "adapters/files/Files.h"
#include "tests/adapters/Instances.h"
#include "tests/rig/ForkedProgram.h"
#include "tests/rig/Namespaces.h"
#include "tests/rig/StandardErrorText.h"

namespace {

/// The errno with which flock fails; 0 means that flock works.
int lockFailure = 0;

}  // namespace

// Replaces flock(2) of the C library in this program, to simulate a file system that has no locks.
extern "C" int flock(int descriptor, int operation) noexcept {
  if (lockFailure == 0) return static_cast<int>(syscall(SYS_flock, descriptor, operation));
  errno = lockFailure;
  return -1;
}

namespace kestrune::testing {
namespace {

using Tokens = std::vector<std::string>;
constexpr Seconds moment{0.05};
const Claim replacement{.predecessor = getpid()};

/// A child process that calls `claim`. If `claim` does not return at once, the child reports "waiting" to the
/// test. Then it reports "client" if `claim` has returned true, else "second". After "client", it reports
/// "shown" at each request to show the menu, and runs until a signal ends it.
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

struct RendezvousTest : ::testing::Test, Instances {
  void TearDown() override { lockFailure = 0; }

  std::unique_ptr<Start> start() { return std::make_unique<Start>(loop, folders); }
  std::unique_ptr<Start> clientOn(EventLoop& itsLoop) const {
    auto made = std::make_unique<Start>(itsLoop, folders);
    EXPECT_TRUE(made->claims());
    return made;
  }
  std::unique_ptr<Start> client() { return clientOn(loop); }
  /// Returns a client whose loop never runs, as in a process that hangs.
  std::unique_ptr<Start> hangingClient() { return clientOn(stopped); }
  bool isTurnedDown(const Claim& claim = {}) { return !Start(loop, folders).claims(claim); }

  EventLoop stopped;
};

TEST_F(RendezvousTest, LaterStartsGiveWayAndAskTheClientToShowItsMenu) {
  const auto first = client();
  EXPECT_TRUE(isTurnedDown());
  EXPECT_TRUE(isTurnedDown({.activationToken = "gnome-1_TIME2"}));
  // A token that has a line end or is too long arrives as "". A start in the background or for a predecessor
  // never asks the client to show its menu.
  EXPECT_TRUE(isTurnedDown({.activationToken = "a\nperform quit"}));
  EXPECT_TRUE(isTurnedDown({.activationToken = std::string(100000, 'x')}));
  EXPECT_TRUE(isTurnedDown({.background = true}));
  EXPECT_TRUE(isTurnedDown({.predecessor = getppid()}));
  EXPECT_EQ(first->shown, (Tokens{"", "gnome-1_TIME2", "", ""}));
  EXPECT_EQ(start()->rendezvous.runningClient(), getpid());
}

TEST_F(RendezvousTest, ClientInTheRuntimeFolderOfAnotherSessionIsFound) {
  const InstanceFolders usual("", state, folder.file("none")), others(folder.file("usual"), state, runtime);
  for (int sessions = 0; sessions < 2; ++sessions) {
    const auto first = client();
    for (const auto& elsewhere : {usual, others}) {
      EXPECT_FALSE(Start(loop, elsewhere).claims());
      EXPECT_EQ(Start(loop, elsewhere).rendezvous.runningClient(), getpid());
    }
    EXPECT_EQ(first->shown.size(), 2U);
  }
  EXPECT_TRUE(Start(loop, usual).claims());
}

TEST_F(RendezvousTest, StartWaitsForAnEndingClientOrItsPredecessor) {
  for (const Claim& claim : {Claim{}, Claim{.background = true}, replacement,
                             Claim{.background = true, .predecessor = getpid()}}) {
    auto first = client();
    if (claim.predecessor == 0) first->rendezvous.announceEnd();
    const auto end = loop.after(moment, [&] {
      EXPECT_TRUE(first->shown.empty());
      first.reset();
    });
    EXPECT_TRUE(start()->claims(claim));
    EXPECT_EQ(first, nullptr);
  }
}

TEST_F(RendezvousTest, StartWaitsForAClientThatBeginsToEnd) {
  auto first = hangingClient();
  loop.mainQueue().async([&] { first->rendezvous.announceEnd(); });
  const auto end = loop.after(moment * 3, [&] { first.reset(); });
  EXPECT_TRUE(start()->claims({.answerPatience = moment * 2}));
  EXPECT_EQ(first, nullptr);
}

TEST_F(RendezvousTest, StartPausesBeforeItAsksAClientThatClosesEveryConnectionAgain) {
  ASSERT_FALSE(makeFolders(place));
  const FileDescriptor listening = instanceSocket(place, "socket", &::bind);
  ASSERT_EQ(listen(listening.get(), 8), 0);
  int connections = 0;
  const EventSource accepting = loop.onDescriptor(listening.get(), EPOLLIN, [&] {
    const FileDescriptor closed(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
    ++connections;
  });
  EXPECT_TRUE(isTurnedDown({.answerPatience = moment * 4}));
  EXPECT_GE(connections, 2);
  EXPECT_LE(connections, 12);  // in 0.2 s, with a pause of 20 ms
}

TEST_F(RendezvousTest, StartGivesWayToAHangingClient) {
  const auto first = hangingClient();
  const StandardErrorText errors;
  EXPECT_TRUE(isTurnedDown({.activationToken = "token", .answerPatience = moment}));
  EXPECT_EQ(errors.text(), "KestruneMenuClient: the client that runs (process " + std::to_string(getpid()) +
                               ") does not answer: not starting; continue it with kill -CONT, or kill it\n");
  EXPECT_TRUE(comesTrue(stopped, [&] { return !first->shown.empty(); }));
  EXPECT_EQ(first->shown, Tokens{"token"});
  EXPECT_EQ(Claim{}.answerPatience, Seconds{2});
}

TEST_F(RendezvousTest, SuccessorRunsBesideAClientThatDoesNotEnd) {
  auto first = hangingClient();
  const auto successor = start();
  {
    const StandardErrorText errors;
    EXPECT_TRUE(successor->claims({.predecessor = getpid(), .endPatience = moment}));
    EXPECT_EQ(errors.text(),
              "KestruneMenuClient: another client has locked " + place + "/lock: running beside it\n");
  }
  EXPECT_EQ(Claim{}.endPatience, Seconds{12});
  first.reset();
  successor->rendezvous.publish([] { return "1"; });
  EXPECT_TRUE(isTurnedDown());
  EXPECT_EQ(successor->shown.size(), 1U);
}

TEST_F(RendezvousTest, NextStartIsTheClientAfterSIGTERMOrSIGKILL) {
  for (const int signal : {SIGTERM, SIGKILL}) {
    InstanceProgram first(folders);
    ASSERT_EQ(first.line(), "client");
    first.end(signal);
  }
  EXPECT_TRUE(start()->claims());
}

TEST_F(RendezvousTest, SuccessorGivesWayToAClientThatWasFaster) {
  InstanceProgram first(folders);
  ASSERT_EQ(first.line(), "client");
  InstanceProgram successor(folders, {.predecessor = first.pid()});
  ASSERT_EQ(successor.line(), "waiting");
  successor.tell(SIGSTOP);
  first.end(SIGTERM);
  InstanceProgram other(folders);
  ASSERT_EQ(other.line(), "client");
  successor.tell(SIGCONT);
  EXPECT_EQ(successor.line(), "second");
  EXPECT_TRUE(other.isSilent());
}

TEST_F(RendezvousTest, FilesArePrivate) {
  const auto first = client();
  for (const auto& [path, mode] : std::map<std::string, unsigned>{
           {place, S_IFDIR | 0700}, {place + "/lock", S_IFREG | 0600}, {socket, S_IFSOCK | 0600}}) {
    struct stat found {};
    EXPECT_EQ(lstat(path.c_str(), &found), 0) << path;
    EXPECT_EQ(found.st_mode, mode) << path;
  }
}

TEST_F(RendezvousTest, ClientWithoutALockIsFoundByItsSocket) {
  for (const int failure : {ENOLCK, EIO}) {
    lockFailure = failure;
    const auto first = start();
    {
      const StandardErrorText errors;
      EXPECT_TRUE(first->claims());
      EXPECT_EQ(errors.text(), "KestruneMenuClient: cannot lock " + place +
                                   "/lock: " + std::system_category().message(failure) +
                                   "; a second start may not find this client\n");
    }
    EXPECT_TRUE(isTurnedDown());
    EXPECT_EQ(first->shown.size(), 1U);
  }
}

TEST_F(RendezvousTest, ClientRunsWithoutAFolder) {
  std::ofstream(state) << "not a folder";
  const StandardErrorText errors;
  EXPECT_TRUE(Start(loop, InstanceFolders("", state, "")).claims(replacement));
  EXPECT_EQ(errors.text().find("KestruneMenuClient: cannot lock " + state), 0U) << errors.text();
}

TEST_F(RendezvousTest, ClientRunsOnAFullDisk) {
  requireNamespaces("--mount");
  ForkedProgram program([this](const ForkedProgram::Say& say) {
    // The disk has three inodes: for its root, the client's folder and the lock. None is left for the socket.
    if (!enterMountNamespace() || mount("none", runtime.c_str(), "tmpfs", 0, "nr_inodes=3,mode=700") != 0) {
      return say("no disk");
    }
    EventLoop own;
    Start first(own, folders);
    say(first.claims() ? "client" : "second");
    say(Start(own, folders).claims({.answerPatience = moment}) ? "client" : "second");
    mount("none", runtime.c_str(), "tmpfs", MS_REMOUNT, "nr_inodes=9");
    first.rendezvous.publish([] { return "1"; });
    say(Start(own, folders).claims() ? "client" : "second");
    say(std::to_string(first.shown.size()));
  });
  for (const char* const said : {"client", "second", "second", "1"}) EXPECT_EQ(program.line(), said);
  program.waitForEnd();
  EXPECT_EQ(program.standardError(),
            "KestruneMenuClient: cannot listen on " + socket +
                ": No space left on device; a second start cannot reach this client\n"
                "KestruneMenuClient: another client has locked " +
                place + "/lock and answers no requests: not starting\n");
}

TEST_F(RendezvousTest, LinkInPlaceOfTheLockIsNotFollowed) {
  std::filesystem::create_directories(place);
  std::filesystem::create_symlink(folder.file("elsewhere"), place + "/lock");
  const StandardErrorText errors;
  EXPECT_TRUE(start()->claims());
  EXPECT_FALSE(std::filesystem::exists(folder.file("elsewhere")));
}

TEST_F(RendezvousTest, FolderOfAnotherUserIsNotUsed) {
  // Only root can give the folder to another user. Without root, use a symbolic link to a folder of root
  // instead.
  if (geteuid() == 0) {
    std::filesystem::create_directories(place);
    ASSERT_EQ(chown(place.c_str(), 65534, 65534), 0);
  } else {
    std::filesystem::create_directory_symlink("/usr", place);
  }
  const StandardErrorText errors;
  EXPECT_TRUE(start()->claims());
  EXPECT_NE(errors.text().find("/lock: Operation not permitted; "), std::string::npos) << errors.text();
  EXPECT_FALSE(std::filesystem::exists(place + "/lock"));
}

TEST_F(RendezvousTest, LockIsKeptAcrossExec) {
  ForkedProgram program([this](const ForkedProgram::Say& say) {
    EventLoop own;
    Start before(own, folders);
    before.claims();
    before.rendezvous.keepLockAcrossExec();
    // The client calls `keepLockAcrossExec` just before exec, and exec closes the listening socket. This test
    // calls no exec. It removes the socket's file instead, so that nothing can connect to `before`.
    std::filesystem::remove(socket);
    // The constructor of `after` takes over the lock of `before`. So `another` does not get the lock.
    Start after(own, folders), another(own, folders);
    say(another.claims({.answerPatience = moment}) ? "client" : "second");
    say(after.claims(replacement) ? "client" : "second");
    say(std::getenv("KESTRUNE_MENU_CLIENT_LOCK") == nullptr ? "no trace" : "a trace");
    _exit(0);
  });
  for (const char* const said : {"second", "client", "no trace"}) EXPECT_EQ(program.line(), said);
  program.waitForEnd();
  for (const char* const noLock : {"", "x", "-1", "0", "99999"}) {
    setenv("KESTRUNE_MENU_CLIENT_LOCK", noLock, 1);
    EXPECT_TRUE(start()->claims());
  }
  EXPECT_GE(fcntl(STDIN_FILENO, F_GETFD), 0);
}

TEST_F(RendezvousTest, RemovedLockAndSocketAreCreatedAgain) {
  const auto first = client();
  RawPeer follower(loop, place);
  follower.say("follow\n");
  first->rendezvous.publish([] { return "1"; });
  ASSERT_TRUE(follower.hears("1\n"));
  for (const std::string& removed : {socket, place + "/lock", place}) {
    std::filesystem::remove_all(removed);
    first->rendezvous.publish([] { return "1"; });
    EXPECT_TRUE(isTurnedDown()) << removed;
  }
  EXPECT_EQ(first->shown.size(), 3U);
  first->rendezvous.publish([] { return "2"; });
  EXPECT_TRUE(follower.hears("1\n2\n"));
}

TEST_F(RendezvousTest, ClientTakesItsPlaceBackAfterAnother) {
  const auto first = client();
  std::filesystem::remove_all(place);
  auto other = client();
  {
    const StandardErrorText errors;
    first->rendezvous.publish([] { return "1"; });
    first->rendezvous.publish([] { return "2"; });
    EXPECT_EQ(errors.text(),
              "KestruneMenuClient: another client has locked " + place + "/lock: running beside it\n");
  }
  EXPECT_TRUE(isTurnedDown());
  EXPECT_EQ(other->shown.size(), 1U);
  other.reset();
  first->rendezvous.publish([] { return "3"; });
  EXPECT_TRUE(isTurnedDown());
  EXPECT_EQ(first->shown.size(), 1U);
}

TEST_F(RendezvousTest, EndingClientDoesNotRenameTheSocketOfAnother) {
  const auto first = client();
  std::filesystem::remove_all(place);
  const auto other = client();
  first->rendezvous.announceEnd();
  EXPECT_TRUE(isTurnedDown());
  EXPECT_EQ(other->shown.size(), 1U);
}

TEST_F(RendezvousTest, ClientMovesToTheStateFolderWhenTheRuntimeFolderVanishes) {
  const auto first = client();
  std::filesystem::remove_all(runtime);
  first->rendezvous.publish([] { return "1"; });
  EXPECT_TRUE(std::filesystem::exists(stateSocket));
  std::filesystem::create_directories(runtime);
  EXPECT_TRUE(isTurnedDown());
  EXPECT_EQ(first->shown.size(), 1U);
}

TEST_F(RendezvousTest, PerformReturnsTheAnswerOfTheClient) {
  const auto first = client();
  EXPECT_EQ(start()->rendezvous.ask("quit"), Failure{"the client has not started yet"});
  Tokens performed;
  first->rendezvous.onPerform([&](const std::string& action) -> Result<> {
    performed.push_back(action);
    if (action == "quit") return Done{};
    return Failure{"unknown action: " + action};
  });
  EXPECT_EQ(start()->rendezvous.ask("quit"), Result<>(Done{}));
  EXPECT_EQ(start()->rendezvous.ask("fly away"), Failure{"unknown action: fly away"});
  EXPECT_EQ(start()->rendezvous.ask("a\nperform quit"),
            Failure{"invalid action: longer than 1024 bytes, or with a control character"});
  EXPECT_EQ(performed, (Tokens{"quit", "fly away"}));
}

TEST_F(RendezvousTest, PerformReturnsWhyNoClientAnswers) {
  EXPECT_EQ(start()->rendezvous.ask("quit"), Failure{"no client runs"});
  const auto hanging = hangingClient();
  EXPECT_EQ(start()->rendezvous.ask("quit", moment), Failure{"the client that runs does not answer"});
  hanging->rendezvous.announceEnd();
  EXPECT_EQ(start()->rendezvous.ask("quit"), Failure{"the client is about to end"});
}

TEST_F(RendezvousTest, HangingClientIsFoundAfterManyConnections) {
  const auto hanging = hangingClient();
  const auto other = start();
  for (int connection = 1; connection <= 100; ++connection)
    ASSERT_TRUE(other->rendezvous.runningClient()) << connection;
}

TEST_F(RendezvousTest, TooManySubscribersDoNotSpinTheLoop) {
  const auto first = client();
  first->rendezvous.publish([] { return "1"; });
  int heard = 0;
  std::vector<StatusSubscription> subscriptions;
  for (int i = 0; i < 66; ++i)
    subscriptions.push_back(first->rendezvous.subscribe([&heard](const std::string&) { ++heard; }, [] {}));
  EXPECT_TRUE(comesTrue(loop, [&heard] { return heard >= 66; }));
  EXPECT_TRUE(isIdle(loop));
}

}  // namespace
}  // namespace kestrune::testing
