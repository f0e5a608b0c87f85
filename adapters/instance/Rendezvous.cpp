#include "adapters/instance/Rendezvous.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <utility>

#include "adapters/files/Files.h"
#include "adapters/files/ProgramBundle.h"
#include "adapters/system/System.h"

namespace kestrune {

constexpr auto lockName = "/lock";
/// The environment variable with the number of the descriptor that `keepLockAcrossExec` has left open.
constexpr auto lockVariable = "KESTRUNE_MENU_CLIENT_LOCK";
/// The pause before `claim` looks again for another client. A client holds the lock but has no socket while
/// it starts (it locks before it listens) or ends (it closes its socket before it unlocks).
constexpr Seconds lookInterval{0.02};
constexpr std::size_t wordLimit = 1024;  // bytes; maximum for an action and for an activation token

static FileDescriptor inheritedLock() {
  const int descriptor = std::atoi(takeVariable(lockVariable).c_str());
  const bool isThere = descriptor > STDERR_FILENO && fcntl(descriptor, F_SETFD, FD_CLOEXEC) == 0;
  return FileDescriptor(isThere ? descriptor : -1);
}

/// Returns whether `word` can be part of a request: it is short and has no control character.
static bool canBeSent(const std::string& word) {
  return word.size() <= wordLimit &&
         std::none_of(word.begin(), word.end(), [](unsigned char each) { return each < ' '; });
}

/// Runs the loop until the other process sends a line or ends (its end closes the connection), at most for
/// `limit`. If `socket` is empty, just waits for the time `limit`. Returns what has arrived, perhaps no whole
/// line; absent if the loop is told to end.
static std::optional<std::string> waitForAnswer(EventLoop& loop, const FileDescriptor& socket,
                                                Seconds limit) {
  std::string answer;
  bool isOver = false;
  const auto hear = [&] { isOver = !receive(socket, answer) || answer.ends_with('\n'); };
  const EventSource input = socket ? loop.onDescriptor(socket.get(), EPOLLIN, hear) : nullptr;
  const EventSource deadline = loop.after(limit, [&isOver] { isOver = true; });
  loop.runUntil([&isOver] { return isOver; });
  return isOver ? std::optional(answer) : std::nullopt;
}

Rendezvous::Rendezvous(EventLoop& givenLoop, InstanceFolders givenFolders,
                       std::function<void(const std::string&)> onShow)
    : loop(givenLoop),
      folders(std::move(givenFolders)),
      lock(inheritedLock()),
      server(givenLoop, std::move(onShow)) {}

bool Rendezvous::claim(const Claim& claim) {
  // This process waits either for the answer of the other client or for its end.
  bool waitsForEnd = claim.predecessor != 0;
  Seconds waitBegan = timeOf(CLOCK_MONOTONIC);
  for (;;) {
    bool mustEnd = waitsForEnd;  // not changed while another client holds the lock but has no socket
    FileDescriptor other = folders.connect(runningSocketName);
    if (other) {
      mustEnd = claim.predecessor != 0 && claim.predecessor == peerOf(other).pid;
      if (!mustEnd && (claim.background || claim.predecessor != 0)) return false;
    } else if ((other = folders.connect(endingSocketName))) {
      mustEnd = true;
    } else if (takeLock(folders.current()) != std::errc::operation_would_block) {
      break;
    }
    const Seconds present = timeOf(CLOCK_MONOTONIC);
    if (std::exchange(waitsForEnd, mustEnd) != mustEnd) waitBegan = present;
    const Seconds limit = waitsForEnd ? claim.endPatience : claim.answerPatience;
    const Seconds left = waitBegan + limit - present;
    if (left <= Seconds{0}) {
      if (waitsForEnd) break;
      reportOnce(other ? "the client that runs (process " + std::to_string(peerOf(other).pid) +
                             ") does not answer: not starting; continue it with kill -CONT, or kill it"
                       : "another client has locked " + folders.current() + lockName +
                             " and answers no requests: not starting");
      return false;
    }
    if (other) {
      const bool hasToken = !claim.activationToken.empty() && canBeSent(claim.activationToken);
      if (!waitsForEnd) sendLine(other, "show" + (hasToken ? " " + claim.activationToken : ""));
      const auto answer = waitForAnswer(loop, other, left);
      if (!answer || (answer->ends_with('\n') && !waitsForEnd)) return false;
    }
    // Pause, because the other process may close or answer every connection at once.
    if (!waitForAnswer(loop, {}, lookInterval)) return false;
    // Look again: the other client has ended, or has not answered because it is ending, or has no socket yet.
  }
  isClient = true;
  lockAndListen();
  return true;
}

void Rendezvous::keepLockAcrossExec() const {
  if (fcntl(lock.get(), F_SETFD, 0) == 0) setenv(lockVariable, std::to_string(lock.get()).c_str(), 1);
}

Result<> Rendezvous::ask(const std::string& action, Seconds limit) {
  if (!canBeSent(action))
    return Failure{"invalid action: longer than 1024 bytes, or with a control character"};
  const FileDescriptor client = folders.connect(runningSocketName);
  if (!client)
    return Failure{folders.connect(endingSocketName) ? "the client is about to end" : "no client runs"};
  sendLine(client, "perform " + action);
  std::string answer = waitForAnswer(loop, client, limit).value_or("");
  if (!answer.ends_with('\n')) return Failure{"the client that runs does not answer"};
  if (answer == "ok\n") return Done{};
  answer.pop_back();
  return Failure{answer.substr(answer.find(' ') + 1)};  // without "error "
}

/// Returns whether the file that this process has locked is still in `folder`. If it was removed, another
/// process can create and lock a new file there, so the lock of this process protects nothing.
bool Rendezvous::isLocked(const std::string& folder) const {
  struct stat ours {
  }, there{};
  return fstat(lock.get(), &ours) == 0 && lstat((folder + lockName).c_str(), &there) == 0 &&
         ours.st_dev == there.st_dev && ours.st_ino == there.st_ino;
}

std::error_code Rendezvous::takeLock(const std::string& folder) {
  const std::string path = folder + lockName;
  if (const auto failure = makeFolders(folder)) return failure;
  // Refuse a folder of another user, who could replace the lock file.
  if (!isOwnFolder(folder)) return systemError(EPERM);
  FileDescriptor file =
      isLocked(folder) ? std::move(lock)
                       : FileDescriptor(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!file || flock(file.get(), LOCK_EX | LOCK_NB) != 0) return systemError(errno);
  lock = std::move(file);
  place = folder;
  return {};
}

void Rendezvous::lockAndListen() {
  const std::string folder = isLocked(place) ? place : folders.current();
  if (const auto failure = takeLock(folder)) {
    const bool isHeld = failure == std::errc::operation_would_block;
    reportOnce(isHeld ? "another client has locked " + folder + lockName + ": running beside it"
                      : "cannot lock " + folder + lockName + ": " + failure.message() +
                            "; a second start may not find this client");
    // Other processes must be able to reach this client even without a lock, for example if the file cannot
    // be created. But do not listen if another client holds the lock or listens, or if this client does.
    if (isHeld || server.isInPlace() || folders.connect(runningSocketName)) return;
  }
  const auto failure = server.listen(folder);
  if (!failure) return folders.leaveLink(folder);
  reportOnce("cannot listen on " + folder + "/" + runningSocketName + ": " + failure.message() +
             "; a second start cannot reach this client");
}

}  // namespace kestrune
