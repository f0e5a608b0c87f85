#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

TEST(QueryValue, EncodesAllButUnreservedCharacters) {
  const std::string kept = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~!$'()*,;:@/";
  EXPECT_EQ(AppDelegate::percentEncodeQueryValue(kept), kept);
  constexpr auto digits = "0123456789ABCDEF";
  for (int code = 1; code < 128; ++code) {
    const std::string text(1, static_cast<char>(code));
    const std::string encoded = std::string("%") + digits[code / 16] + digits[code % 16];
    EXPECT_EQ(AppDelegate::percentEncodeQueryValue(text),
              kept.find(text) != std::string::npos ? text : encoded);
  }
  EXPECT_EQ(AppDelegate::percentEncodeQueryValue("e\u0301"), "e%CC%81");
  EXPECT_EQ(AppDelegate::percentEncodeQueryValue("中 😀"), "%E4%B8%AD%20%F0%9F%98%80");
  EXPECT_EQ(AppDelegate::percentEncodeQueryValue("%2F"), "%252F");
  EXPECT_EQ(AppDelegate::percentEncodeQueryValue(""), "");
}

struct PairingLink : ControllerTest {
  std::optional<std::string> link(const std::string& text) {
    env() = text;
    return controller->makePairingURL();
  }
};

TEST_F(PairingLink, CarriesTheEncodedAddressAndToken) {
  const std::pair<const char*, const char*> cases[] = {
      {"KESTRUNE_PUBLIC_API_URL=https://relay.test:8443/api\nKESTRUNE_APP_API_TOKEN=abc",
       "apiUrl=https://relay.test:8443/api&token=abc"},
      {"KESTRUNE_PUBLIC_API_URL=https://r.test/a?b=c&d=e f\nKESTRUNE_APP_API_TOKEN=a+b=c/%中",
       "apiUrl=https://r.test/a%3Fb%3Dc%26d%3De%20f&token=a%2Bb%3Dc/%25%E4%B8%AD"},
      {"KESTRUNE_PUBLIC_API_URL=\nKESTRUNE_APP_API_TOKEN=abc", "apiUrl=&token=abc"},
      {"HALVASK_PUBLIC_API_URL=https://old.test\nKESTRUNE_APP_API_TOKEN=abc",
       "apiUrl=https://relay.example.com&token=abc"},
      {"HALVASK_APP_API_TOKEN=abc", "apiUrl=https://relay.example.com&token=abc"},
      {"HALVASK_APP_API_TOKEN=abc\nKESTRUNE_APP_API_TOKEN=def", "apiUrl=https://relay.example.com&token=def"},
      {"KESTRUNE_APP_API_TOKEN= \t\u3000a b\u00A0 ", "apiUrl=https://relay.example.com&token=a%20b"},
      {"KESTRUNE_APP_API_TOKEN=token\r\n", "apiUrl=https://relay.example.com&token=token"},
  };
  for (const auto& [text, query] : cases) {
    EXPECT_EQ(link(text), std::string("kestrune://configure?") + query) << text;
  }
}

TEST_F(PairingLink, NeedsAToken) {
  for (const char* const text : {"", "KESTRUNE_PUBLIC_API_URL=https://r.test",
                                 "KESTRUNE_APP_API_TOKEN=", "KESTRUNE_APP_API_TOKEN= \t\u3000",
                                 "KESTRUNE_APP_API_TOKEN=\nHALVASK_APP_API_TOKEN=abc",
                                 "KESTRUNE_APP_API_TOKEN=  \nHALVASK_APP_API_TOKEN=abc",
                                 "HALVASK_APP_API_TOKEN=", "KESTRUNE_MAC_SERVICE_TOKEN=abc"}) {
    EXPECT_EQ(link(text), std::nullopt) << text;
  }
  machine.fileManager.files.clear();
  EXPECT_EQ(controller->makePairingURL(), std::nullopt);
}

struct PairingDialog : ControllerTest {
  PairingDialog() {
    env() = "KESTRUNE_PUBLIC_API_URL=https://relay.test?a=1\nKESTRUNE_APP_API_TOKEN=top secret";
  }

  const Alert& dialog() const { return machine.alerts.shown.back(); }
  const View& stack() const { return dialog().accessoryView->children.at(0); }

  const Alert noToken =
      errorWindow("無法生成配對 QR", "請先在 .env 設定 KESTRUNE_APP_API_TOKEN，然後重新整理連線。");
  const Alert lineEnds =
      errorWindow("無法生成配對 QR",
                  ".env 的換行字元不是 LF（例如 CR LF），讀到的 API URL 或 Token 會包含其他行的內容。"
                  "請把 .env 的換行改成 LF，再顯示配對 QR。");
  const Alert noPicture = errorWindow("無法生成配對 QR", "QR 圖片生成失敗，請稍後再試。");
};

TEST_F(PairingDialog, ReadsTheAddressOnce) {
  int reads = 0;
  machine.fileManager.whenRead = [&] {
    const std::string number = std::to_string(++reads);
    env() = "KESTRUNE_PUBLIC_API_URL=" + number + "\nHALVASK_APP_API_TOKEN=" + number;
  };
  choose("showPairingQR");
  EXPECT_EQ(machine.images.messages, std::vector<std::string>{"kestrune://configure?apiUrl=1&token=2"});
  EXPECT_EQ(stack().children.at(1).text, "API URL：1");
}

TEST_F(PairingDialog, ShowsThePictureAndTheAddress) {
  choose("showPairingQR");
  ASSERT_TRUE(dialog().accessoryView);
  EXPECT_EQ(dialog().style, AlertStyle::informational);
  EXPECT_EQ(dialog().messageText, "手機配對 QR");
  EXPECT_EQ(dialog().informativeText, "用 iPhone 系統相機掃描，下方 Kestrune 會自動填入 API URL 與 Token。");
  EXPECT_EQ(dialog().buttons, std::vector<std::string>{"好"});
  const ImageRef picture = stack().children.at(0).image;
  EXPECT_EQ(*dialog().accessoryView,
            (View{.kind = ViewKind::container,
                  .width = 300,
                  .height = 315,
                  .insets = {.top = 8, .bottom = 8},
                  .children = {{.kind = ViewKind::stack,
                                .alignment = StackAlignment::centerX,
                                .spacing = 10,
                                .children = {{.kind = ViewKind::image,
                                              .accessibilityLabel = "手機配對 QR",
                                              .width = 260,
                                              .height = 260,
                                              .image = picture},
                                             {.kind = ViewKind::label,
                                              .text = "API URL：https://relay.test?a=1",
                                              .fontSize = 11,
                                              .fontWeight = FontWeight::regular,
                                              .textColor = TextColor::secondary,
                                              .textAlignment = TextAlignment::center,
                                              .lineBreak = LineBreak::truncateMiddle,
                                              .maximumLines = 1,
                                              .width = 290}}}}}));
  ASSERT_NE(picture, nullptr);
  EXPECT_EQ(picture->width, 260);
  EXPECT_EQ(picture->height, 260);
  EXPECT_EQ(::testing::PrintToString(dialog()).find("secret"), std::string::npos);
  EXPECT_EQ(
      machine.images.messages,
      std::vector<std::string>{"kestrune://configure?apiUrl=https://relay.test%3Fa%3D1&token=top%20secret"});
}

TEST_F(PairingDialog, IsAnErrorWithoutATokenOrAPicture) {
  for (const char* const text : {"", "KESTRUNE_APP_API_TOKEN=  "}) {
    env() = text;
    choose("showPairingQR");
    EXPECT_EQ(closeWindow(), noToken);
  }
  EXPECT_TRUE(machine.images.messages.empty());
  EXPECT_EQ(controller->makeQRCodeImage("link", 100)->width, 100);
  machine.images.messages.clear();
  machine.images.qrCodeFails = true;
  EXPECT_EQ(controller->makeQRCodeImage("link"), nullptr);
  env() = "KESTRUNE_APP_API_TOKEN=abc";
  choose("showPairingQR");
  EXPECT_EQ(closeWindow(), noPicture);
}

TEST_F(PairingDialog, RefusesAValueWithALineEnd) {
  for (const char* const end : {"\r\n", "\r", "\v", "\f", "\u0085", "\u2028", "\u2029"}) {
    for (const char* const key : {"KESTRUNE_APP_API_TOKEN=", "HALVASK_APP_API_TOKEN="}) {
      env() = key + std::string("token") + end + "OPENAI_API_KEY=secret" + end;
      EXPECT_NE(controller->makePairingURL(), std::nullopt);
      choose("showPairingQR");
      EXPECT_EQ(closeWindow(), lineEnds);
    }
    env() = std::string("KESTRUNE_APP_API_TOKEN=token\nKESTRUNE_PUBLIC_API_URL=https://r.test") + end + "X=1";
    choose("showPairingQR");
    EXPECT_EQ(closeWindow(), lineEnds);
  }
  EXPECT_TRUE(machine.images.messages.empty());
  env() = "KESTRUNE_APP_API_TOKEN=token\r\n";
  choose("showPairingQR");
  EXPECT_EQ(machine.images.messages.size(), 1U) << "a line end behind a value is no part of it";
}

}  // namespace
}  // namespace kestrune::testing
