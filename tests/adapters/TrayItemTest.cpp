#include <gtest/gtest.h>

#include "tests/rig/FakePlatform.h"
#include "tests/rig/TrayDesk.h"

namespace kestrune::testing {
namespace {

using News = std::vector<std::string>;

StatusButton makeButton(ImageRef image, const std::string& text) {
  StatusButton button;
  button.image = std::move(image);
  button.imagePosition = ImagePosition::imageOnly;
  button.toolTip = text;
  button.accessibilityLabel = text;
  return button;
}

using TrayItem = TrayDesk;

TEST_F(TrayItem, ExportsAllPropertiesAlsoEmptyOnes) {
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

TEST_F(TrayItem, SendsPixelsAsArgb) {
  auto image = std::make_shared<Image>();
  image->bitmaps.push_back({2, 1, {1, 2, 3, 4, 250, 0, 128, 255}});
  item->setButton(makeButton(image, "tip"));
  EXPECT_EQ(host->property("IconPixmap"), "a(iiay) [(2, 1, [4, 1, 2, 3, 255, 250, 0, 128])]");
}

TEST_F(TrayItem, SignalsOnlyWhatChanged) {
  StatusButton button = makeButton(makeTestImage(1, 10, 20, 30), "tip");
  const auto newsOf = [&] {
    item->setButton(button);
    return host->news();
  };
  EXPECT_EQ(newsOf(), (News{"NewIcon", "NewToolTip"}));
  button.image = makeTestImage(1, 10, 20, 30);
  EXPECT_EQ(newsOf(), News{}) << "the pixels are the same";
  button.image = makeTestImage(1, 40, 50, 60);
  EXPECT_EQ(newsOf(), News{"NewIcon"});
  EXPECT_EQ(host->property("IconPixmap"), "a(iiay) [(1, 1, [255, 40, 50, 60])]");
  button.accessibilityLabel = "R&D < all_of_it";
  EXPECT_EQ(newsOf(), News{"NewIcon"});
  EXPECT_EQ(host->property("IconAccessibleDesc"), "s 'R&D < all_of_it'");
  button.toolTip = "<b>R&D</b>";
  EXPECT_EQ(newsOf(), News{"NewToolTip"});
  EXPECT_EQ(host->property("ToolTip"), "(sa(iiay)ss) ('', [], '＜b>R＆D＜/b>', '')");
  button = {};
  EXPECT_EQ(newsOf(), (News{"NewIcon", "NewToolTip"}));
  EXPECT_EQ(host->property("IconPixmap"), "a(iiay) []");
  EXPECT_EQ(host->property("ToolTip"), "(sa(iiay)ss) ('', [], '', '')");
  EXPECT_EQ(host->property("IconAccessibleDesc"), "s ''");
}

TEST_F(TrayItem, CountsEveryButtonAsAClick) {
  int expected = 0;
  for (const char* const method : {"Activate", "SecondaryActivate", "ContextMenu"}) {
    EXPECT_EQ(textOf(host->call(TrayHost::itemPath, TrayHost::itemInterface, method, "ii", 3, 4)), "");
    settleQueue(loop);
    EXPECT_EQ(clicks, ++expected) << method;
  }
}

TEST_F(TrayItem, IgnoresScroll) {
  EXPECT_EQ(textOf(host->call(TrayHost::itemPath, TrayHost::itemInterface, "Scroll", "is", 120, "vertical")),
            "");
  settleQueue(loop);
  EXPECT_EQ(clicks, 0);
  EXPECT_EQ(host->news(), News{});
}

TEST_F(TrayItem, PassesTheActivationTokenOn) {
  EXPECT_EQ(textOf(host->call(TrayHost::itemPath, TrayHost::itemInterface, "ProvideXdgActivationToken", "s",
                              "token")),
            "");
  EXPECT_EQ(lastToken, "token");
}

}  // namespace
}  // namespace kestrune::testing
