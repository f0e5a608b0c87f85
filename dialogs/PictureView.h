#pragma once

#include <QImage>
#include <QLabel>
#include <vector>

#include "ports/View.h"

namespace kestrune::dialogs {

/// The picture of a view, in its own colours, at exactly the stated size and at the full resolution of the
/// screen. A label of the toolkit beneath, so that it is told as a picture.
class PictureView final : public QLabel {
 public:
  /// `view` has an image.
  explicit PictureView(const View& view, QWidget* parent = nullptr);

 protected:
  void paintEvent(QPaintEvent* event) override;

 private:
  ImageRef source;             ///< holds the pixels of the images below
  std::vector<QImage> images;  ///< the smallest first
};

}  // namespace kestrune::dialogs
