#include "adapters/windows/protocol/DialogProtocol.h"

#include <algorithm>
#include <array>
#include <limits>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>

namespace kestrune::dialogs {

using Json = nlohmann::json;

namespace {

constexpr int deepestView = 16;
constexpr int largestImageSide = 4096;   // pixels
constexpr double largestFont = 200;      // points
constexpr double largestLength = 16384;  // points; more than any screen

/// The JSON strings of an enumeration, in the order of its values.
template <typename Enumeration>
struct Words;
template <>
struct Words<AlertStyle> {
  static constexpr std::array values{"warning", "informational"};
};
template <>
struct Words<ViewKind> {
  static constexpr std::array values{"label", "textField", "secureTextField", "button",
                                     "image", "stack",     "scroll",          "container"};
};
template <>
struct Words<FontWeight> {
  static constexpr std::array values{"regular", "medium", "semibold"};
};
template <>
struct Words<TextColor> {
  static constexpr std::array values{"primary", "secondary"};
};
template <>
struct Words<TextAlignment> {
  static constexpr std::array values{"natural", "center"};
};
template <>
struct Words<LineBreak> {
  static constexpr std::array values{"wordWrap", "truncateMiddle"};
};
template <>
struct Words<StackAlignment> {
  static constexpr std::array values{"leading", "centerX"};
};

template <typename Enumeration>
Json wordFor(Enumeration value) {
  return Words<Enumeration>::values.at(static_cast<std::size_t>(value));
}

/// Why a line is invalid. Thrown and caught in this file only.
struct Misunderstood {
  std::string reason;
};

template <typename Enumeration>
Enumeration fromWord(const Json& object, const char* name) {
  const auto& word = object.at(name).get_ref<const std::string&>();
  const auto& words = Words<Enumeration>::values;
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (word == words[i]) return static_cast<Enumeration>(i);
  }
  throw Misunderstood{std::string("an unknown ") + name};
}

// nlohmann::json converts true to 1, and a number that is out of range to any value. So check both.

int wholeNumber(const Json& value, int least, int most = std::numeric_limits<int>::max()) {
  if (!value.is_number_integer()) throw Misunderstood{"a number that is not whole"};
  constexpr auto largest = std::uint64_t{std::numeric_limits<std::int64_t>::max()};
  const auto number = value.is_number_unsigned()
                          ? static_cast<std::int64_t>(std::min(value.get<std::uint64_t>(), largest))
                          : value.get<std::int64_t>();
  if (number < least || number > most) throw Misunderstood{"a number out of range"};
  return static_cast<int>(number);
}

double length(const Json& value, double most = largestLength) {
  if (!value.is_number()) throw Misunderstood{"a size that is no number"};
  const auto points = value.get<double>();
  if (!(points >= 0 && points <= most)) throw Misunderstood{"a size out of range"};
  return points;
}

/// The array `name`. nlohmann::json would also iterate over an object or a single value.
const Json& arrayAt(const Json& object, const char* name) {
  const Json& elements = object.at(name);
  if (!elements.is_array()) throw Misunderstood{std::string("no array of ") + name};
  return elements;
}

Json imageToJson(const Image& image) {
  Json bitmaps = Json::array();
  for (const auto& bitmap : image.bitmaps) {
    static constexpr std::string_view digits = "0123456789abcdef";
    std::string pixels;
    pixels.reserve(bitmap.rgba.size() * 2);
    for (const std::uint8_t byte : bitmap.rgba) {
      pixels += digits[byte >> 4];
      pixels += digits[byte & 15];
    }
    bitmaps.push_back({{"width", bitmap.width}, {"height", bitmap.height}, {"rgba", std::move(pixels)}});
  }
  return {{"width", image.width}, {"height", image.height}, {"bitmaps", std::move(bitmaps)}};
}

std::uint8_t fromDigit(char digit) {
  if (digit >= '0' && digit <= '9') return static_cast<std::uint8_t>(digit - '0');
  if (digit >= 'a' && digit <= 'f') return static_cast<std::uint8_t>(digit - 'a' + 10);
  throw Misunderstood{"pixels that are no hexadecimal digits"};
}

ImageRef imageFromJson(const Json& object) {
  auto image = std::make_shared<Image>();
  image->width = length(object.at("width"));
  image->height = length(object.at("height"));
  image->isTemplate = false;
  for (const auto& each : arrayAt(object, "bitmaps")) {
    Bitmap bitmap{wholeNumber(each.at("width"), 1, largestImageSide),
                  wholeNumber(each.at("height"), 1, largestImageSide),
                  {}};
    const auto& pixels = each.at("rgba").get_ref<const std::string&>();
    const auto count = static_cast<std::size_t>(bitmap.width) * static_cast<std::size_t>(bitmap.height);
    if (pixels.size() != 8 * count) throw Misunderstood{"an image whose size and pixels do not agree"};
    bitmap.rgba.reserve(4 * count);
    for (std::size_t at = 0; at < pixels.size(); at += 2) {
      bitmap.rgba.push_back(
          static_cast<std::uint8_t>(fromDigit(pixels[at]) << 4 | fromDigit(pixels[at + 1])));
    }
    image->bitmaps.push_back(std::move(bitmap));
  }
  if (image->bitmaps.empty()) throw Misunderstood{"an image without a bitmap"};
  return image;
}

Json viewToJson(const View& view) {
  Json object{
      {"kind", wordFor(view.kind)},
      {"identifier", view.identifier},
      {"text", view.text},
      {"placeholder", view.placeholder},
      {"action", view.action},
      {"accessibilityLabel", view.accessibilityLabel},
      {"fontSize", view.fontSize},
      {"fontWeight", wordFor(view.fontWeight)},
      {"textColor", wordFor(view.textColor)},
      {"textAlignment", wordFor(view.textAlignment)},
      {"lineBreak", wordFor(view.lineBreak)},
      {"maximumLines", view.maximumLines},
      {"width", view.width},
      {"height", view.height},
      {"alignment", wordFor(view.alignment)},
      {"spacing", view.spacing},
      {"insets", {view.insets.top, view.insets.left, view.insets.bottom, view.insets.right}},
      {"children", Json::array()},
  };
  if (view.image) object["image"] = imageToJson(*view.image);
  for (const auto& child : view.children) object["children"].push_back(viewToJson(child));
  return object;
}

View viewFromJson(const Json& object, int depth = 0) {
  if (depth == deepestView) throw Misunderstood{"views inside views without end"};
  View view;
  view.kind = fromWord<ViewKind>(object, "kind");
  view.identifier = object.at("identifier").get<std::string>();
  view.text = object.at("text").get<std::string>();
  view.placeholder = object.at("placeholder").get<std::string>();
  view.action = object.at("action").get<std::string>();
  view.accessibilityLabel = object.at("accessibilityLabel").get<std::string>();
  view.fontSize = length(object.at("fontSize"), largestFont);
  view.fontWeight = fromWord<FontWeight>(object, "fontWeight");
  view.textColor = fromWord<TextColor>(object, "textColor");
  view.textAlignment = fromWord<TextAlignment>(object, "textAlignment");
  view.lineBreak = fromWord<LineBreak>(object, "lineBreak");
  view.maximumLines = wholeNumber(object.at("maximumLines"), 0);
  view.width = length(object.at("width"));
  view.height = length(object.at("height"));
  view.alignment = fromWord<StackAlignment>(object, "alignment");
  view.spacing = length(object.at("spacing"));
  const auto& insets = arrayAt(object, "insets");
  view.insets = {length(insets.at(0)), length(insets.at(1)), length(insets.at(2)), length(insets.at(3))};
  if (const auto image = object.find("image"); image != object.end()) view.image = imageFromJson(*image);
  for (const auto& child : arrayAt(object, "children"))
    view.children.push_back(viewFromJson(child, depth + 1));
  return view;
}

Json alertToJson(const Alert& alert) {
  Json object{{"style", wordFor(alert.style)},
              {"messageText", alert.messageText},
              {"informativeText", alert.informativeText},
              {"buttons", alert.buttons}};
  if (alert.accessoryView) object["accessoryView"] = viewToJson(*alert.accessoryView);
  return object;
}

Alert alertFromJson(const Json& object) {
  Alert alert;
  alert.style = fromWord<AlertStyle>(object, "style");
  alert.messageText = object.at("messageText").get<std::string>();
  alert.informativeText = object.at("informativeText").get<std::string>();
  alert.buttons = object.at("buttons").get<std::vector<std::string>>();
  if (alert.buttons.empty()) throw Misunderstood{"an alert without a button"};
  if (const auto view = object.find("accessoryView"); view != object.end())
    alert.accessoryView = viewFromJson(*view);
  return alert;
}

Json menuToJson(const Menu& menu) {
  Json items = Json::array();
  for (const auto& item : menu.items) {
    items.push_back({{"id", item.id},
                     {"isSeparator", item.isSeparator},
                     {"title", item.title},
                     {"action", item.action},
                     {"keyEquivalent", item.keyEquivalent},
                     {"checked", item.checked ? Json(*item.checked) : Json()},
                     {"enabled", item.enabled}});
  }
  return items;
}

Menu menuFromJson(const Json& items) {
  Menu menu;
  if (!items.is_array()) throw Misunderstood{"a menu that is no array"};
  for (const auto& object : items) {
    MenuItem item;
    item.id = wholeNumber(object.at("id"), 1);
    item.isSeparator = object.at("isSeparator").get<bool>();
    item.title = object.at("title").get<std::string>();
    item.action = object.at("action").get<std::string>();
    item.keyEquivalent = object.at("keyEquivalent").get<std::string>();
    if (const auto& checked = object.at("checked"); !checked.is_null()) item.checked = checked.get<bool>();
    item.enabled = object.at("enabled").get<bool>();
    menu.items.push_back(std::move(item));
  }
  return menu;
}

template <typename... Cases>
struct Overloaded : Cases... {
  using Cases::operator()...;
};
template <typename... Cases>
Overloaded(Cases...) -> Overloaded<Cases...>;

/// The text may contain invalid UTF-8; replace it instead of failing.
std::string toLine(Json object) {
  object["version"] = protocolVersion;
  return object.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Request requestFrom(const Json& object) {
  if (const auto alert = object.find("alert"); alert != object.end()) {
    return ShowAlert{wholeNumber(object.at("id"), 1), alertFromJson(*alert)};
  }
  if (const auto raise = object.find("raise"); raise != object.end()) return Raise{raise->get<std::string>()};
  if (const auto menu = object.find("menu"); menu != object.end()) return ShowMenu{menuFromJson(*menu)};
  throw Misunderstood{"a line that asks for nothing known"};
}

Event eventFrom(const Json& object) {
  if (const auto shown = object.find("shown"); shown != object.end()) return Shown{wholeNumber(*shown, 0)};
  if (const auto pressed = object.find("pressed"); pressed != object.end()) {
    return Pressed{wholeNumber(object.at("id"), 1), pressed->get<std::string>()};
  }
  if (const auto answered = object.find("answered"); answered != object.end()) {
    AlertAnswer answer;
    if (const auto& button = answered->at("button"); !button.is_null()) {
      answer.button = static_cast<std::size_t>(wholeNumber(button, 0));
    }
    answer.fields = answered->at("fields").get<std::map<std::string, std::string>>();
    return Answered{wholeNumber(object.at("id"), 1), std::move(answer)};
  }
  if (const auto chosen = object.find("chosen"); chosen != object.end())
    return Chosen{wholeNumber(*chosen, 1)};
  if (const auto refused = object.find("refused"); refused != object.end()) {
    return Refused{refused->get<std::string>()};
  }
  throw Misunderstood{"a line that tells nothing known"};
}

template <typename Message>
std::variant<Message, std::string> decode(const std::string& line, Message (*read)(const Json&)) {
  try {
    const Json object = Json::parse(line);
    const int version = wholeNumber(object.at("version"), std::numeric_limits<int>::min());
    if (version != protocolVersion) {
      throw Misunderstood{"it speaks version " + std::to_string(version) +
                          " of the protocol, this half version " + std::to_string(protocolVersion) +
                          "; install both from the same build"};
    }
    return read(object);
  } catch (const Misunderstood& problem) {
    return problem.reason;
  } catch (const Json::exception&) {
    // The library's message quotes the line, which may contain a secret.
    return std::string("a line that is not of the protocol");
  }
}

}  // namespace

std::string encode(const Request& request) {
  return toLine(std::visit(Overloaded{
                               [](const ShowAlert& each) {
                                 return Json{{"id", each.id}, {"alert", alertToJson(each.alert)}};
                               },
                               [](const Raise& each) {
                                 return Json{{"raise", each.activationToken}};
                               },
                               [](const ShowMenu& each) {
                                 return Json{{"menu", menuToJson(each.menu)}};
                               },
                           },
                           request));
}

std::string encode(const Event& event) {
  return toLine(std::visit(
      Overloaded{
          [](const Shown& each) {
            return Json{{"shown", each.id}};
          },
          [](const Pressed& each) {
            return Json{{"id", each.id}, {"pressed", each.action}};
          },
          [](const Answered& each) {
            const auto& button = each.answer.button;
            return Json{
                {"id", each.id},
                {"answered", {{"button", button ? Json(*button) : Json()}, {"fields", each.answer.fields}}}};
          },
          [](const Chosen& each) {
            return Json{{"chosen", each.item}};
          },
          [](const Refused& each) {
            return Json{{"refused", each.reason}};
          },
      },
      event));
}

std::variant<Request, std::string> decodeRequest(const std::string& line) {
  return decode(line, &requestFrom);
}

std::variant<Event, std::string> decodeEvent(const std::string& line) {
  return decode(line, &eventFrom);
}

}  // namespace kestrune::dialogs
