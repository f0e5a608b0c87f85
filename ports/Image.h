#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrune {

/// Pixels in rows from the top left, four bytes each: red, green, blue, alpha (not premultiplied).
struct Bitmap {
  int width = 0;
  int height = 0;
  std::vector<std::uint8_t> rgba;

  bool operator==(const Bitmap&) const = default;
};

/// A picture of one size in points, at one or more resolutions, the smallest first. Has at least one bitmap.
struct Image {
  double width = 0;        ///< points
  double height = 0;       ///< points
  bool isTemplate = true;  ///< the status bar tints it instead of keeping its colours
  std::vector<Bitmap> bitmaps;

  bool operator==(const Image&) const = default;
};

/// Shared between the controller's caches and the button, so that a face can compare pointers.
using ImageRef = std::shared_ptr<Image>;

/// A colour filter: saturation 0 is grey, 1 leaves the colours; brightness is added; contrast 1 changes
/// nothing.
struct ColorControls {
  double saturation = 1;
  double brightness = 0;
  double contrast = 1;

  bool operator==(const ColorControls&) const = default;
};

/// Reads and filters images. Main thread.
class Images {
 public:
  virtual ~Images() = default;

  /// The image in the file at `path`, with the other resolutions in the same folder. Null when the file
  /// cannot be read or decoded.
  virtual ImageRef imageFromFile(const std::string& path) = 0;

  /// The icon `name` of the desktop's icon theme; null when there is none.
  virtual ImageRef imageNamed(const std::string& name) = 0;

  /// A filtered copy; null when it cannot be made.
  virtual ImageRef applyColorControls(const Image& image, const ColorControls& controls) = 0;
};

}  // namespace kestrune
