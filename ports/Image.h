#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kestrune {

/// Pixels in rows, from the top left. Each pixel is four bytes: red, green, blue, alpha (not premultiplied).
struct Bitmap {
  int width = 0;
  int height = 0;
  std::vector<std::uint8_t> rgba;

  bool operator==(const Bitmap&) const = default;
};

/// A picture. `width` and `height` are in points (1 point is about 1 logical pixel). `bitmaps` holds the
/// picture at one or more resolutions, the smallest first.
struct Image {
  double width = 0;
  double height = 0;
  bool isTemplate = true;  ///< true: the status bar replaces the image's colours
  std::vector<Bitmap> bitmaps;

  bool operator==(const Image&) const = default;
};

/// An image, or null. A struct that contains an `ImageRef` compares the pointer, not the pixels.
using ImageRef = std::shared_ptr<Image>;

/// A colour filter; the default values change nothing. Saturation 0 makes the image grey. Contrast multiplies
/// the distance of red, green and blue from medium grey. Brightness is added to red, green and blue; 1 stands
/// for full intensity.
struct ColorControls {
  double saturation = 1;
  double brightness = 0;
  double contrast = 1;

  bool operator==(const ColorControls&) const = default;
};

/// Reads and filters images, and makes QR codes. Main thread.
class Images {
 public:
  virtual ~Images() = default;

  /// Returns the image in the file at `path`; null when this file cannot be read or decoded. The image's
  /// `bitmaps` also hold the picture at other resolutions, from files in the same folder.
  virtual ImageRef imageFromFile(const std::string& path) = 0;

  /// Returns the icon `name` of the desktop's icon theme; null when the theme has no such icon.
  virtual ImageRef imageNamed(const std::string& name) = 0;

  /// Returns a filtered copy of `image`; null when the copy cannot be made.
  virtual ImageRef applyColorControls(const Image& image, const ColorControls& controls) = 0;

  /// Makes QR codes of the bytes of `message` in byte mode. Returns two symbols if the symbol with
  /// error-correction level L is smaller than the symbol with level M (L first, for a small screen);
  /// otherwise only M. Each bitmap has one pixel for each module, black on white, and a quiet zone (white
  /// margin) of four modules. Empty when the message is too long for level M or cannot be encoded.
  virtual std::vector<Bitmap> qrCode(const std::string& message) = 0;
};

}  // namespace kestrune
