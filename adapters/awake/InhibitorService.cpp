#include "adapters/awake/InhibitorService.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace kestrune {

namespace {

constexpr std::uint64_t answerTime = 250'000;  // microseconds; longest wait of `inhibit`
constexpr Seconds pause{60.0};  // no calls for this time after a timeout or one of `notOfferedErrors`
constexpr std::size_t requestLimit = 16;

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
    : BusClient(givenConnection),
      clock(givenClock),
      protocol(std::move(givenProtocol)),
      onChange(std::move(givenOnChange)),
      owner(connection, protocol.name, [this](const auto&) { ownerChanged(); }),
      absentUntil(clock.continuousTime()),
      silentUntil(absentUntil) {
  connection.add(*this);
}

InhibitorService::~InhibitorService() {
  for (const auto& [holder, grant] : grants) giveBack(grant);
}

bool InhibitorService::isPresent() const {
  // A service that lacked the method counts as present again after the pause: it may have been starting.
  return bus != nullptr && !owner.owner().empty() && clock.continuousTime() >= absentUntil;
}

bool InhibitorService::mayBeAsked() const {
  // Require an authenticated connection: sd_bus_call would wait for authentication without a time limit.
  return isPresent() && clock.continuousTime() >= silentUntil && sd_bus_is_ready(bus) > 0;
}

bool InhibitorService::inhibit(std::uint32_t holder, const std::string& reason) {
  while (mayBeAsked()) {
    const BusMessage call = newRequest(reason);
    if (!call) return false;
    const Request request{0, holder, owner.owner(), protocol.paths[path]};
    sd_bus_error error{};
    sd_bus_message* answer = nullptr;
    const int result = sd_bus_call(bus, call.get(), answerTime, &error, &answer);
    const BusMessage reply(answer);
    const bool goOn = take(request, answer, result < 0 ? &error : nullptr);
    sd_bus_error_free(&error);
    std::uint64_t serial = 0;
    if (result == -ETIMEDOUT) {
      silentUntil = clock.continuousTime() + pause;
      // The timeout counts as a refusal: if the service grants the inhibitor later, give it back then.
      if (sd_bus_message_get_cookie(call.get(), &serial) >= 0) expectAnswer(serial, 0);
    }
    if (holds(holder) || !goOn) return holds(holder);
  }
  return false;
}

void InhibitorService::inhibitLater(std::uint32_t holder, const std::string& reason) {
  const bool isPending = std::any_of(requests.begin(), requests.end(), [&](const Request& each) {
    return each.holder == holder && each.owner == owner.owner();
  });
  if (isPending || !mayBeAsked()) return;
  const BusMessage call = newRequest(reason);
  std::uint64_t serial = 0;
  // A late answer matters: its inhibitor is still wanted, or must be given back. So send without a timeout.
  if (call && sd_bus_send(bus, call.get(), &serial) >= 0) expectAnswer(serial, holder);
}

void InhibitorService::expectAnswer(std::uint64_t serial, std::uint32_t holder) {
  requests.push_back({serial, holder, owner.owner(), protocol.paths[path]});
  if (requests.size() > requestLimit) requests.pop_front();
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

void InhibitorService::busConnected() {
  // Use a filter, because sd-bus calls no handler for the late answer to a call that timed out.
  sd_bus_slot* slot = nullptr;
  if (sd_bus_add_filter(bus, &slot, &answered, this) >= 0) answers.reset(slot);
}

void InhibitorService::busLost() {
  requests.clear();
  answers.reset();
  // When the connection is lost, the services drop the inhibitors that have a cookie. But a descriptor of
  // logind may keep its inhibitor in force. So keep the descriptor until another grant replaces it.
  for (auto& [holder, grant] : grants) grant.owner.clear();
  onChange();
}

void InhibitorService::ownerChanged() {
  path = 0;
  absentUntil = silentUntil = clock.continuousTime();
  onChange();
}

/// Returns a call of "Inhibit" to the service's unique name, which starts no service; null on failure.
BusMessage InhibitorService::newRequest(const std::string& reason) const {
  sd_bus_message* call = nullptr;
  sd_bus_message_new_method_call(bus, &call, owner.owner().c_str(), protocol.paths[path], protocol.interface,
                                 "Inhibit");
  BusMessage request(call);
  if (request && protocol.appendArguments(call, reason.c_str()) < 0) request.reset();
  return request;
}

int InhibitorService::answered(sd_bus_message* message, void* data, sd_bus_error*) {
  auto& self = *static_cast<InhibitorService*>(data);
  std::uint64_t serial = 0;
  if (sd_bus_message_get_reply_cookie(message, &serial) < 0) return 0;
  const auto found = std::find_if(self.requests.begin(), self.requests.end(),
                                  [serial](const Request& each) { return each.serial == serial; });
  if (found == self.requests.end()) return 0;
  // Accept an answer only from the service, or from the bus daemon, which answers if the service is gone.
  const char* const sender = sd_bus_message_get_sender(message);
  if (!isFromBusDaemon(message) && (sender == nullptr || found->owner != sender)) return 0;
  const Request request = std::move(*found);
  self.requests.erase(found);
  if (self.take(request, message, sd_bus_message_get_error(message))) self.onChange();
  return 1;
}

/// Handles the answer to a request: `error`, or `reply` if `error` is null. Returns true if an inhibitor was
/// granted, or if the service lacks the method at this path. In the second case, the next path is used from
/// now on; after the last path, the service counts as absent for `pause`.
bool InhibitorService::take(const Request& request, sd_bus_message* reply, const sd_bus_error* error) {
  if (error != nullptr) {
    const bool isCurrent = request.owner == owner.owner() && request.path == protocol.paths[path];
    if (!saysNotOffered(error) || !isCurrent) return false;
    if (++path == protocol.paths.size()) {
      path = 0;
      absentUntil = clock.continuousTime() + pause;
    }
    return true;
  }
  auto grant = grantFrom(request, reply);
  if (!grant) return false;
  if (request.holder == 0) {
    giveBack(*grant);
    return false;
  }
  if (const auto old = grants.find(request.holder); old != grants.end()) giveBack(old->second);
  grants.insert_or_assign(request.holder, std::move(*grant));
  return true;
}

std::optional<InhibitorService::Grant> InhibitorService::grantFrom(const Request& request,
                                                                   sd_bus_message* reply) const {
  Grant grant{request.owner, request.path, 0, {}};
  if (protocol.giveBackMethod != nullptr) {
    if (sd_bus_message_read(reply, "u", &grant.cookie) <= 0) return std::nullopt;
    return grant;
  }
  int descriptor = -1;
  if (sd_bus_message_read(reply, "h", &descriptor) <= 0) return std::nullopt;
  // Duplicate the received descriptor (SCM_RIGHTS): the message owns the original, and will close it.
  grant.descriptor.reset(fcntl(descriptor, F_DUPFD_CLOEXEC, 3));
  if (!grant.descriptor) return std::nullopt;
  return grant;
}

/// Releases an inhibitor that has a cookie. Calls the unique name of the process that granted it, because no
/// other process knows the cookie. An inhibitor without a cookie ends when its descriptor is closed.
void InhibitorService::giveBack(const Grant& grant) const {
  if (protocol.giveBackMethod == nullptr || bus == nullptr || grant.owner.empty()) return;
  sd_bus_call_method_async(bus, nullptr, grant.owner.c_str(), grant.path, protocol.interface,
                           protocol.giveBackMethod, nullptr, nullptr, "u", grant.cookie);
}

}  // namespace kestrune
