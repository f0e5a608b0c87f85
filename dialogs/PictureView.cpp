#include "dialogs/PictureView.h"

#include <QPainter>
#include <algorithm>
#include <cmath>

#include "dialogs/PlainText.h"

namespace kestrune::dialogs {

namespace {

constexpr int bytesPerPixel = 4;

int wholePixels(double points) {
  return static_cast<int>(std::lround(points));
}

}  // namespace

PictureView::PictureView(const View& view, QWidget* parent) : QLabel(parent), source(view.image) {
  for (const auto& bitmap : source->bitmaps) {
    images.emplace_back(bitmap.rgba.data(), bitmap.width, bitmap.height, bytesPerPixel * bitmap.width,
                        QImage::Format_RGBA8888);
  }
  const double width = view.width > 0 ? view.width : source->width;
  const double height = view.height > 0 ? view.height : source->height;
  setFixedSize(wholePixels(width), wholePixels(height));
  // Never painted: a QLabel with a pixmap is a picture to screen readers.
  setPixmap(QPixmap(1, 1));
  setAccessibleName(readableLine(view.accessibilityLabel));
}

void PictureView::paintEvent(QPaintEvent*) {
  const QSizeF room = size();
  const QSizeF fitting = QSizeF(images.front().size()).scaled(room, Qt::KeepAspectRatio);
  const double needed = fitting.width() * devicePixelRatioF();
  const auto enough = std::find_if(images.begin(), images.end(),
                                   [needed](const QImage& image) { return image.width() >= needed - 0.5; });
  const QImage& image = enough != images.end() ? *enough : images.back();

  QPainter painter(this);
  // Smooth only when shrinking: smooth enlarging would blur the edges of a QR code.
  painter.setRenderHint(QPainter::SmoothPixmapTransform, image.width() > needed + 0.5);
  const QPointF corner((room.width() - fitting.width()) / 2, (room.height() - fitting.height()) / 2);
  painter.drawImage(QRectF(corner, fitting), image);
}

}  // namespace kestrune::dialogs
