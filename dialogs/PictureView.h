#pragma once

#include <QImage>
#include <QLabel>
#include <vector>

#include "ports/View.h"

namespace kestrune::dialogs {

/// The picture of a view, in its own colours, at exactly the stated size and the screen's full resolution. A
/// QLabel, so that screen readers announce it as a picture.
class PictureView final : public QLabel {
 public:
  /// `view.image` is not null.
  explicit PictureView(const View& view, QWidget* parent = nullptr);

 protected:
  void paintEvent(QPaintEvent* event) override;

 private:
  ImageRef source;             ///< owns the pixels of `images`
  std::vector<QImage> images;  ///< by size, smallest first
};

}  // namespace kestrune::dialogs
