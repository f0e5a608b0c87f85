#pragma once

#include <string>
#include <utility>
#include <vector>

#include "ports/Image.h"

namespace kestrune {

/// Reads images from PNG files and from ICNS files that contain PNGs. "name.png" has one pixel per point. An
/// optional "name-N.png" beside it is the same picture, N pixels wide; N is 16, 22, 24, 32, 44, 48 or 64.
/// Makes QR codes with libqrencode.
class PngImages final : public Images {
 public:
  /// `imageNamed` searches `dataFolders` in this order. In each folder, it looks into the icon theme hicolor
  /// (icons/hicolor/). If the theme lacks the icon, it looks into pixmaps/.
  explicit PngImages(std::vector<std::string> folders) : dataFolders(std::move(folders)) {}

  ImageRef imageFromFile(const std::string& path) override;
  ImageRef imageNamed(const std::string& name) override;
  ImageRef applyColorControls(const Image& image, const ColorControls& controls) override;
  std::vector<Bitmap> qrCode(const std::string& message) override;

 private:
  const std::vector<std::string> dataFolders;
};

}  // namespace kestrune
