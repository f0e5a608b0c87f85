#pragma once

namespace kestrune::dialogs {

/// Masks the text in accessibility events of secure fields: Qt hides the text of such a field, but sends
/// every insertion and deletion to all listeners on the accessibility bus (AT-SPI). Reports the rows of a
/// menu by role, with their shortcuts. Call once, before the first window.
void prepareForScreenReaders();

}  // namespace kestrune::dialogs
