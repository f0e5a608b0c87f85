#pragma once

#include <optional>
#include <string>

#include "KestruneMenuClient/settings/EnvFile.h"
#include "ports/Alert.h"

// The dialog that edits five settings of the backend's .env: its views, and the values of its fields. Pure;
// any thread.

namespace kestrune {

/// The settings dialog; the caller sets `Alert::target`. Its fields show `values`, which has all five keys; a
/// field's identifier is its key. `home`, the user's home folder, is the placeholder of the project root.
Alert makeSettingsAlert(const EnvValues& values, const std::string& home);

/// The trimmed texts of the fields. Omits fields that the face does not return.
EnvValues settingsOf(const AlertAnswer& answer);

/// Why one of `values` cannot be saved, as text for the user; absent when all can be saved. `shown` is what
/// the fields showed at first.
std::optional<std::string> faultOfSettings(const EnvValues& values, const EnvValues& shown);

}  // namespace kestrune
