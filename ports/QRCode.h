#pragma once

#include <optional>
#include <string>

#include "ports/Image.h"

namespace kestrune {

/// Encodes QR symbols. Main thread.
class QRCodeGenerator {
 public:
  virtual ~QRCodeGenerator() = default;

  /// The symbol for the bytes of `message`, in byte mode, with error-correction level M: one pixel for each
  /// module, black on white, with a quiet zone of four modules. Absent when the message is too long or cannot
  /// be encoded.
  virtual std::optional<Bitmap> generate(const std::string& message) = 0;
};

}  // namespace kestrune
