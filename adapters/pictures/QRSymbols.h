#pragma once

#include "ports/Image.h"

namespace kestrune {

/// Makes QR codes with libqrencode.
class QRSymbols final : public QRCodeGenerator {
 public:
  std::vector<Bitmap> generate(const std::string& message) override;
};

}  // namespace kestrune
