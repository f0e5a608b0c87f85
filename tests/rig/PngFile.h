#pragma once

#include <png.h>

#include <stdexcept>
#include <string>

#include "ports/Image.h"

namespace kestrune::testing {

/// Returns the bytes of a PNG file with these pixels.
inline std::string pngOf(const Bitmap& bitmap) {
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
inline Bitmap makePattern(int width, int height) {
  Bitmap bitmap{width, height, {}};
  for (int at = 0; at < width * height; ++at) {
    for (const int channel : {at * 7, at * 13 + 100, 255 - at, 255 - at % 3 * 100}) {
      bitmap.rgba.push_back(static_cast<std::uint8_t>(channel));
    }
  }
  return bitmap;
}

}  // namespace kestrune::testing
