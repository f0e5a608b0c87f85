#include "adapters/pictures/PngImages.h"

#include <png.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <optional>
#include <string_view>
#include <utility>

#include "adapters/system/WholeFile.h"

namespace kestrune {

namespace {

constexpr std::array sizes{22, 16, 24, 32,
                           44, 48, 64};  // pixels; the first size that a theme has is the image's size
constexpr unsigned largestSide = 1024;   // pixels; larger pictures are refused
constexpr std::string_view icnsSignature = "icns";
constexpr std::size_t icnsHeader = 8;  // bytes; four letters and the big-endian length of header and content

std::optional<Bitmap> decodePng(std::string_view bytes) {
  png_image reader{};
  reader.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_memory(&reader, bytes.data(), bytes.size())) return std::nullopt;
  if (reader.width > largestSide || reader.height > largestSide) {
    png_image_free(&reader);
    return std::nullopt;
  }
  reader.format = PNG_FORMAT_RGBA;
  Bitmap bitmap{static_cast<int>(reader.width), static_cast<int>(reader.height), {}};
  bitmap.rgba.resize(PNG_IMAGE_SIZE(reader));
  if (!png_image_finish_read(&reader, nullptr, bitmap.rgba.data(), 0, nullptr)) return std::nullopt;
  return bitmap;
}

std::size_t bigEndian(std::string_view bytes) {
  std::size_t value = 0;
  for (const char byte : bytes) value = value << 8 | static_cast<unsigned char>(byte);
  return value;
}

/// Returns the PNGs in an ICNS file. Pictures in its older formats, which are smaller, are skipped.
std::vector<Bitmap> decodeIcns(std::string_view bytes) {
  std::vector<Bitmap> bitmaps;
  bytes = bytes.substr(icnsHeader);
  while (bytes.size() > icnsHeader) {
    const std::size_t length = bigEndian(bytes.substr(4, 4));
    if (length <= icnsHeader || length > bytes.size()) break;
    if (auto bitmap = decodePng(bytes.substr(icnsHeader, length - icnsHeader)))
      bitmaps.push_back(std::move(*bitmap));
    bytes.remove_prefix(length);
  }
  return bitmaps;
}

std::vector<Bitmap> decodeFile(const std::string& path) {
  std::string bytes;
  if (readWholeFile(path, bytes)) return {};
  if (bytes.starts_with(icnsSignature) && bytes.size() > icnsHeader) return decodeIcns(bytes);
  auto bitmap = decodePng(bytes);
  return bitmap ? std::vector{std::move(*bitmap)} : std::vector<Bitmap>();
}

/// Returns an image with as many points as the first bitmap has pixels; null if there are no bitmaps.
ImageRef makeImage(std::vector<Bitmap> bitmaps) {
  if (bitmaps.empty()) return nullptr;
  auto image = std::make_shared<Image>();
  image->width = bitmaps.front().width;
  image->height = bitmaps.front().height;
  std::stable_sort(bitmaps.begin(), bitmaps.end(),
                   [](const Bitmap& a, const Bitmap& b) { return a.width < b.width; });
  image->bitmaps = std::move(bitmaps);
  return image;
}

std::uint8_t toByte(double value) {
  return static_cast<std::uint8_t>(std::lround(std::clamp(value, 0.0, 1.0) * 255));
}

}  // namespace

PngImages::PngImages(std::vector<std::string> folders) : dataFolders(std::move(folders)) {}

ImageRef PngImages::imageFromFile(const std::string& path) {
  auto bitmaps = decodeFile(path);
  if (bitmaps.empty()) return nullptr;
  const std::filesystem::path file(path);
  for (const int size : sizes) {
    const std::string name = file.stem().string() + "-" + std::to_string(size) + file.extension().string();
    auto more = decodeFile(file.parent_path() / name);
    std::move(more.begin(), more.end(), std::back_inserter(bitmaps));
  }
  return makeImage(std::move(bitmaps));
}

ImageRef PngImages::imageNamed(const std::string& name) {
  if (name.find('/') != std::string::npos) return nullptr;
  for (const auto& folder : dataFolders) {
    std::vector<Bitmap> bitmaps;
    for (const int size : sizes) {
      const std::string side = std::to_string(size);
      auto more = decodeFile(folder + "/icons/hicolor/" + side + "x" + side + "/apps/" + name + ".png");
      std::move(more.begin(), more.end(), std::back_inserter(bitmaps));
    }
    if (bitmaps.empty()) bitmaps = decodeFile(folder + "/pixmaps/" + name + ".png");
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
        pixel[channel] = toByte((saturated - 0.5) * controls.contrast + 0.5 + controls.brightness);
      }
    }
  }
  return filtered;
}

}  // namespace kestrune
