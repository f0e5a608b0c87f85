#include <png.h>

#include <set>
#include <stdexcept>

#include "adapters/pictures/Pictures.h"
#include "tests/rig/FileTest.h"
#include "tests/rig/OutputOf.h"

namespace kestrune::testing {
namespace {

using namespace std::string_literals;

const std::string resources = SOURCE_FOLDER "/resources/";

/// Returns the bytes of a PNG file with these pixels.
std::string pngOf(const Bitmap& bitmap) {
  png_image writer{};
  writer.version = PNG_IMAGE_VERSION;
  writer.width = static_cast<png_uint_32>(bitmap.width);
  writer.height = static_cast<png_uint_32>(bitmap.height);
  writer.format = PNG_FORMAT_RGBA;
  png_alloc_size_t size = 0;
  png_image_write_to_memory(&writer, nullptr, &size, 0, bitmap.rgba.data(), 0, nullptr);
  std::string bytes(size, '\0');
  if (!png_image_write_to_memory(&writer, bytes.data(), &size, 0, bitmap.rgba.data(), 0, nullptr)) {
    throw std::runtime_error(writer.message);
  }
  return bytes;
}

/// Makes a bitmap in which every pixel differs from its neighbours.
Bitmap makePattern(int width, int height) {
  Bitmap bitmap{width, height, {}};
  for (int at = 0; at < width * height; ++at) {
    for (const int channel : {at * 7, at * 13 + 100, 255 - at, 255 - at % 3 * 100}) {
      bitmap.rgba.push_back(static_cast<std::uint8_t>(channel));
    }
  }
  return bitmap;
}

struct Png : FileTest {
  PngImages images{{folder.file("own"), folder.file("shared")}};

  std::string put(const std::string& name, const std::string& bytes) const {
    const std::string path = folder.file(name);
    fs::create_directories(fs::path(path).parent_path());
    testing::put(path, bytes);
    return path;
  }
  std::string put(const std::string& name, int side) const {
    return put(name, pngOf(makePattern(side, side)));
  }

  static std::vector<int> widths(const ImageRef& image) {
    std::vector<int> found;
    for (const auto& each : image->bitmaps) found.push_back(each.width);
    return found;
  }
};

TEST_F(Png, ReadsTheLogoWithAllResolutions) {
  const ImageRef logo = images.imageFromFile(resources + "codex-menubar.png");
  ASSERT_NE(logo, nullptr);
  EXPECT_EQ(widths(logo), (std::vector{16, 22, 24, 32, 44, 48, 64}));
  EXPECT_EQ(logo->width, 22);
  EXPECT_EQ(logo->height, 22);
  for (const auto& each : logo->bitmaps) {
    EXPECT_EQ(each.height, each.width);
    EXPECT_EQ(each.rgba.size(), static_cast<std::size_t>(each.width * each.height * 4));
  }
}

TEST_F(Png, MatchesTheFilterInTheGreyLogo) {
  const ImageRef logo = images.imageFromFile(resources + "codex-menubar.png");
  const ImageRef file = images.imageFromFile(resources + "codex-menubar-grey.png");
  ASSERT_TRUE(logo && file);
  ASSERT_EQ(widths(file), std::vector{22});
  const ImageRef grey = images.applyColorControls(*logo, {.saturation = 0});
  const auto& expected = grey->bitmaps.at(1).rgba;
  const auto& rgba = file->bitmaps.front().rgba;
  ASSERT_EQ(rgba.size(), expected.size());
  int farthest = 0;
  for (std::size_t at = 0; at < rgba.size(); ++at) {
    if (expected[at | 3U] > 0) farthest = std::max(farthest, std::abs(rgba[at] - expected[at]));
  }
  EXPECT_LE(farthest, 3) << "half-transparent pixels are rounded otherwise";
}

TEST_F(Png, ReadsEveryPixel) {
  // The first pixel is half transparent, and the second is fully transparent. The colours of both must be
  // read unchanged.
  const Bitmap pixels{2, 1, {200, 100, 50, 128, 0, 255, 0, 0}};
  const ImageRef image = images.imageFromFile(put("pixels.png", pngOf(pixels)));
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(image->bitmaps, std::vector{pixels});
  EXPECT_EQ(image->width, 2);
  EXPECT_EQ(image->height, 1);
  image->width = 11;
  EXPECT_EQ(images.imageFromFile(folder.file("pixels.png"))->width, 2) << "each reader has its own";
}

TEST_F(Png, AddsOtherResolutionsInTheFolder) {
  put("logo.png", 22);
  put("logo-44.png", 44);
  put("logo-16.png", 16);
  put("logo-dark.png", 30);
  put("logo-64.bmp", 33);
  put("logo-48.png", std::string("no image"));
  fs::create_directory(folder.file("logo-24.png"));
  const ImageRef image = images.imageFromFile(folder.file("logo.png"));
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(widths(image), (std::vector{16, 22, 44}));
  EXPECT_EQ(image->width, 22);
}

TEST_F(Png, IsNullForAFileWithoutAnImage) {
  const std::string logo = contentsOf(resources + "codex-menubar.png");
  ASSERT_GT(logo.size(), 200U);
  EXPECT_EQ(images.imageFromFile(put("garbage.png", std::string(5000, 'x'))), nullptr);
  fs::create_directory(folder.file("folder.png"));
  for (const auto& path :
       {folder.file("folder.png"), resources + "codex-menubar.svg", folder.file("none.png"), ""s})
    EXPECT_EQ(images.imageFromFile(path), nullptr) << path;
  for (std::size_t size = 0; size < logo.size() - 100; size += 7)
    EXPECT_EQ(images.imageFromFile(put("cut.png", logo.substr(0, size))), nullptr) << size;
}

TEST_F(Png, IsNullForAnImageWiderOrHigherThan1024) {
  EXPECT_EQ(widths(images.imageFromFile(put("large.png", pngOf(makePattern(1024, 1))))), std::vector{1024});
  EXPECT_EQ(images.imageFromFile(put("wide.png", pngOf(makePattern(1025, 1)))), nullptr);
  EXPECT_EQ(images.imageFromFile(put("high.png", pngOf(makePattern(1, 1025)))), nullptr);
}

// --- ICNS files (Apple's icon files)

std::string bigEndian(std::size_t value) {
  std::string bytes;
  for (int shift = 24; shift >= 0; shift -= 8) bytes.push_back(static_cast<char>(value >> shift));
  return bytes;
}

/// Returns a part of an ICNS file: type, length and contents. A part of the type "icns" is a whole file.
std::string icns(const std::string& type, const std::string& contents) {
  return type + bigEndian(contents.size() + 8) + contents;
}

TEST_F(Png, ReadsAllPngsInAnIcnsFile) {
  const std::string bytes =
      icns("icns", icns("TOC ", "whatever") + icns("ic07", pngOf(makePattern(32, 32))) +
                       icns("is32", std::string(100, 'r')) + icns("icp4", pngOf(makePattern(16, 16))));
  const ImageRef image = images.imageFromFile(put("icon.icns", bytes));
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(widths(image), (std::vector{16, 32}));
  EXPECT_EQ(image->bitmaps[1], makePattern(32, 32));
}

TEST_F(Png, IsNullForAnIcnsFileWithoutAPng) {
  const std::string part = icns("icp4", pngOf(makePattern(16, 16)));
  EXPECT_EQ(images.imageFromFile(put("a.icns", std::string("icns"))), nullptr);
  EXPECT_EQ(images.imageFromFile(put("b.icns", icns("icns", ""))), nullptr);
  EXPECT_EQ(images.imageFromFile(put("c.icns", icns("icns", icns("is32", "older kinds")))), nullptr);
  EXPECT_EQ(images.imageFromFile(put("d.icns", icns("icns", part.substr(0, part.size() / 2)))), nullptr);
  EXPECT_EQ(images.imageFromFile(put("e.icns", icns("icns", "icp4" + bigEndian(0xffffffff) + "x"))), nullptr);
  EXPECT_EQ(images.imageFromFile(put("f.icns", icns("icns", "icp4" + bigEndian(0) + part))), nullptr);
  // An image that comes before a damaged part is still used.
  EXPECT_NE(images.imageFromFile(put("g.icns", icns("icns", part + "ic07" + bigEndian(7) + "x"))), nullptr);
}

TEST_F(Png, OfAnIconIsFoundInAllItsSizes) {
  put("own/icons/hicolor/48x48/apps/Example.png", 48);
  put("own/icons/hicolor/16x16/apps/Example.png", 16);
  put("own/icons/hicolor/22x22/apps/Example.png", 22);
  const ImageRef image = images.imageNamed("Example");
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(widths(image), (std::vector{16, 22, 48}));
  EXPECT_EQ(image->width, 22);
}

TEST_F(Png, OfAnIconOfTheUserComesBeforeThatOfTheMachine) {
  put("shared/icons/hicolor/22x22/apps/Example.png", 22);
  EXPECT_EQ(widths(images.imageNamed("Example")), std::vector{22});
  put("own/icons/hicolor/32x32/apps/Example.png", 32);
  EXPECT_EQ(widths(images.imageNamed("Example")), std::vector{32});
  put("shared/pixmaps/Other.png", 40);
  EXPECT_EQ(widths(images.imageNamed("Other")), std::vector{40});
}

TEST_F(Png, OfAnIconIsNullIfThereIsNone) {
  put("own/icons/hicolor/22x22/apps/Example.png", std::string("no image"));
  EXPECT_EQ(images.imageNamed("Example"), nullptr);
  EXPECT_EQ(PngImages({}).imageNamed("Example"), nullptr);
  EXPECT_EQ(images.imageNamed(""), nullptr);
}

std::vector<std::uint8_t> filtered(const std::vector<std::uint8_t>& pixel, const ColorControls& controls) {
  PngImages images({});
  const Image image{2, 3, true, {{1, 1, {}}, {1, 1, pixel}}};
  const ImageRef copy = images.applyColorControls(image, controls);
  EXPECT_EQ(image.bitmaps[1].rgba, pixel);
  EXPECT_EQ(copy->width, 2);
  EXPECT_EQ(copy->height, 3);
  EXPECT_TRUE(copy->isTemplate);
  return copy->bitmaps.at(1).rgba;
}

using Pixel = std::vector<std::uint8_t>;

TEST(ColorControls, WeighTheColoursByTheirBrightness) {
  constexpr ColorControls grey{.saturation = 0};
  EXPECT_EQ(filtered({255, 0, 0, 255}, grey), (Pixel{54, 54, 54, 255}));     // the weight of red is 0.2125
  EXPECT_EQ(filtered({0, 255, 0, 200}, grey), (Pixel{182, 182, 182, 200}));  // the weight of green is 0.7154
  EXPECT_EQ(filtered({0, 0, 255, 0}, grey), (Pixel{18, 18, 18, 0}));         // the weight of blue is 0.0721
  EXPECT_EQ(filtered({255, 255, 255, 1}, grey), (Pixel{255, 255, 255, 1}));
  EXPECT_EQ(filtered({0, 0, 0, 255}, grey), (Pixel{0, 0, 0, 255}));
  EXPECT_EQ(filtered({10, 200, 120, 255}, grey), (Pixel{154, 154, 154, 255}));
}

TEST(ColorControls, ChangeNoShadeByDefault) {
  for (int shade = 0; shade < 256; ++shade) {
    const auto byte = static_cast<std::uint8_t>(shade);
    const auto other = static_cast<std::uint8_t>(255 - shade);
    EXPECT_EQ(filtered({byte, other, 128, byte}, {}), (Pixel{byte, other, 128, byte}));
  }
}

TEST(ColorControls, ChangeBrightnessContrastAndSaturationWithin0To255) {
  EXPECT_EQ(filtered({0, 100, 250, 7}, {.brightness = 0.2}), (Pixel{51, 151, 255, 7}));
  EXPECT_EQ(filtered({0, 100, 250, 7}, {.brightness = -0.2}), (Pixel{0, 49, 199, 7}));
  EXPECT_EQ(filtered({0, 255, 10, 7}, {.contrast = 0}), (Pixel{128, 128, 128, 7}));
  EXPECT_EQ(filtered({0, 255, 153, 7}, {.contrast = 2}), (Pixel{0, 255, 179, 7}));
  EXPECT_EQ(filtered({255, 0, 0, 255}, {.saturation = 0.5}), (Pixel{155, 27, 27, 255}));
}

Pixel pixel(const Bitmap& bitmap, int column, int row) {
  const auto at = 4 * (static_cast<std::size_t>(row) * static_cast<std::size_t>(bitmap.width) +
                       static_cast<std::size_t>(column));
  return {bitmap.rgba[at], bitmap.rgba[at + 1], bitmap.rgba[at + 2], bitmap.rgba[at + 3]};
}

const Pixel black{0, 0, 0, 255};
const Pixel white{255, 255, 255, 255};

struct QRCodesTest : ::testing::Test {
  PngImages images{std::vector<std::string>()};
};

TEST_F(QRCodesTest, AreBlackOnWhiteWithAQuietZone) {
  const Bitmap bitmap = images.qrCode("kestrune://configure?apiUrl=a&token=b").at(0);
  EXPECT_EQ(bitmap.width, bitmap.height);
  // A QR code of version V is 17 + 4 V modules wide. The quiet zone (white margin) adds 4 on each side.
  EXPECT_EQ((bitmap.width - 8 - 17) % 4, 0);
  std::set<Pixel> colours;
  for (int row = 0; row < bitmap.height; ++row) {
    for (int column = 0; column < bitmap.width; ++column) {
      const Pixel found = pixel(bitmap, column, row);
      colours.insert(found);
      const bool atTheEdge = std::min(row, column) < 4 || std::max(row, column) >= bitmap.width - 4;
      EXPECT_TRUE(!atTheEdge || found == white) << column << " " << row;
    }
  }
  EXPECT_EQ(colours, (std::set<Pixel>{black, white}));
  EXPECT_EQ(pixel(bitmap, 4, 4), black);
}

TEST_F(QRCodesTest, AreDecodedWhateverTheMessageAndItsLength) {
  std::vector<std::string> messages{"a", "0123456789", "ABC 123", "a%2Bb%3D%26", "$'()*,;:@/-._~!"};
  for (std::size_t length = 60; length < 2331; length += 421) messages.emplace_back(length, 't');
  for (const auto& message : messages) {
    for (const auto& bitmap : images.qrCode(message)) {
      std::vector<std::string> rows(static_cast<std::size_t>(bitmap.height));
      for (std::size_t at = 0; at < bitmap.rgba.size(); at += 4) {
        rows[at / 4 / static_cast<std::size_t>(bitmap.width)] += static_cast<char>(bitmap.rgba[at]);
      }
      EXPECT_EQ(scanned(rows), message);
    }
  }
}

TEST_F(QRCodesTest, AreOfLevelMAfterOneOfLevelLIfThatIsSmaller) {
  const auto widths = [this](std::size_t length) {
    std::vector<int> found;
    for (const auto& each : images.qrCode(std::string(length, 'a'))) found.push_back(each.width - 8);
    return found;
  };
  // Version 5 (37 modules wide) holds 84 bytes with error correction level M, and 106 bytes with level L. So
  // a text of 85 to 106 bytes gets two symbols: version 5 with level L, and version 6 (41 modules wide) with
  // level M.
  EXPECT_EQ(widths(84), std::vector{37});
  EXPECT_EQ(widths(85), (std::vector{37, 41}));
  EXPECT_EQ(widths(106), (std::vector{37, 41}));
}

TEST_F(QRCodesTest, HoldAtMost2331Bytes) {
  // Version 40, the largest, holds 2331 bytes with level M. It could hold more digits in numeric mode, but
  // every text is encoded in byte mode.
  constexpr std::size_t most = 2331;
  for (const char letter : {'a', '1'}) {
    EXPECT_EQ(images.qrCode(std::string(most, letter)).back().width, 177 + 8);
    EXPECT_TRUE(images.qrCode(std::string(most + 1, letter)).empty());
  }
  EXPECT_TRUE(images.qrCode("").empty());
}

}  // namespace
}  // namespace kestrune::testing
