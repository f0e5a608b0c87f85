#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrune {

/// Pixels, row by row from the top left, four bytes each: red, green, blue, alpha (not premultiplied).
struct Bitmap {
  int width = 0;
  int height = 0;
  std::vector<std::uint8_t> rgba;

  bool operator==(const Bitmap&) const = default;
};

/// A picture of one size in points, drawn at one or more resolutions, the smallest first. Never without a
/// bitmap.
struct Image {
  double width = 0;        ///< points
  double height = 0;       ///< points
  bool isTemplate = true;  ///< tinted by the bar it stands in, instead of keeping its own colours
  std::vector<Bitmap> bitmaps;

  bool operator==(const Image&) const = default;
};

/// Images are shared between the controller's caches and the button, so that a face can tell "the same"
/// cheaply.
using ImageRef = std::shared_ptr<Image>;

/// A colour filter: saturation 0 is grey, 1 leaves the colours; brightness is added; contrast 1 changes
/// nothing.
struct ColorControls {
  double saturation = 1;
  double brightness = 0;
  double contrast = 1;

  bool operator==(const ColorControls&) const = default;
};

/// Reads and filters images. Behind a port because decoders and icon themes belong to the host. Main thread.
class Images {
 public:
  virtual ~Images() = default;

  /// The image in the file at `path`, together with its other resolutions that lie beside it. Null when the
  /// file cannot be read or holds no image that this host knows.
  virtual ImageRef imageFromFile(const std::string& path) = 0;

  /// The image that the desktop knows by `name`; null when it knows none.
  virtual ImageRef imageNamed(const std::string& name) = 0;

  /// A filtered copy; null when it cannot be made.
  virtual ImageRef applyColorControls(const Image& image, const ColorControls& controls) = 0;
};

}  // namespace kestrune
