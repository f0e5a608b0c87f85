#pragma once

#include <systemd/sd-bus.h>

#include <cerrno>
#include <utility>

#include "adapters/bus/SessionBus.h"

namespace kestrune {

/// Appends values to a D-Bus message. After a failure, nothing more is appended, and `send` fails too.
class MessageWriter {
 public:
  /// If `given` is null, every later call fails.
  explicit MessageWriter(BusMessage given) : message(std::move(given)), result(message ? 0 : -ENOMEM) {}

  /// Appends values as sd_bus_message_append does.
  template <typename... Values>
  void append(const char* types, Values... values) {
    if (result >= 0) result = sd_bus_message_append(message.get(), types, values...);
  }

  /// Appends an array of numbers. `size` is the size of the array in bytes.
  void appendArray(char type, const void* data, std::size_t size) {
    if (result >= 0) result = sd_bus_message_append_array(message.get(), type, data, size);
  }

  /// Appends a container. `fill` appends the values in it.
  template <typename Fill>
  void container(char type, const char* contents, const Fill& fill) {
    if (result >= 0) result = sd_bus_message_open_container(message.get(), type, contents);
    if (result >= 0) fill();
    if (result >= 0) result = sd_bus_message_close_container(message.get());
  }

  /// Returns the last result of sd-bus: negative after a failure.
  int status() const { return result; }

  /// Sends the message. Returns the result of sd-bus: negative on failure.
  int send() const { return result < 0 ? result : sd_bus_send(nullptr, message.get(), nullptr); }

 private:
  const BusMessage message;
  int result;
};

}  // namespace kestrune
