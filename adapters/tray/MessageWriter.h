#pragma once

#include <systemd/sd-bus.h>

#include <cerrno>
#include <utility>

#include "adapters/bus/SessionBus.h"

namespace kestrune {

/// Appends values to a D-Bus message. After a failure it appends nothing more, and `send` fails.
class MessageWriter {
 public:
  /// A null `given` counts as a failure.
  explicit MessageWriter(BusMessage given) : message(std::move(given)), result(message ? 0 : -ENOMEM) {}

  /// Like sd_bus_message_append.
  template <typename... Values>
  void append(const char* types, Values... values) {
    if (result >= 0) result = sd_bus_message_append(message.get(), types, values...);
  }

  /// Appends an array of a type of fixed size; `size` is in bytes.
  void appendArray(char type, const void* data, std::size_t size) {
    if (result >= 0) result = sd_bus_message_append_array(message.get(), type, data, size);
  }

  /// Appends a container with the values that `fill` appends.
  template <typename Fill>
  void container(char type, const char* contents, const Fill& fill) {
    if (result >= 0) result = sd_bus_message_open_container(message.get(), type, contents);
    if (result >= 0) fill();
    if (result >= 0) result = sd_bus_message_close_container(message.get());
  }

  /// What sd-bus returned last: negative after a failure.
  int status() const { return result; }

  /// Returns what sd-bus returned: negative on failure.
  int send() const { return result < 0 ? result : sd_bus_send(nullptr, message.get(), nullptr); }

 private:
  const BusMessage message;
  int result;
};

}  // namespace kestrune
