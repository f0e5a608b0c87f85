#pragma once

#include <optional>
#include <string>

#include "KestruneMenuClient/settings/EnvFile.h"
#include "ports/Alert.h"

// Functions for the dialog that edits five settings of the backend's .env. They build the dialog, return the
// texts of its fields, and check these texts. All functions are pure. Any thread may call them.

namespace kestrune {

/// Returns the settings dialog; the caller sets `Alert::target`. `values` must have a value for each of the
/// five settings. The identifier of a field is its key in `.env`. `home`, the user's home folder, is the
/// placeholder text of the field for the project root.
Alert makeSettingsAlert(const EnvValues& values, const std::string& home);

/// Returns the trimmed texts of the fields by key. Omits fields that `answer` does not contain.
EnvValues settingsOf(const AlertAnswer& answer);

/// Returns a text for the user that says why one of `values` cannot be saved; absent when all can be saved. A
/// value that contains a line end (`EnvFile::holdsLineEnd`) cannot be saved. `shown` holds the values that
/// the fields had when the dialog was opened. If the field contained a line end already then, the text says
/// that .env has the wrong line ends (such as CR LF).
std::optional<std::string> faultOfSettings(const EnvValues& values, const EnvValues& shown);

}  // namespace kestrune
