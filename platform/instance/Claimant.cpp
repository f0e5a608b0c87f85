#include "platform/instance/Claimant.h"

#include <algorithm>
#include <cerrno>

#include "platform/posix/Diagnostics.h"

namespace kestrune {

namespace {

/// Between the lock and the socket of a client that starts or is gone, there is a moment.
constexpr Seconds lookInterval{0.02};
constexpr std::size_t tokenLimit = 1024;  // bytes

/// Whether the token fits into a line of its own.
bool isLine(const std::string& token) {
  return token.size() <= tokenLimit &&
         std::none_of(token.begin(), token.end(), [](unsigned char each) { return each < ' '; });
}

}  // namespace

Claimant::Claimant(EventLoop& givenLoop, const InstanceFolders& givenFolders, InstanceLock& givenLock,
                   const Claim& givenClaim)
    : loop(givenLoop), folders(givenFolders), lock(givenLock), claim(givenClaim) {}

bool Claimant::run() {
  setPatience(claim.kind == Claim::Kind::replace);
  look();
  loop.runUntil([this] { return outcome != Outcome::undecided; });
  return outcome == Outcome::client;
}

void Claimant::look() {
  if ((other = folders.connect(runningSocketName))) {
    const pid_t process = peerOf(other).pid;
    if (claim.kind == Claim::Kind::replace && predecessor.value_or(process) == process) {
      predecessor = process;
      wait();
    } else if (claim.kind == Claim::Kind::show) {
      askToShow();
    } else {
      outcome = Outcome::second;
    }
  } else if ((other = folders.connect(endingSocketName))) {
    predecessor = peerOf(other).pid;
    wait();
  } else if (lock.take(folders.current()) == InstanceLock::Result::held) {
    lookAgainSoon();
  } else {
    outcome = Outcome::client;
  }
}

/// The kernel ends the connection with the process.
void Claimant::wait() {
  setPatience(true);
  input = loop.onDescriptor(other.get(), EPOLLIN, [this] { hear(); });
}

void Claimant::askToShow() {
  setPatience(false);
  const std::string& token = claim.activationToken;
  const std::string request = (isLine(token) && !token.empty() ? "show " + token : "show") + "\n";
  send(other.get(), request.data(), request.size(), MSG_NOSIGNAL);
  input = loop.onDescriptor(other.get(), EPOLLIN, [this] { hear(); });
}

void Claimant::hear() {
  char bytes[256];
  const ssize_t count = recv(other.get(), bytes, sizeof bytes, 0);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count <= 0) return lookAgainSoon();
  if (!waitsForEnd) outcome = Outcome::second;
}

void Claimant::lookAgainSoon() {
  input.reset();
  other.reset();
  retry = loop.after(lookInterval, [this] { look(); });
}

void Claimant::setPatience(bool forEnd) {
  if (deadline && waitsForEnd == forEnd) return;
  waitsForEnd = forEnd;
  deadline = loop.after(forEnd ? claim.endPatience : claim.answerPatience, [this] { endOfPatience(); });
}

void Claimant::endOfPatience() {
  if (waitsForEnd) {
    outcome = Outcome::client;
  } else if (FileDescriptor ending = folders.connect(endingSocketName)) {
    // It has begun to end instead of answering.
    input.reset();
    other = std::move(ending);
    wait();
  } else {
    if (!other) reportOnce("another client has locked " + folders.current() + "/lock, and takes no requests");
    outcome = Outcome::second;
  }
}

}  // namespace kestrune
