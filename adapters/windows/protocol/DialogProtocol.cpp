#include "adapters/windows/protocol/DialogProtocol.h"

#include <array>
#include <nlohmann/json.hpp>

namespace nlohmann {

template <typename Value>
struct adl_serializer<std::optional<Value>> {
  static void to_json(json& to, const std::optional<Value>& value) { to = value ? json(*value) : json(); }
  static void from_json(const json& from, std::optional<Value>& value) {
    if (!from.is_null()) value = from.get<Value>();
  }
};

template <typename Value>
struct adl_serializer<std::shared_ptr<Value>> {
  static void to_json(json& to, const std::shared_ptr<Value>& value) { to = value ? json(*value) : json(); }
  static void from_json(const json& from, std::shared_ptr<Value>& value) {
    if (!from.is_null()) value = std::make_shared<Value>(from.get<Value>());
  }
};

}  // namespace nlohmann

namespace kestrune {

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Bitmap, width, height, rgba)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Image, width, height, isTemplate, bitmaps)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Insets, top, left, bottom, right)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(View, kind, identifier, text, placeholder, action, accessibilityLabel,
                                   fontSize, fontWeight, textColor, textAlignment, lineBreak, maximumLines,
                                   width, height, alignment, spacing, insets, image, children)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Alert, style, messageText, informativeText, buttons, accessoryView)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(AlertAnswer, button, fields)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(MenuItem, id, isSeparator, title, action, keyEquivalent, checked, enabled)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Menu, items)

}  // namespace kestrune

namespace kestrune::dialogs {

using Json = nlohmann::json;

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(ShowAlert, id, alert)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(ShowMenu, menu)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Raise, activationToken)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Shown, id)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Pressed, id, action)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Answered, id, answer)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Chosen, item)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Refused, reason)

namespace {

/// For each alternative of the variant `Message`, in order: the name of the JSON member that holds it.
template <typename Message>
constexpr std::array<const char*, std::variant_size_v<Message>> names{};
template <>
constexpr std::array<const char*, 3> names<Request>{"showAlert", "showMenu", "raise"};
template <>
constexpr std::array<const char*, 5> names<Event>{"shown", "pressed", "answered", "chosen", "refused"};

template <typename Message>
Json toJson(const Message& message) {
  return {
      {"version", protocolVersion},
      {names<Message>[message.index()], std::visit([](const auto& each) { return Json(each); }, message)}};
}

/// Returns the message in `object`. Throws if it is none of the alternatives of the variant `Message`. `kind`
/// is the index of the first alternative to try.
template <typename Message, std::size_t kind = 0>
Message fromJson(const Json& object) {
  if constexpr (kind + 1 < std::variant_size_v<Message>) {
    if (!object.contains(names<Message>[kind])) return fromJson<Message, kind + 1>(object);
  }
  return object.at(names<Message>[kind]).template get<std::variant_alternative_t<kind, Message>>();
}

}  // namespace

template <typename Message>
std::string encode(const Message& message) {
  // Replace invalid UTF-8 in the texts instead of failing.
  return toJson(message).dump(-1, ' ', false, Json::error_handler_t::replace);
}

template <typename Message>
std::variant<Message, std::string> decode(const std::string& line) {
  // Check each event, because a faulty KestruneMenuDialogs must not disturb the client. Requests need no
  // check: only the client writes them.
  constexpr bool isChecked = std::is_same_v<Message, Event>;
  const std::string rubbish = "a line that is not of the protocol";
  try {
    bool hasFraction = false;
    const Json object = Json::parse(line, [&hasFraction](int, Json::parse_event_t, const Json& value) {
      hasFraction = hasFraction || value.is_number_float();
      return true;
    });
    // Reject floating-point numbers: the library casts a number to int without a range check, and for a
    // number such as 1e99 this is undefined behaviour.
    if (isChecked && hasFraction) return rubbish;
    const int version = object.at("version").get<int>();
    if (version != protocolVersion) {
      return "it speaks version " + std::to_string(version) + " of the protocol, this half version " +
             std::to_string(protocolVersion) + "; install both from the same build";
    }
    const auto message = fromJson<Message>(object);
    // The library also accepts `true` for 1, truncates numbers that do not fit into an int, and ignores
    // unknown members. To reject such an event, encode it again and compare the result with `object`.
    if (!isChecked || toJson(message) == object) return message;
  } catch (const Json::exception&) {
    // Do not report the text of the exception: it quotes the line, which may contain a secret.
  }
  return rubbish;
}

template std::string encode(const Request&);
template std::string encode(const Event&);
template std::variant<Request, std::string> decode(const std::string&);
template std::variant<Event, std::string> decode(const std::string&);

}  // namespace kestrune::dialogs
