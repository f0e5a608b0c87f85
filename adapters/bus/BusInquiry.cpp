#include "adapters/bus/BusInquiry.h"

#include <memory>
#include <utility>

namespace kestrune {

namespace {

BusInquiry::Outcome outcomeOf(sd_bus_message* reply) {
  const sd_bus_error* const failure = sd_bus_message_get_error(reply);
  const auto is = [failure](const char* name) { return sd_bus_error_has_name(failure, name) != 0; };
  if (failure == nullptr) return BusInquiry::Outcome::answered;
  if (is(SD_BUS_ERROR_NAME_HAS_NO_OWNER) || is(SD_BUS_ERROR_SERVICE_UNKNOWN))
    return BusInquiry::Outcome::noOwner;
  if (is(SD_BUS_ERROR_NO_REPLY) || is(SD_BUS_ERROR_TIMEOUT)) return BusInquiry::Outcome::unanswered;
  return BusInquiry::Outcome::refused;
}

}  // namespace

BusInquiry::BusInquiry(BusConnection& givenConnection) : BusClient(givenConnection) {
  connection.add(*this);
}

void BusInquiry::ask(const Question& question, Answer answer) {
  if (bus == nullptr) return;
  sd_bus_message* made = nullptr;
  if (sd_bus_message_new_method_call(bus, &made, question.destination.c_str(), question.path.c_str(),
                                     question.interface.c_str(), question.method.c_str()) < 0) {
    return answer(nullptr, Outcome::unanswered);
  }
  const BusMessage message(made);
  sd_bus_message_set_auto_start(made, 0);
  for (const std::string& each : question.arguments) sd_bus_message_append(made, "s", each.c_str());
  auto call = std::make_unique<Call>(Call{*this, std::move(answer)});
  sd_bus_slot* slot = nullptr;
  if (sd_bus_call_async(bus, &slot, made, &replied, call.get(), 0) < 0)
    return call->answer(nullptr, Outcome::unanswered);
  sd_bus_slot_set_destroy_callback(slot, [](void* data) { delete static_cast<Call*>(data); });
  call.release();
  slots.emplace_back(slot);
  ++pending;
}

int BusInquiry::replied(sd_bus_message* reply, void* data, sd_bus_error*) {
  auto& call = *static_cast<Call*>(data);
  const Outcome outcome = outcomeOf(reply);
  // Every reply that came over the bus, even an error, has a sender. An error made by sd-bus has no sender.
  call.inquiry.answered = call.inquiry.answered || sd_bus_message_get_sender(reply) != nullptr;
  call.answer(outcome == Outcome::answered ? reply : nullptr, outcome);
  --call.inquiry.pending;
  return 0;
}

void BusInquiry::busLost() {
  slots.clear();
  pending = 0;
}

}  // namespace kestrune
