#pragma once

namespace kestrune {

/// What this application is called on the desktop: its name on the bus, and that of its desktop entries.
inline constexpr auto applicationIdentifier = "com.dovrel.kestrune.menuclient";

}  // namespace kestrune
