#pragma once

namespace kestrune::dialogs {

/// Changes what Qt tells screen readers over the accessibility bus (AT-SPI). Call it once, before the first
/// window.
///
/// For password fields it masks the text: Qt shows dots on the screen, but sends every inserted and deleted
/// character to all listeners on the bus. For the rows of a menu it reports their kind and their shortcuts.
void prepareForScreenReaders();

}  // namespace kestrune::dialogs
