#include "adapters/awake/InhibitorService.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace kestrune {

namespace {

constexpr std::uint64_t answerTime = 250'000;  // microseconds; the longest wait of the main thread
constexpr Seconds pause{60.0};                 // after a timeout, and after an error that means "not offered"
constexpr std::size_t unansweredLimit = 16;

constexpr std::array notOfferedErrors{SD_BUS_ERROR_UNKNOWN_METHOD,    SD_BUS_ERROR_UNKNOWN_OBJECT,
                                      SD_BUS_ERROR_UNKNOWN_INTERFACE, SD_BUS_ERROR_NOT_SUPPORTED,
                                      SD_BUS_ERROR_NAME_HAS_NO_OWNER, SD_BUS_ERROR_SERVICE_UNKNOWN};

bool saysNotOffered(const sd_bus_error* error) {
  return std::any_of(notOfferedErrors.begin(), notOfferedErrors.end(),
                     [error](const char* name) { return sd_bus_error_has_name(error, name) != 0; });
}

}  // namespace

InhibitorService::InhibitorService(BusConnection& givenConnection, const Clock& givenClock,
                                   InhibitorProtocol givenProtocol, std::function<void()> givenOnChange)
    : connection(givenConnection),
      clock(givenClock),
      protocol(std::move(givenProtocol)),
      onChange(std::move(givenOnChange)),
      owner(protocol.name, [this](const std::string&) { ownerChanged(); }),
      passedOverUntil(clock.continuousTime()),
      silentUntil(passedOverUntil) {
  connection.add(*this);
}

InhibitorService::~InhibitorService() {
  connection.remove(*this);
  for (const auto& [holder, grant] : grants) giveBack(grant);
}

InhibitorService::Presence InhibitorService::presence() const {
  if (bus == nullptr) return Presence::absent;
  if (!owner.isKnown()) return Presence::unknown;
  // After the pause, ask a service again: it may have been starting when it did not offer the method.
  const bool isPassedOver = clock.continuousTime() < passedOverUntil;
  return owner.owner().empty() || isPassedOver ? Presence::absent : Presence::there;
}

bool InhibitorService::mayBeAsked() const {
  // Until the connection is authenticated, sd_bus_call waits for that, without a time limit.
  return presence() == Presence::there && clock.continuousTime() >= silentUntil && sd_bus_is_ready(bus) > 0;
}

InhibitorService::Answer InhibitorService::inhibit(std::uint32_t holder, const std::string& reason) {
  while (mayBeAsked()) {
    const char* const asked = protocol.paths[path];
    const BusMessage call = newRequest(reason);
    if (!call) return Answer::refused;
    sd_bus_error error{};
    sd_bus_message* answer = nullptr;
    const int result = sd_bus_call(bus, call.get(), answerTime, &error, &answer);
    const BusMessage reply(answer);
    const bool notOffered = saysNotOffered(&error);
    sd_bus_error_free(&error);
    if (result >= 0) {
      auto grant = grantFrom(reply.get(), owner.owner(), asked);
      if (!grant) return Answer::refused;
      hold(holder, std::move(*grant));
      return Answer::granted;
    }
    if (!notOffered) {
      if (result == -ETIMEDOUT) {
        silentUntil = clock.continuousTime() + pause;
        expectLateAnswer(call.get());
      }
      return Answer::refused;
    }
    goPast(owner.owner(), asked);
  }
  return presence() == Presence::there ? Answer::refused : Answer::absent;
}

void InhibitorService::inhibitLater(std::uint32_t holder, const std::string& reason) {
  const bool asked = std::any_of(requests.begin(), requests.end(), [this, holder](const Request& each) {
    return each.holder == holder && each.owner == owner.owner();
  });
  if (asked || !mayBeAsked()) return;
  const BusMessage call = newRequest(reason);
  if (!call) return;
  requests.push_back({this, holder, owner.owner(), protocol.paths[path], nullptr});
  sd_bus_slot* slot = nullptr;
  // No timeout: a late grant is still wanted, or must be given back.
  if (sd_bus_call_async(bus, &slot, call.get(), &answered, &requests.back(), UINT64_MAX) >= 0) {
    requests.back().slot.reset(slot);
  } else {
    requests.pop_back();
  }
}

void InhibitorService::giveBack(std::uint32_t holder) {
  for (auto& request : requests) {
    if (request.holder == holder) request.holder = 0;
  }
  if (const auto found = grants.find(holder); found != grants.end()) {
    giveBack(found->second);
    grants.erase(found);
  }
}

bool InhibitorService::holds(std::uint32_t holder) const {
  const auto found = grants.find(holder);
  return found != grants.end() && !found->second.owner.empty() && found->second.owner == owner.owner();
}

void InhibitorService::busConnected(sd_bus* connected) {
  bus = connected;
  owner.busConnected(bus);
}

void InhibitorService::busLost() {
  owner.busLost();
  requests.clear();
  unanswered.clear();
  lateAnswers.reset();
  // The services drop the cookies of a lost connection. A logind descriptor may still be in force: keep it
  // until another grant replaces it.
  for (auto& [holder, grant] : grants) grant.owner.clear();
  bus = nullptr;
  onChange();
}

void InhibitorService::ownerChanged() {
  path = 0;
  passedOverUntil = silentUntil = clock.continuousTime();
  onChange();
}

/// Calls the unique name: only the process that issued a cookie knows it, and no service is started.
BusMessage InhibitorService::newCall(const std::string& destination, const char* objectPath,
                                     const char* member) const {
  sd_bus_message* call = nullptr;
  if (sd_bus_message_new_method_call(bus, &call, destination.c_str(), objectPath, protocol.interface,
                                     member) < 0)
    return nullptr;
  return BusMessage(call);
}

BusMessage InhibitorService::newRequest(const std::string& reason) const {
  BusMessage call = newCall(owner.owner(), protocol.paths[path], "Inhibit");
  if (call && protocol.appendArguments(call.get(), reason.c_str()) < 0) call.reset();
  return call;
}

std::optional<InhibitorService::Grant> InhibitorService::grantFrom(sd_bus_message* reply,
                                                                   const std::string& granter,
                                                                   const char* objectPath) const {
  Grant grant{granter, objectPath, 0, {}};
  if (protocol.giveBackMethod != nullptr) {
    if (sd_bus_message_read(reply, "u", &grant.cookie) <= 0) return std::nullopt;
    return grant;
  }
  int descriptor = -1;
  if (sd_bus_message_read(reply, "h", &descriptor) <= 0) return std::nullopt;
  // The message owns the descriptor that it carries (SCM_RIGHTS) and closes it.
  grant.descriptor.reset(fcntl(descriptor, F_DUPFD_CLOEXEC, 3));
  if (!grant.descriptor) return std::nullopt;
  return grant;
}

void InhibitorService::hold(std::uint32_t holder, Grant grant) {
  if (const auto found = grants.find(holder); found != grants.end()) giveBack(found->second);
  grants.insert_or_assign(holder, std::move(grant));
}

void InhibitorService::giveBack(const Grant& grant) const {
  if (protocol.giveBackMethod == nullptr || bus == nullptr || grant.owner.empty()) return;
  const BusMessage call = newCall(grant.owner, grant.path, protocol.giveBackMethod);
  if (!call || sd_bus_message_append(call.get(), "u", grant.cookie) < 0) return;
  sd_bus_message_set_expect_reply(call.get(), false);
  sd_bus_send(bus, call.get(), nullptr);
}

/// Switches to the next object path; after the last one, the service counts as absent for `pause`.
void InhibitorService::goPast(const std::string& asked, const char* objectPath) {
  if (asked != owner.owner() || objectPath != protocol.paths[path]) return;
  if (++path < protocol.paths.size()) return;
  path = 0;
  passedOverUntil = clock.continuousTime() + pause;
}

/// Gives back a grant that arrives after the timeout: the caller was told that it was refused.
void InhibitorService::expectLateAnswer(sd_bus_message* call) {
  if (!lateAnswers) {
    sd_bus_slot* slot = nullptr;
    if (sd_bus_add_filter(bus, &slot, &answeredLate, this) < 0) return;
    lateAnswers.reset(slot);
  }
  std::uint64_t serial = 0;
  if (sd_bus_message_get_cookie(call, &serial) < 0) return;
  unanswered.push_back({serial, owner.owner(), protocol.paths[path]});
  if (unanswered.size() > unansweredLimit) unanswered.pop_front();
}

int InhibitorService::answeredLate(sd_bus_message* message, void* data, sd_bus_error*) {
  auto& self = *static_cast<InhibitorService*>(data);
  std::uint64_t serial = 0;
  if (sd_bus_message_get_reply_cookie(message, &serial) < 0) return 0;
  const auto call = std::find_if(self.unanswered.begin(), self.unanswered.end(),
                                 [serial](const Unanswered& each) { return each.serial == serial; });
  if (call == self.unanswered.end()) return 0;
  if (sd_bus_message_get_error(message) == nullptr) {
    if (const auto grant = self.grantFrom(message, call->owner, call->path)) self.giveBack(*grant);
  }
  self.unanswered.erase(call);
  return 1;
}

int InhibitorService::answered(sd_bus_message* reply, void* data, sd_bus_error*) {
  auto& self = *static_cast<Request*>(data)->service;
  const auto place = std::find_if(self.requests.begin(), self.requests.end(),
                                  [data](const Request& each) { return &each == data; });
  const Request request = std::move(*place);
  self.requests.erase(place);
  if (const sd_bus_error* const error = sd_bus_message_get_error(reply)) {
    if (!saysNotOffered(error)) return 0;
    self.goPast(request.owner, request.path);
  } else {
    auto grant = self.grantFrom(reply, request.owner, request.path);
    if (!grant) return 0;
    if (request.holder == 0) {
      self.giveBack(*grant);
      return 0;
    }
    self.hold(request.holder, std::move(*grant));
  }
  self.onChange();
  return 0;
}

}  // namespace kestrune
