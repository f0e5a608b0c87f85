#include "adapters/pictures/QRSymbols.h"

#include <qrencode.h>

#include <climits>
#include <memory>
#include <optional>

namespace kestrune {

namespace {

constexpr int quietZone = 4;  // the white border on each side, in modules (squares of the code)
constexpr std::size_t bytesPerPixel = 4;
constexpr std::uint8_t white = 255;
constexpr std::uint8_t black = 0;

/// Returns the QR code of `message`, one pixel per module. Absent when `message` is too long for this error
/// correction `level`.
std::optional<Bitmap> symbolFor(const std::string& message, QRecLevel level) {
  constexpr int anyVersion = 0;
  const std::unique_ptr<QRcode, decltype(&QRcode_free)> symbol(
      QRcode_encodeData(static_cast<int>(message.size()),
                        reinterpret_cast<const unsigned char*>(message.data()), anyVersion, level),
      &QRcode_free);
  if (!symbol) return std::nullopt;

  const auto width = static_cast<std::size_t>(symbol->width);
  const std::size_t side = width + std::size_t{2} * quietZone;
  Bitmap bitmap{static_cast<int>(side), static_cast<int>(side), {}};
  bitmap.rgba.assign(bytesPerPixel * side * side, white);
  for (std::size_t row = 0; row < width; ++row) {
    for (std::size_t column = 0; column < width; ++column) {
      if ((symbol->data[row * width + column] & 1) == 0) continue;
      const std::size_t at = bytesPerPixel * ((row + quietZone) * side + column + quietZone);
      bitmap.rgba[at] = bitmap.rgba[at + 1] = bitmap.rgba[at + 2] = black;
    }
  }
  return bitmap;
}

}  // namespace

std::vector<Bitmap> QRSymbols::generate(const std::string& message) {
  if (message.size() > INT_MAX) return {};
  const auto usual = symbolFor(message, QR_ECLEVEL_M);
  if (!usual) return {};
  const auto compact = symbolFor(message, QR_ECLEVEL_L);
  return compact->width < usual->width ? std::vector{*compact, *usual} : std::vector{*usual};
}

}  // namespace kestrune
