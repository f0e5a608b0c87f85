#include "adapters/windows/protocol/DialogProtocol.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>

namespace nlohmann {

template <typename Value>
struct adl_serializer<std::optional<Value>> {
  static void to_json(json& object, const std::optional<Value>& value) {
    object = value ? json(*value) : json();
  }
  static void from_json(const json& object, std::optional<Value>& value) {
    if (!object.is_null()) value = object.get<Value>();
  }
};

template <>
struct adl_serializer<kestrune::ImageRef> {
  static void to_json(json& object, const kestrune::ImageRef& image);
  static void from_json(const json& object, kestrune::ImageRef& image);
};

}  // namespace nlohmann

namespace kestrune {

// The JSON library reads an unknown word as the first value in the list. `decode` rejects such a message.
NLOHMANN_JSON_SERIALIZE_ENUM(AlertStyle,
                             {{AlertStyle::warning, "warning"}, {AlertStyle::informational, "informational"}})
NLOHMANN_JSON_SERIALIZE_ENUM(ViewKind, {{ViewKind::label, "label"},
                                        {ViewKind::textField, "textField"},
                                        {ViewKind::secureTextField, "secureTextField"},
                                        {ViewKind::button, "button"},
                                        {ViewKind::image, "image"},
                                        {ViewKind::stack, "stack"},
                                        {ViewKind::scroll, "scroll"},
                                        {ViewKind::container, "container"}})
NLOHMANN_JSON_SERIALIZE_ENUM(FontWeight, {{FontWeight::regular, "regular"},
                                          {FontWeight::medium, "medium"},
                                          {FontWeight::semibold, "semibold"}})
NLOHMANN_JSON_SERIALIZE_ENUM(TextColor,
                             {{TextColor::primary, "primary"}, {TextColor::secondary, "secondary"}})
NLOHMANN_JSON_SERIALIZE_ENUM(TextAlignment,
                             {{TextAlignment::natural, "natural"}, {TextAlignment::center, "center"}})
NLOHMANN_JSON_SERIALIZE_ENUM(LineBreak, {{LineBreak::wordWrap, "wordWrap"},
                                         {LineBreak::truncateMiddle, "truncateMiddle"}})
NLOHMANN_JSON_SERIALIZE_ENUM(StackAlignment,
                             {{StackAlignment::leading, "leading"}, {StackAlignment::centerX, "centerX"}})

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

void nlohmann::adl_serializer<kestrune::ImageRef>::to_json(json& object, const kestrune::ImageRef& image) {
  object = image ? json(*image) : json();
}

void nlohmann::adl_serializer<kestrune::ImageRef>::from_json(const json& object, kestrune::ImageRef& image) {
  if (!object.is_null()) image = std::make_shared<kestrune::Image>(object.get<kestrune::Image>());
}

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

/// For each kind of message, in the order of the variant: the name of the JSON member that holds the message.
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

template <typename Message>
std::string toLine(const Message& message) {
  // Replace invalid UTF-8 in the texts instead of failing.
  return toJson(message).dump(-1, ' ', false, Json::error_handler_t::replace);
}

/// Returns the message in `object`; absent if it is none of the alternatives of the variant `Message`. `kind`
/// is the index of the first alternative to try.
template <typename Message, std::size_t kind = 0>
std::optional<Message> fromJson(const Json& object) {
  if constexpr (kind < std::variant_size_v<Message>) {
    const auto found = object.find(names<Message>[kind]);
    if (found == object.end()) return fromJson<Message, kind + 1>(object);
    return found->template get<std::variant_alternative_t<kind, Message>>();
  }
  return std::nullopt;
}

/// Returns whether each bitmap in the view has as many pixels as its width and height demand.
bool hasWholeImages(const View& view) {
  const auto isWhole = [](const Bitmap& each) {
    const auto area = static_cast<std::size_t>(each.width) * static_cast<std::size_t>(each.height);
    return each.width > 0 && each.height > 0 && each.rgba.size() == 4 * area;
  };
  if (view.image) {
    const auto& bitmaps = view.image->bitmaps;
    if (bitmaps.empty() || !std::all_of(bitmaps.begin(), bitmaps.end(), isWhole)) return false;
  }
  return std::all_of(view.children.begin(), view.children.end(), &hasWholeImages);
}

/// Returns whether a window can be built from the request without more checks.
bool isSound(const Request& request) {
  const auto* const shown = std::get_if<ShowAlert>(&request);
  if (shown == nullptr) return true;
  const auto& view = shown->alert.accessoryView;
  return shown->id > 0 && !shown->alert.buttons.empty() && (!view || hasWholeImages(*view));
}

const std::string rubbish = "a line that is not of the protocol";

bool isSound(const Event&) {
  return true;
}

/// Returns whether `value` contains a number that is too large for an int. The library converts such a number
/// without a check, which is undefined behaviour.
bool hasLargeNumber(const Json& value) {
  constexpr double largest = std::numeric_limits<int>::max();
  if (value.is_number()) return std::abs(value.get<double>()) > largest;
  return value.is_structured() && std::any_of(value.begin(), value.end(), &hasLargeNumber);
}

template <typename Message>
std::variant<Message, std::string> decode(const std::string& line) {
  try {
    const Json object = Json::parse(line);
    if (hasLargeNumber(object)) return rubbish;
    const int version = object.at("version").get<int>();
    if (version != protocolVersion) {
      return "it speaks version " + std::to_string(version) + " of the protocol, this half version " +
             std::to_string(protocolVersion) + "; install both from the same build";
    }
    const auto message = fromJson<Message>(object);
    // Encode the message again and compare it with the line: the library takes true for 1, cuts large numbers
    // and ignores unknown members.
    if (message && toJson(*message) == object && isSound(*message)) return *message;
  } catch (const Json::exception&) {
    // Do not report the text of the exception: it quotes the line, which may contain a secret.
  }
  return rubbish;
}

}  // namespace

std::string encode(const Request& request) {
  return toLine(request);
}

std::string encode(const Event& event) {
  return toLine(event);
}

std::variant<Request, std::string> decodeRequest(const std::string& line) {
  return decode<Request>(line);
}

std::variant<Event, std::string> decodeEvent(const std::string& line) {
  return decode<Event>(line);
}

}  // namespace kestrune::dialogs
