#include "adapters/pictures/Pictures.h"

#include <png.h>
#include <qrencode.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <memory>
#include <optional>
#include <string_view>

#include "adapters/system/System.h"

namespace kestrune {

constexpr std::array sizes{22, 16, 24, 32, 44, 48, 64};
constexpr unsigned largestSide = 1024;  // pixels; larger pictures are refused
constexpr std::size_t icnsHeader = 8;   // bytes; four letters and the big-endian length of header and content

constexpr std::size_t quietZone = 4;  // the white border on each side, in modules (squares of the code)
constexpr std::size_t bytesPerPixel = 4;

/// Adds the picture in a PNG to `bitmaps`. Skips a PNG that is damaged or too large.
static void addPng(std::vector<Bitmap>& bitmaps, std::string_view bytes) {
  png_image reader{};
  reader.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_memory(&reader, bytes.data(), bytes.size())) return;
  if (reader.width > largestSide || reader.height > largestSide) return png_image_free(&reader);
  reader.format = PNG_FORMAT_RGBA;
  Bitmap bitmap{static_cast<int>(reader.width), static_cast<int>(reader.height), {}};
  bitmap.rgba.resize(PNG_IMAGE_SIZE(reader));
  if (png_image_finish_read(&reader, nullptr, bitmap.rgba.data(), 0, nullptr))
    bitmaps.push_back(std::move(bitmap));
}

/// Adds the pictures in a PNG or ICNS file to `bitmaps`. In an ICNS file, reads only the PNG pictures.
static void addFile(std::vector<Bitmap>& bitmaps, const std::string& path) {
  std::string content;
  if (readWholeFile(path, content)) return;
  std::string_view rest = content;
  if (!rest.starts_with("icns") || rest.size() <= icnsHeader) return addPng(bitmaps, rest);
  rest.remove_prefix(icnsHeader);
  while (rest.size() > icnsHeader) {
    const std::size_t length = png_get_uint_32(reinterpret_cast<png_const_bytep>(rest.data()) + 4);
    if (length <= icnsHeader || length > rest.size()) return;
    addPng(bitmaps, rest.substr(icnsHeader, length - icnsHeader));
    rest.remove_prefix(length);
  }
}

/// Returns an image that contains all `bitmaps`; null if there are none. Its size in points equals the size
/// of the first bitmap in pixels.
static ImageRef makeImage(std::vector<Bitmap> bitmaps) {
  if (bitmaps.empty()) return nullptr;
  auto image = std::make_shared<Image>();
  image->width = bitmaps.front().width;
  image->height = bitmaps.front().height;
  std::ranges::stable_sort(bitmaps, {}, &Bitmap::width);
  image->bitmaps = std::move(bitmaps);
  return image;
}

/// Returns the QR code of `message` with its white border, one pixel per module. Absent when `message` is too
/// long for this error correction `level`.
static std::optional<Bitmap> symbolFor(const std::string& message, QRecLevel level) {
  constexpr int anyVersion = 0;
  const std::unique_ptr<QRcode, decltype(&QRcode_free)> symbol(
      QRcode_encodeData(static_cast<int>(message.size()),
                        reinterpret_cast<const unsigned char*>(message.data()), anyVersion, level),
      &QRcode_free);
  if (!symbol) return std::nullopt;

  const auto width = static_cast<std::size_t>(symbol->width);
  const std::size_t side = width + 2 * quietZone;
  Bitmap bitmap{static_cast<int>(side), static_cast<int>(side), {}};
  bitmap.rgba.assign(bytesPerPixel * side * side, 255);  // opaque white
  for (std::size_t module = 0; module < width * width; ++module) {
    if ((symbol->data[module] & 1) == 0) continue;
    const std::size_t row = quietZone + module / width;
    const std::size_t column = quietZone + module % width;
    std::fill_n(&bitmap.rgba[bytesPerPixel * (row * side + column)], 3, std::uint8_t{0});  // black
  }
  return bitmap;
}

ImageRef PngImages::imageFromFile(const std::string& path) {
  std::vector<Bitmap> bitmaps;
  addFile(bitmaps, path);
  if (bitmaps.empty()) return nullptr;
  const std::filesystem::path file(path);
  for (const int size : sizes) {
    const std::string name = file.stem().string() + "-" + std::to_string(size) + file.extension().string();
    addFile(bitmaps, file.parent_path() / name);
  }
  return makeImage(std::move(bitmaps));
}

ImageRef PngImages::imageNamed(const std::string& name) {
  for (const auto& folder : dataFolders) {
    std::vector<Bitmap> bitmaps;
    for (const int size : sizes) {
      const std::string side = std::to_string(size);
      addFile(bitmaps, folder + "/icons/hicolor/" + side + "x" + side + "/apps/" + name + ".png");
    }
    if (bitmaps.empty()) addFile(bitmaps, folder + "/pixmaps/" + name + ".png");
    if (auto image = makeImage(std::move(bitmaps))) return image;
  }
  return nullptr;
}

ImageRef PngImages::applyColorControls(const Image& image, const ColorControls& controls) {
  auto filtered = std::make_shared<Image>(image);
  for (auto& bitmap : filtered->bitmaps) {
    for (std::size_t at = 0; at + 3 < bitmap.rgba.size(); at += 4) {
      std::uint8_t* const pixel = &bitmap.rgba[at];
      const double grey = (0.2125 * pixel[0] + 0.7154 * pixel[1] + 0.0721 * pixel[2]) / 255;
      for (int channel = 0; channel < 3; ++channel) {
        const double saturated = grey + (pixel[channel] / 255.0 - grey) * controls.saturation;
        const double value = (saturated - 0.5) * controls.contrast + 0.5 + controls.brightness;
        pixel[channel] = static_cast<std::uint8_t>(std::lround(std::clamp(value, 0.0, 1.0) * 255));
      }
    }
  }
  return filtered;
}

std::vector<Bitmap> PngImages::qrCode(const std::string& message) {
  const auto usual = symbolFor(message, QR_ECLEVEL_M);
  if (!usual) return {};
  const auto compact = symbolFor(message, QR_ECLEVEL_L);
  return compact->width < usual->width ? std::vector{*compact, *usual} : std::vector{*usual};
}

}  // namespace kestrune
