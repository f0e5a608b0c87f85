#pragma once

#include <functional>
#include <string>
#include <vector>

#include "adapters/bus/SessionBus.h"

namespace kestrune {

/// Calls methods of several programs on a bus, and tells when all have answered. Never starts a program
/// (auto-start is off). Main thread.
class BusInquiry final : public BusClient {
 public:
  struct Question {
    std::string destination, path, interface, method;
    std::vector<std::string> arguments{};  ///< D-Bus type s
  };
  enum class Outcome {
    answered,
    refused,      ///< by a D-Bus error
    noOwner,  ///< NameHasNoOwner or ServiceUnknown
    unanswered,   ///< timeout, or the destination left the bus
  };
  /// `reply` holds the values; null unless the outcome is `answered`.
  using Answer = std::function<void(sd_bus_message* reply, Outcome outcome)>;

  /// `connection` outlives this.
  explicit BusInquiry(BusConnection& connection);
  ~BusInquiry() override;

  /// `answer` may call `ask`. When the bus is lost, it is called with `unanswered` or not at all.
  void ask(const Question& question, Answer answer);
  /// Whether any reply has come, also an error from the bus daemon.
  bool isAnswered() const { return answered; }
  bool isConnected() const { return bus != nullptr; }
  bool isDone() const { return bus == nullptr || pending == 0; }

  void busConnected(sd_bus* bus) override;
  void busLost() override;

 private:
  struct Call {
    BusInquiry& inquiry;
    Answer answer;
  };
  static int replied(sd_bus_message* reply, void* call, sd_bus_error* error);

  BusConnection& connection;
  sd_bus* bus = nullptr;
  bool answered = false;
  std::size_t pending = 0;
  std::vector<BusSlot> slots;
};

}  // namespace kestrune
