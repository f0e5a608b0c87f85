#pragma once

namespace kestrune {

/// The application ID; the desktop entries are named after it.
inline constexpr auto applicationIdentifier = "com.dovrel.kestrune.menuclient";

}  // namespace kestrune
