#include "platform/linux/SingleInstance.h"

#include <fcntl.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <utility>

#include "platform/linux/Identity.h"
#include "platform/posix/Diagnostics.h"
#include "platform/posix/Files.h"

namespace kestrune {

namespace {

constexpr auto objectPath = "/com/dovrel/kestrune/menuclient";
constexpr auto interfaceName = "org.freedesktop.Application";
/// Who owns this name, too, is about to end.
constexpr auto endingName = "com.dovrel.kestrune.menuclient.Ending";

constexpr Seconds busPatience{2.0};           // a bus that has not answered by then counts as none
constexpr Seconds predecessorPatience{12.0};  // more than the stop at the end of the other one can take
constexpr Seconds retryDelay{0.1};

constexpr int activationSignalNumber = SIGUSR1;

/// What is locked in the file, by the one that runs and by one that is about to end. No byte need be there.
constexpr off_t runningByte = 0, endingByte = 1;

struct flock lockOf(off_t byte) {
  struct flock one {};
  one.l_type = F_WRLCK;
  one.l_whence = SEEK_SET;
  one.l_start = byte;
  one.l_len = 1;
  return one;
}

}  // namespace

const sd_bus_vtable SingleInstance::interface[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Activate", "a{sv}", "", &SingleInstance::activated, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

SingleInstance::SingleInstance(EventLoop& givenLoop, SessionBus& givenBus, std::string givenLockPath,
                               std::function<void()> givenOnActivate)
    : loop(givenLoop),
      sessionBus(givenBus),
      lockPath(std::move(givenLockPath)),
      onActivate(std::move(givenOnActivate)),
      activationSignal(loop.onSignal(activationSignalNumber, onActivate)) {
  sessionBus.add(*this);
}

SingleInstance::~SingleInstance() {
  sessionBus.remove(*this);
  busLost();
}

bool SingleInstance::claim(Claim givenKind) {
  kind = givenKind;
  if (kind == Claim::wait) {
    waitForOther();
  } else if (bus != nullptr) {
    waitForBus();
  }
  if (bus != nullptr) {
    requestName();
  } else {
    claimLock();
  }
  loop.runUntil([this] { return outcome != Outcome::undecided && (outcome == Outcome::alone || otherTold); });
  deadline.reset();
  retry.reset();
  return outcome == Outcome::alone;
}

void SingleInstance::waitForBus() {
  deadline = loop.after(busPatience, [this] {
    reportOnce("the session bus does not answer");
    claimLock();
  });
}

void SingleInstance::busConnected(sd_bus* connection) {
  bus = connection;
  sd_bus_slot* slot = nullptr;
  if (sd_bus_add_object_vtable(bus, &slot, objectPath, interfaceName, interface, this) >= 0)
    object.reset(slot);
  // The name is claimed anew on each connection, also by one that still waits for it.
  if (outcome == Outcome::alone || (outcome == Outcome::undecided && kind)) requestName();
}

void SingleInstance::busLost() {
  object.reset();
  request.reset();
  acquired.reset();
  question.reset();
  call.reset();
  announcement.reset();
  bus = nullptr;
}

void SingleInstance::requestName() {
  sd_bus_slot* slot = nullptr;
  const std::uint64_t flags = kind == Claim::wait ? SD_BUS_NAME_QUEUE : 0;
  if (kind == Claim::wait && sd_bus_match_signal_async(bus, &slot, busName, busPath, busName, "NameAcquired",
                                                       &nameAcquired, &ignoreAnswer, this) >= 0) {
    acquired.reset(slot);
  }
  if (sd_bus_request_name_async(bus, &slot, applicationIdentifier, flags, &nameReply, this) >= 0) {
    request.reset(slot);
  } else if (outcome == Outcome::undecided) {
    claimLock();
  }
}

int SingleInstance::nameReply(sd_bus_message* reply, void* data, sd_bus_error*) {
  auto& self = *static_cast<SingleInstance*>(data);
  std::uint32_t result = 0;
  if (self.outcome != Outcome::undecided) return 0;
  if (sd_bus_message_is_method_error(reply, nullptr) || sd_bus_message_read(reply, "u", &result) < 0) {
    self.claimLock();
    return 0;
  }
  constexpr std::uint32_t owner = 1, inQueue = 2, alreadyOwner = 4;
  if (result == owner || result == alreadyOwner) {
    self.outcome = Outcome::alone;
  } else if (result != inQueue) {
    self.askWhetherOtherEnds();
  }
  return 0;
}

int SingleInstance::nameAcquired(sd_bus_message* signal, void* data, sd_bus_error*) {
  const char* name = nullptr;
  if (isFromBus(signal) && sd_bus_message_read(signal, "s", &name) >= 0 &&
      std::strcmp(name, applicationIdentifier) == 0) {
    static_cast<SingleInstance*>(data)->outcome = Outcome::alone;
  }
  return 0;
}

void SingleInstance::announceEnd() {
  if (outcome != Outcome::alone) return;
  sd_bus_slot* slot = nullptr;
  if (bus != nullptr && sd_bus_request_name_async(bus, &slot, endingName, 0, &ignoreAnswer, this) >= 0)
    announcement.reset(slot);
  struct flock ending = lockOf(endingByte);
  if (lock) fcntl(lock.get(), F_SETLK, &ending);
}

void SingleInstance::askWhetherOtherEnds() {
  sd_bus_slot* slot = nullptr;
  if (sd_bus_call_method_async(bus, &slot, busName, busPath, busName, "NameHasOwner", &endingReply, this, "s",
                               endingName) >= 0) {
    question.reset(slot);
  } else {
    activateOther();
  }
}

int SingleInstance::endingReply(sd_bus_message* reply, void* data, sd_bus_error*) {
  auto& self = *static_cast<SingleInstance*>(data);
  int ends = 0;
  if (self.outcome != Outcome::undecided) return 0;
  if (!sd_bus_message_is_method_error(reply, nullptr) && sd_bus_message_read(reply, "b", &ends) >= 0 &&
      ends != 0) {
    self.tryAgain(&SingleInstance::requestName);
  } else {
    self.activateOther();
  }
  return 0;
}

void SingleInstance::waitForOther() {
  deadline = loop.after(predecessorPatience, [this] { outcome = Outcome::alone; });
}

/// Not by a place in the queue for the name: whoever replaces the other one may have got there first, and is
/// then the one to give way to.
void SingleInstance::tryAgain(void (SingleInstance::*claimOnceMore)()) {
  if (!std::exchange(otherEnds, true)) waitForOther();
  retry = loop.after(retryDelay, [this, claimOnceMore] { (this->*claimOnceMore)(); });
}

void SingleInstance::activateOther() {
  otherEnds = false;
  outcome = Outcome::second;
  otherTold = kind == Claim::refuseQuietly;
  if (otherTold) return;
  sd_bus_slot* slot = nullptr;
  // Whether the other one answers does not matter, but an unsent message would be lost with the connection.
  deadline = loop.after(busPatience, [this] { otherTold = true; });
  if (sd_bus_call_method_async(bus, &slot, applicationIdentifier, objectPath, interfaceName, "Activate",
                               &otherAnswered, this, "a{sv}", 0) >= 0) {
    call.reset(slot);
  }
}

int SingleInstance::otherAnswered(sd_bus_message* reply, void* data, sd_bus_error*) {
  auto& self = *static_cast<SingleInstance*>(data);
  if (!sd_bus_message_is_method_error(reply, SD_BUS_ERROR_NO_REPLY)) {
    self.otherTold = true;
    return 0;
  }
  // It has ended instead.
  self.outcome = Outcome::undecided;
  self.waitForBus();
  self.requestName();
  return 0;
}

int SingleInstance::activated(sd_bus_message* call, void* data, sd_bus_error*) {
  const int result = sd_bus_reply_method_return(call, "");
  static_cast<SingleInstance*>(data)->onActivate();
  return result;
}

void SingleInstance::claimLock() {
  if (!lock) {
    const auto folder = std::filesystem::path(lockPath).parent_path();
    std::error_code failure = makeFolders(folder);
    if (!failure) {
      lock.reset(open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
      if (!lock) failure = {errno, std::system_category()};
    }
    if (failure) {
      reportOnce("cannot lock " + lockPath + ": " + failure.message());
      outcome = Outcome::alone;
      return;
    }
  }
  for (;;) {
    struct flock running = lockOf(runningByte);
    if (fcntl(lock.get(), F_SETLK, &running) == 0) {
      outcome = Outcome::alone;
      return;
    }
    const bool taken = errno == EAGAIN || errno == EACCES;
    if (kind == Claim::wait) {
      retry = loop.after(retryDelay, [this] { claimLock(); });
      return;
    }
    if (taken && holderEnds()) return tryAgain(&SingleInstance::claimLock);
    if (!taken || fcntl(lock.get(), F_GETLK, &running) != 0) {
      outcome = Outcome::alone;
      return;
    }
    if (running.l_type == F_UNLCK) continue;  // it has ended since
    // The kernel says who holds the lock; a number written to the file could be that of a stranger by now.
    if (running.l_pid > 0 && kind == Claim::refuse) kill(running.l_pid, activationSignalNumber);
    outcome = Outcome::second;
    otherTold = true;
    return;
  }
}

bool SingleInstance::holderEnds() const {
  struct flock ending = lockOf(endingByte);
  return fcntl(lock.get(), F_GETLK, &ending) == 0 && ending.l_type != F_UNLCK;
}

}  // namespace kestrune
