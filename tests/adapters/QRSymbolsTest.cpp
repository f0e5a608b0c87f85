#include <gtest/gtest.h>

#include <array>
#include <fstream>
#include <set>

#include "adapters/pictures/QRSymbols.h"
#include "tests/rig/OutputOf.h"
#include "tests/rig/ScratchFolder.h"

namespace kestrune::testing {
namespace {

using Pixel = std::array<std::uint8_t, 4>;

Pixel pixel(const Bitmap& bitmap, int column, int row) {
  const auto at = 4 * (static_cast<std::size_t>(row) * static_cast<std::size_t>(bitmap.width) +
                       static_cast<std::size_t>(column));
  return {bitmap.rgba[at], bitmap.rgba[at + 1], bitmap.rgba[at + 2], bitmap.rgba[at + 3]};
}

constexpr Pixel black{0, 0, 0, 255};
constexpr Pixel white{255, 255, 255, 255};

/// Returns the message that zbarimg, a QR code reader, finds in `bitmap`. Magnifies `bitmap` as on a screen.
std::string readBack(const Bitmap& bitmap) {
  constexpr int scale = 4;
  const ScratchFolder folder;
  const std::string file = folder.file("symbol.pgm");
  std::ofstream picture(file, std::ios::binary);
  picture << "P5\n" << bitmap.width * scale << " " << bitmap.height * scale << "\n255\n";
  for (int row = 0; row < bitmap.height * scale; ++row) {
    for (int column = 0; column < bitmap.width * scale; ++column) {
      picture << static_cast<char>(pixel(bitmap, column / scale, row / scale)[0]);
    }
  }
  picture.close();
  return outputOf("zbarimg --nodbus --quiet --raw -Sbinary " + file);
}

struct QRSymbolsTest : ::testing::Test {
  QRSymbols symbols;
};

TEST_F(QRSymbolsTest, AreBlackOnWhiteWithAQuietZone) {
  const Bitmap bitmap = symbols.generate("kestrune://configure?apiUrl=a&token=b").at(0);
  EXPECT_EQ(bitmap.width, bitmap.height);
  // A symbol of version V is 17 + 4 V modules wide. The quiet zone (white margin) adds 4 on each side.
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

TEST_F(QRSymbolsTest, AreDecodedWhateverTheMessageAndItsLength) {
  std::vector<std::string> messages{"a", "0123456789", "ABC 123", "a%2Bb%3D%26", "$'()*,;:@/-._~!"};
  for (std::size_t length = 60; length < 2331; length += 211) messages.emplace_back(length, 't');
  for (const auto& message : messages) {
    for (const auto& bitmap : symbols.generate(message)) EXPECT_EQ(readBack(bitmap), message);
  }
}

TEST_F(QRSymbolsTest, AreOfLevelMAfterOneOfLevelLIfThatIsSmaller) {
  const auto widths = [this](std::size_t length) {
    std::vector<int> found;
    for (const auto& each : symbols.generate(std::string(length, 'a'))) found.push_back(each.width - 8);
    return found;
  };
  // Version 5 (37 modules wide; version 6: 41) holds 84 bytes with error correction level M, 106 with level
  // L.
  EXPECT_EQ(widths(84), std::vector{37});
  EXPECT_EQ(widths(85), (std::vector{37, 41}));
  EXPECT_EQ(widths(106), (std::vector{37, 41}));
}

TEST_F(QRSymbolsTest, HoldAtMost2331Bytes) {
  // Version 40, the largest, holds 2331 bytes with level M. Letters and digits are also encoded as bytes.
  constexpr std::size_t most = 2331;
  for (const char letter : {'a', '1'}) {
    EXPECT_EQ(symbols.generate(std::string(most, letter)).back().width, 177 + 8);
    EXPECT_TRUE(symbols.generate(std::string(most + 1, letter)).empty());
  }
  EXPECT_TRUE(symbols.generate("").empty());
}

}  // namespace
}  // namespace kestrune::testing
