#pragma once

#include <string>
#include <vector>

#include "ports/Image.h"

namespace kestrune {

/// Images from PNG files, and from icon files (ICNS) that hold PNGs. A file "name.png" is drawn for one pixel
/// a point; "name-N.png" beside it is the same picture, N pixels wide.
class PngImages final : public Images {
 public:
  /// `dataFolders` are where the desktop keeps its icons, the most important first.
  explicit PngImages(std::vector<std::string> dataFolders);

  ImageRef imageFromFile(const std::string& path) override;
  ImageRef imageNamed(const std::string& name) override;
  ImageRef applyColorControls(const Image& image, const ColorControls& controls) override;

 private:
  const std::vector<std::string> dataFolders;
};

}  // namespace kestrune
