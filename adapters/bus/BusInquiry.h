#pragma once

#include <functional>
#include <string>
#include <vector>

#include "adapters/bus/SessionBus.h"

namespace kestrune {

/// Calls methods of several programs on a bus, and tells when all calls have been answered. Never starts a
/// program (auto-start is off). Main thread.
class BusInquiry final : public BusClient {
 public:
  struct Question {
    std::string destination, path, interface, method;
    std::vector<std::string> arguments{};  ///< all of D-Bus type s (string)
  };
  enum class Outcome {
    answered,
    refused,     ///< the reply is any D-Bus error that the other values do not cover
    noOwner,     ///< no program has this bus name (NameHasNoOwner or ServiceUnknown)
    unanswered,  ///< no reply: timeout, the program left the bus, or the call was not sent
  };
  /// Receives the result of a call. `reply` is null unless `outcome` is `answered`.
  using Answer = std::function<void(sd_bus_message* reply, Outcome outcome)>;

  explicit BusInquiry(BusConnection& connection);

  /// Calls a method, and passes the result to `answer`, which may call `ask` again. Does nothing without a
  /// bus. When the bus is lost before the reply, `answer` is called with `unanswered` or not at all.
  void ask(const Question& question, Answer answer);
  /// Returns whether the bus has delivered a reply so far. An error sent by the bus daemon counts as a reply.
  bool isAnswered() const { return answered; }
  bool isConnected() const { return bus != nullptr; }
  bool isDone() const { return bus == nullptr || pending == 0; }

  void busLost() override;

 private:
  struct Call {
    BusInquiry& inquiry;
    Answer answer;
  };
  static int replied(sd_bus_message* reply, void* call, sd_bus_error* error);

  bool answered = false;
  std::size_t pending = 0;
  std::vector<BusSlot> slots;
};

}  // namespace kestrune
