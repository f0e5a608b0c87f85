#include "platform/instance/Rendezvous.h"

#include <utility>

#include "platform/instance/ClientSubscription.h"
#include "platform/posix/Diagnostics.h"

namespace kestrune {

Rendezvous::Rendezvous(EventLoop& givenLoop, InstanceFolders givenFolders,
                       std::function<void(const std::string& activationToken)> onShow)
    : loop(givenLoop),
      folders(std::move(givenFolders)),
      server(givenLoop, {.show = std::move(onShow), .perform = [this](const std::string& action) {
                           return perform ? perform(action) : "the client has not started yet";
                         }}) {}

bool Rendezvous::claim(const Claim& claim) {
  isClient = Claimant(loop, folders, lock, claim).run();
  if (isClient) takePlace();
  return isClient;
}

void Rendezvous::announceEnd() {
  server.announceEnd();
  isClient = false;
}

std::optional<pid_t> Rendezvous::runningClient() const {
  const FileDescriptor socket = folders.connect(runningSocketName);
  if (!socket) return std::nullopt;
  return peerOf(socket).pid;
}

void Rendezvous::publish(const std::string& line) {
  // Somebody has tidied up, or what failed before may be possible now.
  if (isClient && !(lock.isInPlace() && server.isInPlace())) takePlace();
  server.publish(line);
}

void Rendezvous::takePlace() {
  const std::string folder = lock.isInPlace() ? lock.folder() : folders.current();
  switch (lock.take(folder)) {
    case InstanceLock::Result::held:
      return reportOnce("another client has locked " + folder + "/lock: going on beside it");
    case InstanceLock::Result::failed:
      reportOnce("cannot lock " + folder + "/lock: " + lock.failure().message());
      // The socket of another client that answers is left to it.
      if (!server.isInPlace() && folders.connect(runningSocketName)) return;
      break;
    case InstanceLock::Result::taken:
      break;
  }
  if (server.isInPlace()) return;
  if (const auto failure = server.listen(folder)) {
    reportOnce("nobody can reach the client by " + folder + "/" + runningSocketName + ": " +
               failure.message());
  }
}

std::unique_ptr<StatusSubscription> Rendezvous::subscribe(std::function<void(const std::string&)> onLine,
                                                          std::function<void()> onAbsence) {
  return std::make_unique<ClientSubscription>(loop, folders, std::move(onLine), std::move(onAbsence));
}

void Rendezvous::onPerform(
    std::function<std::optional<std::string>(const std::string& action)> givenPerform) {
  perform = std::move(givenPerform);
}

}  // namespace kestrune
