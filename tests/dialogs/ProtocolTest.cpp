#include <gtest/gtest.h>

#include <cstdint>
#include <nlohmann/json.hpp>

#include "adapters/windows/protocol/DialogProtocol.h"

namespace kestrune::dialogs {
namespace {

using namespace std::string_literals;
using nlohmann::json;

template <typename Message>
Message requested(const std::string& line) {
  return std::get<Message>(std::get<Request>(decodeRequest(line)));
}

template <typename Message>
Message told(const std::string& line) {
  return std::get<Message>(std::get<Event>(decodeEvent(line)));
}

/// Why a line is not understood; empty when it is.
template <typename Decoded>
std::string reasonIn(const Decoded& decoded) {
  const auto* const reason = std::get_if<std::string>(&decoded);
  return reason != nullptr ? *reason : "";
}
std::string reasonAgainstRequest(const std::string& line) {
  return reasonIn(decodeRequest(line));
}
std::string reasonAgainstEvent(const std::string& line) {
  return reasonIn(decodeEvent(line));
}

/// One of each kind, with nothing left as it is by default.
View everything() {
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
  return view;
}

Alert fullAlert() {
  return {.style = AlertStyle::informational,
          .messageText = "Kestrune 連線與桌面設定",
          .informativeText = "第一行\n第二行",
          .buttons = {"保存並刷新", "打開 .env", "取消"},
          .accessoryView = everything()};
}

Image twoByOne() {
  Image image{.width = 260, .height = 130.5, .isTemplate = false, .bitmaps = {}};
  image.bitmaps.push_back({2, 1, {0, 1, 2, 255, 253, 254, 255, 0}});
  image.bitmaps.push_back({4, 2, std::vector<std::uint8_t>(32, 0x9a)});
  return image;
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

// --- what is said is understood

TEST(DialogProtocol, RequestsArriveWhole) {
  const auto arrived = requested<ShowAlert>(encode(Request{ShowAlert{7, fullAlert()}}));
  EXPECT_EQ(arrived.id, 7);
  EXPECT_EQ(arrived.alert, fullAlert());
  Alert alert{.style = AlertStyle::warning, .messageText = "", .informativeText = "", .buttons = {"好"}};
  EXPECT_EQ(requested<ShowAlert>(encode(Request{ShowAlert{1, alert}})).alert, alert);
  alert.accessoryView = View{.kind = ViewKind::image, .image = std::make_shared<Image>(twoByOne())};
  const auto picture = requested<ShowAlert>(encode(Request{ShowAlert{1, alert}})).alert;
  ASSERT_TRUE(picture.accessoryView && picture.accessoryView->image);
  EXPECT_EQ(*picture.accessoryView->image, twoByOne());
  EXPECT_EQ(requested<Raise>(encode(Request{Raise{"token"}})).activationToken, "token");
  EXPECT_EQ(requested<ShowMenu>(encode(Request{ShowMenu{fullMenu()}})).menu, fullMenu());
  EXPECT_EQ(requested<ShowMenu>(encode(Request{ShowMenu{}})).menu, Menu{});
}

TEST(DialogProtocol, EventsArrive) {
  EXPECT_EQ(told<Shown>(encode(Event{Shown{5}})).id, 5);
  EXPECT_EQ(told<Shown>(encode(Event{Shown{}})).id, 0);
  EXPECT_EQ(told<Chosen>(encode(Event{Chosen{29}})).item, 29);
  EXPECT_EQ(told<Refused>(encode(Event{Refused{"why"}})).reason, "why");
  const auto pressed = told<Pressed>(encode(Event{Pressed{2, "showPairingQR"}}));
  EXPECT_EQ(pressed.id, 2);
  EXPECT_EQ(pressed.action, "showPairingQR");
}

TEST(DialogProtocol, AnswersArriveWithTheirFields) {
  const AlertAnswer answer{2, {{"a", "文\n\0字"s}, {"", "x"}}};
  const auto answered = told<Answered>(encode(Event{Answered{4, answer}}));
  EXPECT_EQ(answered.id, 4);
  EXPECT_EQ(answered.answer.button, 2U);
  EXPECT_EQ(answered.answer.fields, answer.fields);
  EXPECT_EQ(told<Answered>(encode(Event{Answered{4, {}}})).answer.button, std::nullopt);
}

TEST(DialogProtocol, EveryMessageIsOneLine) {
  Alert alert = fullAlert();
  alert.informativeText = "a\nb\r\nc\u2028d";
  for (const auto& line : {encode(Request{ShowAlert{1, alert}}), encode(Event{Refused{"a\nb"}})}) {
    EXPECT_EQ(line.find_first_of("\r\n"), std::string::npos) << line;
  }
}

TEST(DialogProtocol, TextThatIsNotUtf8ArrivesAsFarAsItIs) {
  const Alert alert{.messageText = "a\xff\xfe"s + "b\xe4", .informativeText = "好", .buttons = {"好"}};
  const auto arrived = requested<ShowAlert>(encode(Request{ShowAlert{1, alert}})).alert;
  EXPECT_EQ(arrived.messageText, "a\uFFFD\uFFFDb\uFFFD");
  EXPECT_EQ(arrived.informativeText, "好");
}

TEST(DialogProtocol, ATextOfMegabytesArrives) {
  const Alert alert{.messageText = "m", .informativeText = std::string(5'000'000, 'x'), .buttons = {"好"}};
  EXPECT_EQ(requested<ShowAlert>(encode(Request{ShowAlert{1, alert}})).alert, alert);
}

// --- what is not is refused

TEST(DialogProtocol, AnotherVersionSaysWhichIsWhich) {
  for (const auto& [version, said] : {std::pair{0, "0"}, {2, "2"}, {-1, "-1"}}) {
    json line = json::parse(encode(Request{Raise{"t"}}));
    line["version"] = version;
    const auto expected = "it speaks version "s + said +
                          " of the protocol, this half version 1; install both from the same build";
    EXPECT_EQ(reasonAgainstRequest(line.dump()), expected);
    EXPECT_EQ(reasonAgainstEvent(line.dump()), expected);
  }
}

TEST(DialogProtocol, RubbishIsRefusedAndNotQuoted) {
  for (const std::string& line : {""s,
                                  "secret"s,
                                  "{"s,
                                  "{}"s,
                                  "[]"s,
                                  "null"s,
                                  "1"s,
                                  "\"secret\""s,
                                  "\xff\xfe"s,
                                  "\0"s,
                                  R"({"version":1})"s,
                                  R"({"version":"1","raise":""})"s,
                                  R"({"version":1.0,"raise":""})"s,
                                  R"({"version":true,"raise":""})"s,
                                  R"({"version":99999999999,"raise":""})"s,
                                  R"({"version":1,"secret":1})"s,
                                  R"([{"version":1,"raise":""}])"s,
                                  R"({"version":1,"raise":1} {"version":1,"raise":""})"s,
                                  std::string(200'000, '['),
                                  R"({"version":1,"alert":)" + std::string(200'000, '[')}) {
    for (const auto& reason : {reasonAgainstRequest(line), reasonAgainstEvent(line)}) {
      EXPECT_NE(reason, "") << line.substr(0, 80);
      EXPECT_EQ(reason.find("secret"), std::string::npos) << reason;
    }
  }
}

/// Every value in `object`, one at a time, replaced by each of some others.
void forEachReplacement(const json& object, const std::function<void(const json&)>& use) {
  const json others = json::parse(R"([null, true, -1, 0.5, 1e300, 1073741824, 18446744073709551615, "secret",
                      [], {}, [1, 2], {"a": 1}, [{}]])");
  const json flat = object.flatten();
  for (const auto& [place, value] : flat.items()) {
    for (const auto& other : others) {
      json changed = object;
      changed[json::json_pointer(place)] = other;
      use(changed);
    }
    json without = object;
    const json::json_pointer pointer(place);
    json& holder = without[pointer.parent_pointer()];
    if (holder.is_object()) {
      holder.erase(pointer.back());
      use(without);
    }
  }
}

TEST(DialogProtocol, NoWrongValueGetsThroughUnnoticed) {
  Alert alert = fullAlert();
  alert.accessoryView->children.resize(1);
  alert.accessoryView->children[0].image = std::make_shared<Image>(twoByOne());
  int refused = 0;
  const auto take = [&refused](const json& changed) {
    const std::string line = changed.dump();
    const auto decoded = decodeRequest(line);
    if (const auto* const reason = std::get_if<std::string>(&decoded)) {
      ++refused;
      EXPECT_EQ(reason->find("secret"), std::string::npos) << *reason;
      return;
    }
    // What is taken has been understood as it stands there.
    json again = json::parse(encode(std::get<Request>(decoded)));
    EXPECT_EQ(again, json::parse(line));
  };
  forEachReplacement(json::parse(encode(Request{ShowAlert{1, alert}})), take);
  forEachReplacement(json::parse(encode(Request{ShowMenu{fullMenu()}})), take);
  forEachReplacement(json::parse(encode(Request{Raise{"t"}})), take);
  EXPECT_GT(refused, 500);

  for (const auto& event : {Event{Shown{1}}, Event{Pressed{1, "a"}}, Event{Answered{1, {0, {{"a", "b"}}}}},
                            Event{Answered{1, {}}}, Event{Chosen{1}}, Event{Refused{"why"}}}) {
    forEachReplacement(json::parse(encode(event)), [](const json& changed) {
      const auto decoded = decodeEvent(changed.dump());
      if (const auto* const understood = std::get_if<Event>(&decoded)) {
        EXPECT_EQ(json::parse(encode(*understood)), changed);
      }
    });
  }
}

TEST(DialogProtocol, PicturesWhosePixelsDoNotAgreeAreRefused) {
  Alert alert = fullAlert();
  const auto refused = [&alert](Image image) {
    alert.accessoryView = View{.kind = ViewKind::image, .image = std::make_shared<Image>(std::move(image))};
    return reasonAgainstRequest(encode(Request{ShowAlert{1, alert}}));
  };
  Image image = twoByOne();
  image.bitmaps[0].rgba.pop_back();
  EXPECT_EQ(refused(image), "an image whose size and pixels do not agree");
  image = twoByOne();
  image.bitmaps[1].width = 2'000'000'000;
  EXPECT_EQ(refused(image), "a number out of range");
  image = twoByOne();
  image.bitmaps.clear();
  EXPECT_EQ(refused(image), "an image without a bitmap");
}

TEST(DialogProtocol, ViewsInViewsComeToAnEnd) {
  View view;
  for (int i = 0; i < 1000; ++i) {
    View outer;
    outer.children.push_back(std::move(view));
    view = std::move(outer);
  }
  Alert alert = fullAlert();
  alert.accessoryView = std::move(view);
  EXPECT_EQ(reasonAgainstRequest(encode(Request{ShowAlert{1, alert}})), "views inside views without end");
}

TEST(DialogProtocol, AnAlertNeedsAButtonAndANumber) {
  Alert alert = fullAlert();
  EXPECT_EQ(reasonAgainstRequest(encode(Request{ShowAlert{0, alert}})), "a number out of range");
  alert.buttons.clear();
  EXPECT_EQ(reasonAgainstRequest(encode(Request{ShowAlert{1, alert}})), "an alert without a button");
}

}  // namespace
}  // namespace kestrune::dialogs
