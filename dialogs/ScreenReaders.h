#pragma once

namespace kestrune::dialogs {

/// Masks the text of password fields for screen readers. Call it once, before the first window. Qt shows dots
/// on the screen, but sends every inserted and deleted character to all listeners on the accessibility bus
/// (AT-SPI).
void hideMaskedText();

}  // namespace kestrune::dialogs
