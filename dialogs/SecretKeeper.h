#pragma once

namespace kestrune::dialogs {

/// From now on no screen reader, and nobody else who listens on its bus, is told what is written into a
/// secure field or deleted there. The toolkit keeps the text of such a field to itself, but tells every
/// change of it.
void keepSecretsFromScreenReaders();

}  // namespace kestrune::dialogs
