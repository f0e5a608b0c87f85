#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

using Lamp = ConnectionLampState;
using Asked = std::vector<std::string>;

struct Logo : ControllerTest {
  void bundleHasPng() { addFile("codex-menubar.png", "/png", makeTestImage(44, 1, 2, 3)); }
  void desktopKnowsIcon() { machine.images.named["KestruneMacClient"] = makeTestImage(128, 4, 5, 6); }
  void bundleHasIcns() { addFile("KestruneMacClient.icns", "/icns", makeTestImage(512, 7, 8, 9)); }

  void addFile(const std::string& resource, const std::string& path, const ImageRef& image) {
    machine.mainBundle.resources[resource] = path;
    machine.images.files[path] = image;
  }

  /// The files and names that were asked for since this was called last.
  Asked newlyAsked() { return std::exchange(machine.images.asked, {}); }

  static void expectMenuBarSize(const ImageRef& image) {
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(image->width, 22);
    EXPECT_EQ(image->height, 22);
    EXPECT_FALSE(image->isTemplate);
  }
};

// --- candidates

TEST_F(Logo, ComesFromThePngOfTheBundleFirst) {
  bundleHasPng();
  desktopKnowsIcon();
  bundleHasIcns();
  const ImageRef logo = controller->baseMenuBarLogo();
  expectMenuBarSize(logo);
  EXPECT_EQ(logo->bitmaps, machine.images.files["/png"]->bitmaps);
  EXPECT_EQ(newlyAsked(), Asked{"/png"});
}

TEST_F(Logo, FromThePngIsACopy) {
  bundleHasPng();
  const ImageRef logo = controller->baseMenuBarLogo();
  ASSERT_EQ(machine.images.read.size(), 1U);
  EXPECT_NE(logo, machine.images.read[0]);
  EXPECT_EQ(*machine.images.read[0], *machine.images.files["/png"]);
}

TEST_F(Logo, ComesFromTheIconThatTheDesktopKnowsNext) {
  desktopKnowsIcon();
  bundleHasIcns();
  const ImageRef logo = controller->baseMenuBarLogo();
  expectMenuBarSize(logo);
  EXPECT_EQ(logo, machine.images.named["KestruneMacClient"]);
  EXPECT_EQ(newlyAsked(), Asked{"KestruneMacClient"});
}

TEST_F(Logo, ComesFromTheIcnsOfTheBundleLast) {
  bundleHasIcns();
  const ImageRef logo = controller->baseMenuBarLogo();
  expectMenuBarSize(logo);
  EXPECT_EQ(logo->bitmaps, machine.images.files["/icns"]->bitmaps);
  EXPECT_EQ(newlyAsked(), (Asked{"KestruneMacClient", "/icns"}));
}

TEST_F(Logo, PngThatCannotBeReadLetsTheNextCandidateHaveItsTurn) {
  bundleHasPng();
  machine.images.files.clear();
  desktopKnowsIcon();
  EXPECT_EQ(controller->baseMenuBarLogo(), machine.images.named["KestruneMacClient"]);
  EXPECT_EQ(newlyAsked(), (Asked{"/png", "KestruneMacClient"}));
}

TEST_F(Logo, IsAbsentWhenTheLastCandidateCannotBeRead) {
  bundleHasPng();
  bundleHasIcns();
  machine.images.files.clear();
  EXPECT_EQ(controller->baseMenuBarLogo(), nullptr);
  EXPECT_EQ(newlyAsked(), (Asked{"/png", "KestruneMacClient", "/icns"}));
}

TEST_F(Logo, IsAbsentWithoutAnyCandidate) {
  EXPECT_EQ(controller->baseMenuBarLogo(), nullptr);
  EXPECT_EQ(newlyAsked(), Asked{"KestruneMacClient"});
}

// --- grey copy

TEST_F(Logo, GreyCopyIsMadeByTakingAwayTheSaturation) {
  const ImageRef original = makeTestImage(44, 10, 20, 30);
  const Image before = *original;
  const ImageRef grey = controller->makeGrayscaleImage(*original);
  expectMenuBarSize(grey);
  EXPECT_EQ(grey->bitmaps, makeTestImage(44, 20, 20, 20)->bitmaps);
  EXPECT_EQ(machine.images.filtered,
            (std::vector<ColorControls>{{.saturation = 0.0, .brightness = 0.0, .contrast = 1.0}}));
  EXPECT_EQ(*original, before);
}

TEST_F(Logo, GreyCopyIsAbsentWhenTheFilterFails) {
  machine.images.filterFails = true;
  EXPECT_EQ(controller->makeGrayscaleImage(*makeTestImage(44, 10, 20, 30)), nullptr);
}

// --- connected

TEST_F(Logo, OfTheConnectedStateIsReadOnceAndTheSameObjectEachTime) {
  bundleHasPng();
  const ImageRef logo = controller->loadMenuBarLogo(Lamp::ok);
  ASSERT_NE(logo, nullptr);
  EXPECT_EQ(state.cachedConnectedLogo, logo);
  EXPECT_EQ(controller->loadMenuBarLogo(Lamp::ok), logo);
  EXPECT_EQ(newlyAsked(), Asked{"/png"});
  EXPECT_TRUE(machine.images.filtered.empty());
}

TEST_F(Logo, OfTheConnectedStateIsLookedUpAgainWhileItIsMissing) {
  EXPECT_EQ(controller->loadMenuBarLogo(Lamp::ok), nullptr);
  EXPECT_EQ(controller->loadMenuBarLogo(Lamp::ok), nullptr);
  EXPECT_EQ(newlyAsked(), (Asked{"KestruneMacClient", "KestruneMacClient"}));
  bundleHasPng();
  const ImageRef logo = controller->loadMenuBarLogo(Lamp::ok);
  ASSERT_NE(logo, nullptr);
  EXPECT_EQ(controller->loadMenuBarLogo(Lamp::ok), logo);
  EXPECT_EQ(newlyAsked(), Asked{"/png"});
}

// --- the other states

TEST_F(Logo, OfTheOtherStatesIsReadAndGreyedOnceAndTheSameObjectEachTime) {
  bundleHasPng();
  const ImageRef logo = controller->loadMenuBarLogo(Lamp::warning);
  expectMenuBarSize(logo);
  EXPECT_EQ(logo->bitmaps, makeTestImage(44, 2, 2, 2)->bitmaps);
  EXPECT_EQ(state.cachedDisconnectedLogo, logo);
  EXPECT_EQ(controller->loadMenuBarLogo(Lamp::error), logo);
  EXPECT_EQ(controller->loadMenuBarLogo(Lamp::warning), logo);
  EXPECT_EQ(newlyAsked(), Asked{"/png"});
  EXPECT_EQ(machine.images.filtered.size(), 1U);
}

TEST_F(Logo, OfEachKindIsReadOnceForItself) {
  bundleHasPng();
  const ImageRef colour = controller->loadMenuBarLogo(Lamp::ok);
  const ImageRef grey = controller->loadMenuBarLogo(Lamp::error);
  EXPECT_NE(colour, grey);
  EXPECT_EQ(newlyAsked(), (Asked{"/png", "/png"}));
  EXPECT_EQ(controller->loadMenuBarLogo(Lamp::ok), colour);
  EXPECT_EQ(controller->loadMenuBarLogo(Lamp::error), grey);
  EXPECT_EQ(newlyAsked(), Asked{});
}

TEST_F(Logo, OfTheOtherStatesFillsNotTheCacheOfTheConnectedOne) {
  bundleHasPng();
  controller->loadMenuBarLogo(Lamp::warning);
  EXPECT_EQ(state.cachedConnectedLogo, nullptr);
}

TEST_F(Logo, ThatCannotBeGreyedIsLookedUpASecondTimeAndShownInColour) {
  bundleHasPng();
  machine.images.filterFails = true;
  const ImageRef logo = controller->loadMenuBarLogo(Lamp::error);
  expectMenuBarSize(logo);
  EXPECT_EQ(logo->bitmaps, machine.images.files["/png"]->bitmaps);
  EXPECT_EQ(newlyAsked(), (Asked{"/png", "/png"}));
  EXPECT_EQ(machine.images.filtered.size(), 1U);
}

TEST_F(Logo, ThatCannotBeGreyedIsKeptNowhere) {
  bundleHasPng();
  machine.images.filterFails = true;
  controller->loadMenuBarLogo(Lamp::warning);
  EXPECT_EQ(state.cachedConnectedLogo, nullptr);
  EXPECT_EQ(state.cachedDisconnectedLogo, nullptr);
}

TEST_F(Logo, GreyingIsTriedAgainWithEveryRedrawUntilItWorks) {
  bundleHasPng();
  machine.images.filterFails = true;
  makeStatusItem();
  controller->updateButton(Lamp::warning, "Kestrune");
  controller->updateButton(Lamp::error, "Kestrune");
  EXPECT_EQ(machine.images.filtered.size(), 3U);
  EXPECT_EQ(machine.statusBar.button().image->bitmaps, machine.images.files["/png"]->bitmaps);
  machine.images.filterFails = false;
  controller->updateButton(Lamp::error, "Kestrune");
  EXPECT_EQ(machine.statusBar.button().image, state.cachedDisconnectedLogo);
  controller->updateButton(Lamp::warning, "Kestrune");
  EXPECT_EQ(machine.images.filtered.size(), 4U);
}

TEST_F(Logo, OfTheOtherStatesIsLookedUpTwiceWhenItIsMissing) {
  EXPECT_EQ(controller->loadMenuBarLogo(Lamp::warning), nullptr);
  EXPECT_EQ(newlyAsked(), (Asked{"KestruneMacClient", "KestruneMacClient"}));
  EXPECT_TRUE(machine.images.filtered.empty());
  EXPECT_EQ(state.cachedDisconnectedLogo, nullptr);
}

TEST_F(Logo, ButtonGetsTheCachedObjectEachTime) {
  bundleHasPng();
  makeStatusItem();
  controller->updateButton(Lamp::ok, "Kestrune");
  EXPECT_EQ(machine.statusBar.button().image, state.cachedConnectedLogo);
  controller->updateButton(Lamp::ok, "Kestrune");
  EXPECT_EQ(machine.statusBar.button().image, state.cachedConnectedLogo);
  controller->updateButton(Lamp::error, "Kestrune");
  EXPECT_EQ(machine.statusBar.button().image, state.cachedDisconnectedLogo);
}

}  // namespace
}  // namespace kestrune::testing
