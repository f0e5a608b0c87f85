#pragma once

#include <functional>
#include <string>
#include <vector>

#include "adapters/bus/SessionBus.h"

namespace kestrune {

/// Puts questions to the programs on a bus, and waits for all answers together. Never starts a program.
/// Main thread.
class BusInquiry final : public BusClient {
 public:
  struct Question {
    std::string destination, path, interface, method;
    std::vector<std::string> arguments{};  ///< all of them texts
  };
  enum class Outcome {
    answered,
    refused,      ///< with an error
    nobodyThere,  ///< the bus says that nobody has that name
    unanswered,   ///< not in time, or not before whoever was asked was gone
  };
  /// `reply` is the answer, from which the values are to be read; null unless the outcome is `answered`.
  using Answer = std::function<void(sd_bus_message* reply, Outcome outcome)>;

  /// `connection` outlives this.
  explicit BusInquiry(BusConnection& connection);
  ~BusInquiry() override;

  /// `answer` may ask more. When the bus is lost it may be called, as unanswered, or not at all.
  void ask(const Question& question, Answer answer);
  /// Whether the bus itself has answered.
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
