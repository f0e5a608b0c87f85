#include <gtest/gtest.h>

#include "adapters/pictures/PngImages.h"
#include "tests/rig/FakePlatform.h"
#include "tests/rig/TrayDesk.h"

namespace kestrune::testing {
namespace {

using namespace std::string_literals;
using News = std::vector<std::string>;

struct Pixmap {
  int width = 0;
  int height = 0;
  std::vector<std::uint8_t> bytes;
};

std::vector<Pixmap> iconOf(TrayHost& host) {
  const BusMessage reply = host.call(TrayHost::itemPath, "org.freedesktop.DBus.Properties", "Get", "ss",
                                     TrayHost::itemInterface, "IconPixmap");
  std::vector<Pixmap> icon;
  sd_bus_message_enter_container(reply.get(), 'v', "a(iiay)");
  sd_bus_message_enter_container(reply.get(), 'a', "(iiay)");
  while (sd_bus_message_enter_container(reply.get(), 'r', "iiay") > 0) {
    Pixmap pixmap;
    const void* data = nullptr;
    std::size_t size = 0;
    sd_bus_message_read(reply.get(), "ii", &pixmap.width, &pixmap.height);
    sd_bus_message_read_array(reply.get(), 'y', &data, &size);
    const auto* const bytes = static_cast<const std::uint8_t*>(data);
    pixmap.bytes.assign(bytes, bytes + size);
    sd_bus_message_exit_container(reply.get());
    icon.push_back(std::move(pixmap));
  }
  return icon;
}

StatusButton makeButton(ImageRef image, const std::string& text) {
  StatusButton button;
  button.image = std::move(image);
  button.imagePosition = ImagePosition::imageOnly;
  button.toolTip = text;
  button.accessibilityLabel = text;
  return button;
}

struct TrayItem : TrayDesk {
  std::string toolTipFor(const std::string& text) {
    item->setButton(makeButton(nullptr, text));
    return host->property("ToolTip");
  }
};

TEST_F(TrayItem, HasAllPropertiesAlsoThoseThatAreEmpty) {
  EXPECT_EQ(host->properties(), (std::map<std::string, std::string>{
                                    {"Category", "s 'ApplicationStatus'"},
                                    {"Id", "s 'kestrune-menu-client'"},
                                    {"Title", "s 'Kestrune'"},
                                    {"Status", "s 'Active'"},
                                    {"WindowId", "i 0"},
                                    {"IconThemePath", "s ''"},
                                    {"IconName", "s ''"},
                                    {"IconPixmap", "a(iiay) []"},
                                    {"IconAccessibleDesc", "s ''"},
                                    {"OverlayIconName", "s ''"},
                                    {"OverlayIconPixmap", "a(iiay) []"},
                                    {"AttentionIconName", "s ''"},
                                    {"AttentionIconPixmap", "a(iiay) []"},
                                    {"AttentionAccessibleDesc", "s ''"},
                                    {"AttentionMovieName", "s ''"},
                                    {"ToolTip", "(sa(iiay)ss) ('', [], '', '')"},
                                    {"ItemIsMenu", "b true"},
                                    {"Menu", "o '/MenuBar'"},
                                }));
}

TEST_F(TrayItem, AlwaysHasAButton) {
  EXPECT_TRUE(item->hasButton());
}

TEST_F(TrayItem, SendsPixelsAsAlphaRedGreenBlue) {
  auto image = std::make_shared<Image>();
  image->bitmaps.push_back({2, 1, {1, 2, 3, 4, 250, 0, 128, 255}});
  item->setButton(makeButton(image, "tip"));
  EXPECT_EQ(host->property("IconPixmap"), "a(iiay) [(2, 1, [4, 1, 2, 3, 255, 250, 0, 128])]");
}

TEST_F(TrayItem, SendsEveryResolutionOfTheLogo) {
  const ImageRef logo = PngImages({}).imageFromFile(SOURCE_FOLDER "/resources/codex-menubar.png");
  ASSERT_NE(logo, nullptr);
  item->setButton(makeButton(logo, "tip"));
  const auto icon = iconOf(*host);
  std::vector<int> widths;
  for (std::size_t i = 0; i < icon.size(); ++i) {
    widths.push_back(icon[i].width);
    EXPECT_EQ(icon[i].height, icon[i].width);
    const auto& rgba = logo->bitmaps.at(i).rgba;
    ASSERT_EQ(icon[i].bytes.size(), rgba.size());
    for (std::size_t at = 0; at < rgba.size(); at += 4) {
      const std::vector<std::uint8_t> sent(&icon[i].bytes[at], &icon[i].bytes[at] + 4);
      const std::vector<std::uint8_t> expected{rgba[at + 3], rgba[at], rgba[at + 1], rgba[at + 2]};
      ASSERT_EQ(sent, expected) << "size " << icon[i].width << ", byte " << at;
    }
  }
  EXPECT_EQ(widths, (std::vector<int>{16, 22, 24, 32, 44, 48, 64}));
}

TEST_F(TrayItem, TellsOfANewButtonOnce) {
  const auto image = makeTestImage(2, 10, 20, 30);
  item->setButton(makeButton(image, "tip"));
  EXPECT_EQ(host->news(), (News{"NewIcon", "NewToolTip"}));
  item->setButton(makeButton(image, "tip"));
  EXPECT_EQ(host->news(), News{});
}

TEST_F(TrayItem, TakesAnImageWithTheSamePixelsForTheSame) {
  item->setButton(makeButton(makeTestImage(2, 10, 20, 30), "tip"));
  host->news();
  item->setButton(makeButton(makeTestImage(2, 10, 20, 30), "tip"));
  EXPECT_EQ(host->news(), News{});
}

TEST_F(TrayItem, TellsOfANewImageAlone) {
  item->setButton(makeButton(makeTestImage(1, 10, 20, 30), "tip"));
  host->news();
  item->setButton(makeButton(makeTestImage(1, 40, 50, 60), "tip"));
  EXPECT_EQ(host->news(), News{"NewIcon"});
  EXPECT_EQ(host->property("IconPixmap"), "a(iiay) [(1, 1, [255, 40, 50, 60])]");
}

TEST_F(TrayItem, TellsOfAnImageThatIsGone) {
  item->setButton(makeButton(makeTestImage(1, 10, 20, 30), "tip"));
  host->news();
  item->setButton(makeButton(nullptr, "tip"));
  EXPECT_EQ(host->news(), News{"NewIcon"});
  EXPECT_EQ(host->property("IconPixmap"), "a(iiay) []");
}

TEST_F(TrayItem, TellsOfANewDescriptionTogetherWithTheIcon) {
  StatusButton button = makeButton(makeTestImage(1, 10, 20, 30), "tip");
  item->setButton(button);
  host->news();
  button.accessibilityLabel = "described";
  item->setButton(button);
  EXPECT_EQ(host->news(), News{"NewIcon"});
  EXPECT_EQ(host->property("IconAccessibleDesc"), "s 'described'");
}

TEST_F(TrayItem, TellsOfANewToolTipAlone) {
  StatusButton button = makeButton(makeTestImage(1, 10, 20, 30), "tip");
  item->setButton(button);
  host->news();
  button.toolTip = "other";
  item->setButton(button);
  EXPECT_EQ(host->news(), News{"NewToolTip"});
  EXPECT_EQ(host->property("ToolTip"), "(sa(iiay)ss) ('', [], 'other', '')");
}

TEST_F(TrayItem, ShowsNoToolTipAndNoDescriptionWhenThereAreNone) {
  item->setButton(makeButton(nullptr, "tip"));
  host->news();
  item->setButton({});
  EXPECT_EQ(host->news(), (News{"NewIcon", "NewToolTip"}));
  EXPECT_EQ(host->property("ToolTip"), "(sa(iiay)ss) ('', [], '', '')");
  EXPECT_EQ(host->property("IconAccessibleDesc"), "s ''");
}

TEST_F(TrayItem, KeepsMarkupOutOfTheToolTip) {
  EXPECT_EQ(toolTipFor("<b>R&D</b>"), "(sa(iiay)ss) ('', [], '＜b>R＆D＜/b>', '')");
}

TEST_F(TrayItem, LeavesTheDescriptionAsItIs) {
  item->setButton(makeButton(nullptr, "R&D < all_of_it"));
  EXPECT_EQ(host->property("IconAccessibleDesc"), "s 'R&D < all_of_it'");
}

TEST_F(TrayItem, KeepsControlCharactersOutOfTheToolTip) {
  EXPECT_EQ(toolTipFor("a\0b\tc\nd\x1b[31me\u202ef\x7f"s), "(sa(iiay)ss) ('', [], 'a b c de f ', '')");
}

TEST_F(TrayItem, ReplacesBytesThatAreNotText) {
  EXPECT_EQ(toolTipFor("a\xff\xfez"), "(sa(iiay)ss) ('', [], 'a  z', '')");
}

TEST_F(TrayItem, ShortensAToolTipThatNoScreenHolds) {
  EXPECT_EQ(toolTipFor(std::string(1 << 20, 'x')),
            "(sa(iiay)ss) ('', [], '" + std::string(197, 'x') + "...', '')");
}

TEST_F(TrayItem, TellsAPlainClickOnceAndAfterItsAnswer) {
  EXPECT_EQ(textOf(host->call(TrayHost::itemPath, TrayHost::itemInterface, "Activate", "ii", 3, 4)), "");
  EXPECT_TRUE(comesTrue(loop, [this] { return bar.clicks > 0; }));
  host->catchUp();
  EXPECT_EQ(bar.clicks, 1);
}

TEST_F(TrayItem, TakesTheOtherClicksForPlainOnes) {
  int clicks = 0;
  for (const char* const method : {"SecondaryActivate", "ContextMenu"}) {
    EXPECT_EQ(textOf(host->call(TrayHost::itemPath, TrayHost::itemInterface, method, "ii", 3, 4)), "");
    settleQueue(loop);
    EXPECT_EQ(bar.clicks, ++clicks) << method;
  }
}

TEST_F(TrayItem, AnswersTheWheelAndDoesNothing) {
  EXPECT_EQ(textOf(host->call(TrayHost::itemPath, TrayHost::itemInterface, "Scroll", "is", 120, "vertical")),
            "");
  settleQueue(loop);
  EXPECT_EQ(bar.clicks, 0);
  EXPECT_EQ(host->news(), News{});
}

TEST_F(TrayItem, KeepsATokenOfAnOrdinaryLength) {
  const auto kept = [this](const std::string& token) {
    EXPECT_EQ(textOf(host->call(TrayHost::itemPath, TrayHost::itemInterface, "ProvideXdgActivationToken", "s",
                                token.c_str())),
              "");
    return bar.token.take();
  };
  EXPECT_EQ(kept("token"), "token");
  EXPECT_EQ(kept(std::string(4096, 't')), std::string(4096, 't'));
  EXPECT_EQ(kept(std::string(4097, 't')), "");
}

TEST_F(TrayItem, RejectsACallWithWrongArguments) {
  EXPECT_EQ(textOf(host->call(TrayHost::itemPath, TrayHost::itemInterface, "Activate", "s", "here")),
            "error org.freedesktop.DBus.Error.InvalidArgs");
  settleQueue(loop);
  EXPECT_EQ(bar.clicks, 0);
}

}  // namespace
}  // namespace kestrune::testing
