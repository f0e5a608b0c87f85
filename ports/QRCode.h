#pragma once

#include <string>
#include <vector>

#include "ports/Image.h"

namespace kestrune {

/// Encodes QR symbols. Main thread.
class QRCodeGenerator {
 public:
  virtual ~QRCodeGenerator() = default;

  /// Encodes the bytes of `message` in byte mode. Each bitmap is a symbol with one pixel for each module,
  /// black on white, and a quiet zone (white margin) of four modules. The last bitmap is the symbol with
  /// error-correction level M. If the symbol with level L is smaller, it comes first, for a screen that is
  /// too small for level M. Empty when the message is too long for level M or cannot be encoded.
  virtual std::vector<Bitmap> generate(const std::string& message) = 0;
};

}  // namespace kestrune
