#pragma once

#include <string>
#include <vector>

#include "ports/Image.h"

namespace kestrune {

/// Encodes QR symbols. Main thread.
class QRCodeGenerator {
 public:
  virtual ~QRCodeGenerator() = default;

  /// The symbol for the bytes of `message`, in byte mode, with error-correction level M: one pixel for each
  /// module, black on white, with a quiet zone of four modules. Before it, if it is smaller, the symbol with
  /// level L, for a screen where the other has no room. Empty when the message is too long or cannot be
  /// encoded with level M.
  virtual std::vector<Bitmap> generate(const std::string& message) = 0;
};

}  // namespace kestrune
