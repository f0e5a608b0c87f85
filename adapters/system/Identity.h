#pragma once

namespace kestrune {

/// What this application is called on the desktop, by which its desktop entries are named.
inline constexpr auto applicationIdentifier = "com.dovrel.kestrune.menuclient";

}  // namespace kestrune
