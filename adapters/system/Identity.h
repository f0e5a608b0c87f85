#pragma once

namespace kestrune {

/// The application ID. The desktop entries are named after it.
inline constexpr auto applicationIdentifier = "com.dovrel.kestrune.menuclient";

}  // namespace kestrune
