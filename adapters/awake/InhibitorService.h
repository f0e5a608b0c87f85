#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "adapters/bus/NameOwner.h"
#include "adapters/bus/SessionBus.h"
#include "adapters/system/FileDescriptor.h"
#include "ports/Clock.h"

namespace kestrune {

/// How a service is asked not to take the user for idle.
struct InhibitorProtocol {
  const char* name;       ///< the service's name on its bus
  const char* interface;  ///< that has a method "Inhibit"
  /// Where the object may be: desktops differ. The later ones are tried when the earlier ones are not there.
  std::vector<const char*> paths;
  /// The method that takes the cookie back. Null for a service that answers with a descriptor: that is given
  /// back by closing it.
  const char* giveBackMethod;
  int (*appendArguments)(sd_bus_message* call, const char* reason);
};

/// One service that can keep the display, or the machine, awake, and what it was asked for. Never starts the
/// service, and gives everything back when it is destroyed. Main thread.
class InhibitorService final : public BusClient {
 public:
  enum class Presence {
    unknown,  ///< the bus has not said so far
    absent,   ///< no bus, nobody there, or somebody who, asked within the last minute, did not offer this
    there,
  };
  enum class Answer {
    granted,
    refused,  ///< by an error, by no answer in time, or not even asked because of such a silence
    absent,   ///< the service turned out not to offer this
  };

  /// `connection` and `clock` outlive this. `onChange` runs when the service came or went, and when something
  /// that was asked for later was granted.
  InhibitorService(BusConnection& connection, const Clock& clock, InhibitorProtocol protocol,
                   std::function<void()> onChange);
  ~InhibitorService() override;
  InhibitorService(const InhibitorService&) = delete;
  InhibitorService& operator=(const InhibitorService&) = delete;

  Presence presence() const;

  /// Asks on behalf of `holder`, a number of the caller's own and not 0, and waits for the answer: 250 ms at
  /// most, and not at all for a minute after a silence.
  Answer inhibit(std::uint32_t holder, const std::string& reason);
  /// Asks without waiting. Does nothing while the service is being asked for `holder`, or in the minute after
  /// a silence.
  void inhibitLater(std::uint32_t holder, const std::string& reason);
  /// Gives back what `holder` has, or what is granted to it later on. Does nothing if that is nothing.
  void giveBack(std::uint32_t holder);
  /// Whether what was granted to `holder` is in force, as far as is known: the service still runs.
  bool holds(std::uint32_t holder) const;

  void busConnected(sd_bus* bus) override;
  void busLost() override;

 private:
  struct Grant {
    std::string owner;  ///< who granted it; empty after the loss of that bus
    const char* path = nullptr;
    std::uint32_t cookie = 0;
    FileDescriptor descriptor;
  };
  /// A question that nobody waits for.
  struct Request {
    InhibitorService* service;
    std::uint32_t holder;  ///< 0 if what it asks for is not wanted any more
    std::string owner;     ///< who was asked
    const char* path;
    BusSlot slot;
  };
  /// A question that was waited for in vain.
  struct Unanswered {
    std::uint64_t serial;  ///< of the call
    std::string owner;     ///< who was asked
    const char* path;
  };

  BusMessage newCall(const std::string& owner, const char* path, const char* member) const;
  BusMessage newRequest(const std::string& reason) const;
  bool mayBeAsked() const;
  std::optional<Grant> grantFrom(sd_bus_message* reply, const std::string& owner, const char* path) const;
  void hold(std::uint32_t holder, Grant grant);
  void giveBack(const Grant& grant) const;
  void goPast(const std::string& asked, const char* path);
  void expectLateAnswer(sd_bus_message* call);
  void ownerChanged();
  static int answered(sd_bus_message* reply, void* request, sd_bus_error* error);
  static int answeredLate(sd_bus_message* message, void* self, sd_bus_error* error);

  BusConnection& connection;
  const Clock& clock;
  const InhibitorProtocol protocol;
  const std::function<void()> onChange;
  NameOwner owner;

  sd_bus* bus = nullptr;
  std::size_t path = 0;                   ///< the one of the protocol's paths that is asked
  Seconds passedOverUntil;                ///< by the continuous clock
  Seconds silentUntil;                    ///< by the continuous clock
  std::map<std::uint32_t, Grant> grants;  ///< by holder
  std::list<Request> requests;
  std::deque<Unanswered> unanswered;
  BusSlot lateAnswers;
};

}  // namespace kestrune
