#pragma once

namespace kestrune::dialogs {

/// Masks the text in accessibility events of secure fields. Qt hides the text of such a field, but sends
/// every insertion and deletion to all listeners on the accessibility bus.
void keepSecretsFromScreenReaders();

}  // namespace kestrune::dialogs
