#include <gtest/gtest.h>

#include <filesystem>

#include "adapters/pictures/PngImages.h"
#include "tests/rig/FakePlatform.h"
#include "tests/rig/PngFile.h"
#include "tests/rig/ScratchFolder.h"

namespace kestrune::testing {
namespace {

struct FakeGallery {
  FakeImages images;

  std::string putFile(const Bitmap& bitmap) {
    images.files["/logo.png"] = imageOf(bitmap);
    return "/logo.png";
  }
  void putNamed(const std::string& name, const Bitmap& bitmap) { images.named[name] = imageOf(bitmap); }

 private:
  static ImageRef imageOf(const Bitmap& bitmap) {
    return std::make_shared<Image>(Image{double(bitmap.width), double(bitmap.height), true, {bitmap}});
  }
};

struct PngGallery {
  ScratchFolder folder;
  PngImages images{{folder.file("data")}};

  std::string putFile(const Bitmap& bitmap) {
    putBytes(folder.file("logo.png"), pngOf(bitmap));
    return folder.file("logo.png");
  }
  void putNamed(const std::string& name, const Bitmap& bitmap) {
    std::filesystem::create_directories(folder.file("data/icons/hicolor/22x22/apps"));
    putBytes(folder.file("data/icons/hicolor/22x22/apps/" + name + ".png"), pngOf(bitmap));
  }
};

template <typename Gallery>
struct ImagesContract : ::testing::Test, Gallery {};

using Galleries = ::testing::Types<FakeGallery, PngGallery>;
TYPED_TEST_SUITE(ImagesContract, Galleries);

TYPED_TEST(ImagesContract, ReadAFile) {
  const Bitmap logo = makePattern(22, 20);
  const ImageRef image = this->images.imageFromFile(this->putFile(logo));
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(image->bitmaps, std::vector{logo});
  EXPECT_EQ(image->width, 22);
  EXPECT_EQ(image->height, 20);
}

TYPED_TEST(ImagesContract, KnowNoFileThatIsMissing) {
  EXPECT_EQ(this->images.imageFromFile("/no/such/file.png"), nullptr);
  EXPECT_EQ(this->images.imageFromFile(""), nullptr);
}

TYPED_TEST(ImagesContract, GiveEachReaderAnImageOfItsOwn) {
  const std::string path = this->putFile(makePattern(22, 22));
  const ImageRef first = this->images.imageFromFile(path);
  first->isTemplate = false;
  first->width = 11;
  EXPECT_TRUE(this->images.imageFromFile(path)->isTemplate);
  EXPECT_EQ(this->images.imageFromFile(path)->width, 22);
}

TYPED_TEST(ImagesContract, FindWhatTheDesktopKnowsByName) {
  const Bitmap icon = makePattern(22, 22);
  this->putNamed("Example", icon);
  const ImageRef image = this->images.imageNamed("Example");
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(image->bitmaps, std::vector{icon});
  EXPECT_EQ(this->images.imageNamed("Other"), nullptr);
  EXPECT_EQ(this->images.imageNamed(""), nullptr);
}

TYPED_TEST(ImagesContract, FilterACopy) {
  const Image image{22, 20, false, {makePattern(22, 20), makePattern(44, 40)}};
  const Image before = image;
  const ImageRef grey = this->images.applyColorControls(image, {.saturation = 0});
  ASSERT_NE(grey, nullptr);
  EXPECT_EQ(image, before);
  EXPECT_NE(*grey, before);
}

TYPED_TEST(ImagesContract, MakeEveryPixelGreyAndKeepTheRest) {
  const Image image{22, 20, false, {makePattern(22, 20), makePattern(44, 40)}};
  const ImageRef grey = this->images.applyColorControls(image, {.saturation = 0});
  ASSERT_NE(grey, nullptr);
  EXPECT_EQ(grey->width, 22);
  EXPECT_EQ(grey->height, 20);
  EXPECT_FALSE(grey->isTemplate);
  ASSERT_EQ(grey->bitmaps.size(), 2U);
  for (std::size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(grey->bitmaps[i].width, image.bitmaps[i].width);
    EXPECT_EQ(grey->bitmaps[i].height, image.bitmaps[i].height);
    const auto& before = image.bitmaps[i].rgba;
    const auto& after = grey->bitmaps[i].rgba;
    ASSERT_EQ(after.size(), before.size());
    for (std::size_t at = 0; at < after.size(); at += 4) {
      ASSERT_EQ(after[at], after[at + 1]) << at;
      ASSERT_EQ(after[at], after[at + 2]) << at;
      ASSERT_EQ(after[at + 3], before[at + 3]) << at;
    }
  }
}

TYPED_TEST(ImagesContract, ChangeNothingWithControlsThatDoNothing) {
  const Image image{22, 20, true, {makePattern(22, 20), makePattern(44, 40)}};
  const ImageRef same = this->images.applyColorControls(image, {});
  ASSERT_NE(same, nullptr);
  EXPECT_EQ(*same, image);
}

}  // namespace
}  // namespace kestrune::testing
