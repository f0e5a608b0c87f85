#pragma once

#include <optional>
#include <string>

#include "KestruneMenuClient/settings/EnvFile.h"
#include "ports/Alert.h"

// The dialog that edits five settings of the backend's .env: its views, and what becomes of its fields. Pure;
// any thread.

namespace kestrune {

/// The dialog, which has no target yet. Its fields show `values`, which have all five keys; the keys are
/// their identifiers. `home` is the user's home folder.
Alert makeSettingsAlert(const EnvValues& values, const std::string& home);

/// The texts in the fields, trimmed. A field that the face does not know has none.
EnvValues settingsOf(const AlertAnswer& answer);

/// Why one of `values` cannot be saved, in words for the user; absent when all can.
std::optional<std::string> faultOfSettings(const EnvValues& values);

}  // namespace kestrune
