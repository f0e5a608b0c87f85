#include <gtest/gtest.h>

#include <cstdint>
#include <nlohmann/json.hpp>

#include "adapters/windows/protocol/DialogProtocol.h"

namespace kestrune::dialogs {
namespace {

using namespace std::string_literals;
using nlohmann::json;

template <typename Message, typename Whole>
Message decoded(const Whole& whole) {
  return std::get<Message>(std::get<Whole>(decode<Whole>(encode(whole))));
}

Alert decodedAlert(const Alert& alert) {
  return decoded<ShowAlert>(Request{ShowAlert{1, alert}}).alert;
}

constexpr auto rubbish = "a line that is not of the protocol";

Image twoByOne() {
  Image image{.width = 260, .height = 130.5, .isTemplate = false, .bitmaps = {}};
  image.bitmaps.push_back({2, 1, {0, 1, 2, 255, 253, 254, 255, 0}});
  image.bitmaps.push_back({4, 2, std::vector<std::uint8_t>(32, 0x9a)});
  return image;
}

/// An alert with every kind of view. Each member differs from its default value in at least one view.
Alert fullAlert() {
  View view{.kind = ViewKind::container, .width = 560, .height = 315.5, .insets = {1, 2, 3, 4}};
  for (const auto kind : {ViewKind::label, ViewKind::textField, ViewKind::secureTextField, ViewKind::button,
                          ViewKind::image, ViewKind::stack, ViewKind::scroll}) {
    view.children.push_back({.kind = kind,
                             .identifier = "KESTRUNE_APP_API_TOKEN",
                             .text = "文字 \"<b>\"\n\0\x1b"s,
                             .placeholder = "提示",
                             .action = "showPairingQR",
                             .accessibilityLabel = "名",
                             .fontSize = 11,
                             .fontWeight = FontWeight::semibold,
                             .textColor = TextColor::secondary,
                             .textAlignment = TextAlignment::center,
                             .lineBreak = LineBreak::truncateMiddle,
                             .maximumLines = 2,
                             .width = 290,
                             .height = 20,
                             .alignment = StackAlignment::centerX,
                             .spacing = 10});
  }
  return {.style = AlertStyle::informational,
          .messageText = "Kestrune 連線與桌面設定",
          .informativeText = "第一行\n第二行",
          .buttons = {"保存並刷新", "打開 .env", "取消"},
          .accessoryView = view};
}

Alert alertWith(Image image) {
  Alert alert = fullAlert();
  alert.accessoryView = View{.kind = ViewKind::image, .image = std::make_shared<Image>(std::move(image))};
  return alert;
}

Menu fullMenu() {
  return {{{.id = 1, .title = "Kestrune", .enabled = false},
           {.id = 2, .isSeparator = true},
           {.id = 3,
            .title = "自動維持連線",
            .action = "toggleAutoConnect",
            .keyEquivalent = "a",
            .checked = true},
           {.id = 4, .title = "保持", .action = "toggleKeepAwake", .keyEquivalent = "R", .checked = false}}};
}

TEST(DialogProtocol, CarriesEveryRequest) {
  EXPECT_EQ(decoded<ShowAlert>(Request{ShowAlert{7, fullAlert()}}).id, 7);
  EXPECT_EQ(decodedAlert(fullAlert()), fullAlert());
  const Alert picture = decodedAlert(alertWith(twoByOne()));
  ASSERT_TRUE(picture.accessoryView && picture.accessoryView->image);
  EXPECT_EQ(*picture.accessoryView->image, twoByOne());
  EXPECT_EQ(decoded<Raise>(Request{Raise{"token"}}).activationToken, "token");
  EXPECT_EQ(decoded<ShowMenu>(Request{ShowMenu{fullMenu()}}).menu, fullMenu());
  EXPECT_EQ(decoded<ShowMenu>(Request{ShowMenu{}}).menu, Menu{});
}

TEST(DialogProtocol, CarriesEveryEvent) {
  EXPECT_EQ(decoded<Shown>(Event{Shown{5}}).id, 5);
  EXPECT_EQ(decoded<Chosen>(Event{Chosen{29}}).item, 29);
  EXPECT_EQ(decoded<Refused>(Event{Refused{"why"}}).reason, "why");
  EXPECT_EQ(decoded<Pressed>(Event{Pressed{2, "showPairingQR"}}).action, "showPairingQR");
  const AlertAnswer answer{2, {{"a", "文\n\0字"s}, {"", "x"}}};
  const auto answered = decoded<Answered>(Event{Answered{4, answer}});
  EXPECT_EQ(answered.id, 4);
  EXPECT_EQ(answered.answer.button, 2U);
  EXPECT_EQ(answered.answer.fields, answer.fields);
  EXPECT_EQ(decoded<Answered>(Event{Answered{4, {}}}).answer.button, std::nullopt);
}

TEST(DialogProtocol, CarriesAnyTextInOneLine) {
  Alert alert = fullAlert();
  alert.informativeText = "a\nb\r\nc\u2028d" + std::string(1'000'000, 'x');
  EXPECT_EQ(encode(Request{ShowAlert{1, alert}}).find_first_of("\r\n"), std::string::npos);
  EXPECT_EQ(decodedAlert(alert), alert);
  alert.messageText = "a\xff\xfe"s + "b\xe4";
  EXPECT_EQ(decodedAlert(alert).messageText, "a\uFFFD\uFFFDb\uFFFD");
}

TEST(DialogProtocol, NamesTheVersionsWhenTheyDiffer) {
  for (const int version : {0, 2, -1}) {
    json line = json::parse(encode(Request{Raise{"t"}}));
    line["version"] = version;
    EXPECT_EQ(std::get<std::string>(decode<Request>(line.dump())),
              "it speaks version " + std::to_string(version) +
                  " of the protocol, this half version 3; install both from the same build");
  }
}

TEST(DialogProtocol, RefusesOtherLinesWithoutQuotingThem) {
  const std::string deep(100'000, '[');
  for (const std::string& line :
       {""s, "secret"s, "{"s, "{}"s, "[]"s, "null"s, "1"s, "\"secret\""s, "\xff\xfe"s, "\0"s,
        R"({"version":3})"s, R"({"version":"secret","shown":{"id":1}})"s, R"({"version":3,"secret":1})"s,
        R"([{"version":3,"shown":{"id":1}}])"s, deep, deep + std::string(deep.size(), ']')}) {
    EXPECT_EQ(std::get<std::string>(decode<Request>(line)), rubbish) << line.substr(0, 80);
    EXPECT_EQ(std::get<std::string>(decode<Event>(line)), rubbish) << line.substr(0, 80);
  }
}

/// Calls `use` with many copies of `object`, each changed in one place. There, the value is either replaced
/// by one of `others` or removed.
void forEachChange(const json& object, const std::function<void(const json&)>& use) {
  const json others = json::parse(R"([null, true, -1, 0.5, 1e300, 1073741824, 18446744073709551615, "secret",
                      [], {}, [1, 2], {"a": 1}, [{}]])");
  const json flat = object.flatten();
  for (const auto& [place, value] : flat.items()) {
    const json::json_pointer pointer(place);
    for (const auto& other : others) {
      json changed = object;
      changed[pointer] = other;
      use(changed);
    }
    json without = object;
    json& holder = without[pointer.parent_pointer()];
    if (!holder.is_object()) continue;
    holder.erase(pointer.back());
    use(without);
  }
}

TEST(DialogProtocol, RefusesEventsThatDecodingWouldChange) {
  int refused = 0;
  for (const auto& event : {Event{Shown{5}}, Event{Pressed{2, "a"}}, Event{Chosen{29}}, Event{Refused{"why"}},
                            Event{Answered{4, {2, {{"a", "x"}}}}}}) {
    json object = json::parse(encode(event));
    object["unknown"] = 1;
    EXPECT_EQ(std::get<std::string>(decode<Event>(object.dump())), rubbish);
    object.erase("unknown");
    forEachChange(object, [&refused](const json& changed) {
      const auto result = decode<Event>(changed.dump());
      if (const auto* const accepted = std::get_if<Event>(&result)) {
        EXPECT_EQ(json::parse(encode(*accepted)), changed);
      } else {
        ++refused;
      }
    });
  }
  EXPECT_GT(refused, 150);
}

}  // namespace
}  // namespace kestrune::dialogs
