#pragma once

#include "ports/QRCode.h"

namespace kestrune {

/// QR symbols by libqrencode.
class QRSymbols final : public QRCodeGenerator {
 public:
  std::vector<Bitmap> generate(const std::string& message) override;
};

}  // namespace kestrune
