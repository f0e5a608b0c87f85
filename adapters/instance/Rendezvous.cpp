#include "adapters/instance/Rendezvous.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "adapters/files/Files.h"
#include "adapters/files/ProgramBundle.h"
#include "adapters/system/Errors.h"

namespace kestrune {

namespace {

constexpr auto lockName = "/lock";
/// The environment variable with the descriptor number of the lock file that `passOn` left open across exec.
constexpr auto passedOnVariable = "KESTRUNE_MENU_CLIENT_LOCK";
/// The wait before the next `look` if another client holds the lock but has no socket. That client is
/// starting (it locks before it listens) or ending (it closes its socket before it unlocks).
constexpr Seconds lookInterval{0.02};
constexpr std::size_t wordLimit = 1024;  // bytes; maximum for an action and for an activation token
constexpr std::string_view refusal = "error ";

FileDescriptor passedOnLock() {
  const int descriptor = std::atoi(takeVariable(passedOnVariable).c_str());
  const bool isThere = descriptor > STDERR_FILENO && fcntl(descriptor, F_SETFD, FD_CLOEXEC) == 0;
  return FileDescriptor(isThere ? descriptor : -1);
}

bool isFileAt(const FileDescriptor& file, const std::string& path) {
  struct stat ours {
  }, there{};
  return fstat(file.get(), &ours) == 0 && lstat(path.c_str(), &there) == 0 && ours.st_dev == there.st_dev &&
         ours.st_ino == there.st_ino;
}

/// Returns whether `word` can be part of a request: it is short and has no control character.
bool isLine(const std::string& word) {
  return word.size() <= wordLimit &&
         std::none_of(word.begin(), word.end(), [](unsigned char each) { return each < ' '; });
}

}  // namespace

/// Decides whether this process becomes the client. Used for one call of `claim`.
class Rendezvous::Attempt {
 public:
  Attempt(Rendezvous& givenSelf, const Claim& givenClaim) : self(givenSelf), claim(givenClaim) {}

  bool succeeds() {
    setPatience(claim.kind == Claim::Kind::replace);
    look();
    self.loop.runUntil([this] { return isClient.has_value(); });
    return isClient.value_or(false);
  }

 private:
  void look() {
    if ((other = self.folders.connect(runningSocketName))) {
      const bool replaces = claim.kind == Claim::Kind::replace && claim.predecessor == peerOf(other).pid;
      if (!replaces && claim.kind != Claim::Kind::show) {
        isClient = false;
        return;
      }
      listen(replaces);
    } else if ((other = self.folders.connect(endingSocketName))) {
      listen(true);
    } else if (self.takeLock(self.folders.current()) == std::errc::operation_would_block) {
      lookAgainSoon();
    } else {
      isClient = true;
    }
  }

  /// Makes the loop call `hear` when the other client sends a message or ends. (The end of a process closes
  /// its connections.) If `untilItsEnd` is true, `hear` ignores messages. Otherwise, this function asks the
  /// other client to show its menu, and `hear` takes the first message as the answer.
  void listen(bool untilItsEnd) {
    setPatience(untilItsEnd);
    if (!untilItsEnd) {
      const bool hasToken = !claim.activationToken.empty() && isLine(claim.activationToken);
      sendLine(other, "show" + (hasToken ? " " + claim.activationToken : ""));
    }
    input = self.loop.onDescriptor(other.get(), EPOLLIN, [this] { hear(); });
  }

  void hear() {
    std::string answer;
    if (!receive(other, answer)) return lookAgainSoon();
    if (!answer.empty() && !waitsForEnd) isClient = false;
  }

  void lookAgainSoon() {
    input.reset();
    other.reset();
    retry = self.loop.after(lookInterval, [this] { look(); });
  }

  void setPatience(bool forEnd) {
    if (deadline && waitsForEnd == forEnd) return;
    waitsForEnd = forEnd;
    deadline = self.loop.after(forEnd ? claim.endPatience : claim.answerPatience, [this] { giveUp(); });
  }

  void giveUp() {
    const bool hangs = static_cast<bool>(other);
    input.reset();
    other.reset();
    if (waitsForEnd) {
      isClient = true;
    } else if ((other = self.folders.connect(endingSocketName))) {
      listen(true);  // the other client did not answer, because it is ending: wait for its end
    } else {
      isClient = false;
      if (!hangs)
        reportOnce("another client has locked " + self.folders.current() + lockName +
                   " and answers no requests: not starting");
    }
  }

  Rendezvous& self;
  const Claim& claim;
  std::optional<bool> isClient;  ///< whether this process is the client; absent: not decided yet
  bool waitsForEnd = false;
  FileDescriptor other;  ///< the connection to the other client
  EventSource input, deadline, retry;
};

Rendezvous::Rendezvous(EventLoop& givenLoop, InstanceFolders givenFolders,
                       std::function<void(const std::string&)> onShow)
    : loop(givenLoop),
      folders(std::move(givenFolders)),
      lock(passedOnLock()),
      server(givenLoop, std::move(onShow), [this](const std::string& action) {
        return perform ? perform(action) : "the client has not started yet";
      }) {}

bool Rendezvous::claim(const Claim& claim) {
  isClient = Attempt(*this, claim).succeeds();
  if (isClient) takePlace();
  return isClient;
}

void Rendezvous::announceEnd() {
  server.announceEnd();
  isClient = false;
}

void Rendezvous::passOn() const {
  if (!lock || fcntl(lock.get(), F_SETFD, 0) != 0) return;
  setenv(passedOnVariable, std::to_string(lock.get()).c_str(), 1);
}

std::optional<std::string> Rendezvous::ask(const std::string& action, Seconds limit) {
  if (!isLine(action)) return "an action is one word";
  const FileDescriptor client = folders.connect(runningSocketName);
  if (!client) return folders.connect(endingSocketName) ? "the client is about to end" : "no client runs";
  sendLine(client, "perform " + action);
  std::string answer;
  bool isOver = false;
  const EventSource deadline = loop.after(limit, [&isOver] { isOver = true; });
  const EventSource input = loop.onDescriptor(
      client.get(), EPOLLIN, [&] { isOver = !receive(client, answer) || answer.ends_with('\n'); });
  loop.runUntil([&isOver] { return isOver; });
  if (answer == "ok\n") return std::nullopt;
  if (!answer.ends_with('\n')) return "the client that runs does not answer";
  answer.pop_back();
  return answer.starts_with(refusal) ? answer.substr(refusal.size()) : answer;
}

std::optional<pid_t> Rendezvous::runningClient() const {
  const FileDescriptor socket = folders.connect(runningSocketName);
  return socket ? std::optional(peerOf(socket).pid) : std::nullopt;
}

void Rendezvous::publish(StatusLine line) {
  if (isClient && !(isLocked() && server.isInPlace())) takePlace();
  server.publish(std::move(line));
}

/// Returns whether the file that this process has locked is still at its path. If it was removed, another
/// process can create and lock a new file there, so the lock of this process protects nothing.
bool Rendezvous::isLocked() const {
  return isFileAt(lock, place + lockName);
}

std::error_code Rendezvous::takeLock(const std::string& folder) {
  const std::string path = folder + lockName;
  if (const auto failure = makeFolders(folder)) return failure;
  // Refuse a folder of another user, who could replace the lock file.
  if (!isOwnFolder(folder)) return systemError(EPERM);
  FileDescriptor file =
      isFileAt(lock, path)
          ? std::move(lock)
          : FileDescriptor(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!file || flock(file.get(), LOCK_EX | LOCK_NB) != 0) return lastError();
  lock = std::move(file);
  place = folder;
  return {};
}

void Rendezvous::takePlace() {
  const bool wasLocked = isLocked();
  const std::string folder = wasLocked ? place : folders.current();
  if (const auto failure = takeLock(folder)) {
    const bool isHeld = failure == std::errc::operation_would_block;
    reportOnce(isHeld ? "another client has locked " + folder + lockName + ": running beside it"
                      : "cannot lock " + folder + lockName + ": " + failure.message() +
                            "; a second start may not find this client");
    // Locking can fail although no other client holds the lock, for example if the file cannot be created.
    // Listen in this case too, so that other processes can reach this client. But do not listen if another
    // client holds the lock or listens, or if this client listens already.
    if (isHeld || server.isInPlace() || folders.connect(runningSocketName)) return;
  } else if (wasLocked && server.isInPlace()) {
    return;
  }
  if (const auto failure = server.listen(folder)) {
    reportOnce("cannot listen on " + folder + "/" + runningSocketName + ": " + failure.message() +
               "; a second start cannot reach this client");
  }
}

void Rendezvous::onPerform(std::function<std::optional<std::string>(const std::string&)> givenPerform) {
  perform = std::move(givenPerform);
}

}  // namespace kestrune
