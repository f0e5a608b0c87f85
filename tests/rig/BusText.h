#pragma once

#include <systemd/sd-bus.h>

#include <cstring>
#include <stdexcept>
#include <string>

#include "adapters/bus/SessionBus.h"

namespace kestrune::testing {

/// Throws if `result`, which an sd-bus call for `what` has returned, is an error.
inline void must(int result, const char* what) {
  if (result < 0) throw std::runtime_error(std::string(what) + ": " + std::strerror(-result));
}

namespace detail {

std::string nextValue(sd_bus_message* message);

inline std::string remainingValues(sd_bus_message* message) {
  std::string text;
  while (sd_bus_message_at_end(message, 0) == 0) {
    text += (text.empty() ? "" : ", ");
    text += nextValue(message);
  }
  return text;
}

template <typename Value>
Value basicValue(sd_bus_message* message, char type) {
  Value value{};
  if (sd_bus_message_read_basic(message, type, &value) < 0) throw std::runtime_error("unreadable value");
  return value;
}

inline std::string nextValue(sd_bus_message* message) {
  char type = 0;
  const char* contents = nullptr;
  if (sd_bus_message_peek_type(message, &type, &contents) <= 0) throw std::runtime_error("no value");
  const auto inside = [&](const char* open, const char* close) {
    // Copy the signature: the message owns `contents`, and may free it at the next read.
    const std::string signature = contents;
    if (sd_bus_message_enter_container(message, type, signature.c_str()) < 0) {
      throw std::runtime_error("unreadable container");
    }
    std::string text;
    if (type == SD_BUS_TYPE_VARIANT) text = signature + " ";
    if (type == SD_BUS_TYPE_DICT_ENTRY) text = nextValue(message) + ": ";
    text += remainingValues(message);
    sd_bus_message_exit_container(message);
    return open + text + close;
  };
  switch (type) {
    case SD_BUS_TYPE_ARRAY:
      return contents[0] == SD_BUS_TYPE_DICT_ENTRY_BEGIN ? inside("{", "}") : inside("[", "]");
    case SD_BUS_TYPE_STRUCT:
      return inside("(", ")");
    case SD_BUS_TYPE_DICT_ENTRY:
    case SD_BUS_TYPE_VARIANT:
      return inside("", "");
    case SD_BUS_TYPE_STRING:
    case SD_BUS_TYPE_OBJECT_PATH:
      return "'" + std::string(basicValue<const char*>(message, type)) + "'";
    case SD_BUS_TYPE_BOOLEAN:
      return basicValue<int>(message, type) != 0 ? "true" : "false";
    case SD_BUS_TYPE_BYTE:
      return std::to_string(basicValue<std::uint8_t>(message, type));
    case SD_BUS_TYPE_INT32:
      return std::to_string(basicValue<std::int32_t>(message, type));
    case SD_BUS_TYPE_INT64:
      return std::to_string(basicValue<std::int64_t>(message, type));
    case SD_BUS_TYPE_UINT32:
      return std::to_string(basicValue<std::uint32_t>(message, type));
    default:
      throw std::runtime_error(std::string("a value of type ") + type);
  }
}

}  // namespace detail

/// Returns the contents of a message as text: (struct), [array], {'key': value}, a variant as "signature
/// value". For an error message it returns "error" and the error's name.
inline std::string textOf(const BusMessage& message) {
  if (!message) return "no answer";
  if (const sd_bus_error* const error = sd_bus_message_get_error(message.get())) {
    return std::string("error ") + error->name;
  }
  sd_bus_message_rewind(message.get(), 1);
  return detail::remainingValues(message.get());
}

}  // namespace kestrune::testing
