#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kestrune {

enum class PowerAssertionType { noDisplaySleep, preventUserIdleSystemSleep };

inline constexpr int powerAssertionLevelOn = 255;

/// Keeps the display or the system from sleeping while the user is idle, as long as an assertion is held. On
/// Linux, an assertion consists of inhibitors, which D-Bus services grant. Main thread.
class PowerAssertions {
 public:
  virtual ~PowerAssertions() = default;

  /// Takes an assertion, which other programs see under `name`. `level` is always `powerAssertionLevelOn`.
  /// Returns the assertion's identifier, never 0; absent when the assertion was refused.
  virtual std::optional<std::uint32_t> create(PowerAssertionType type, int level,
                                              const std::string& name) = 0;

  /// Returns whether the assertion is still held, as far as is known; false for an unknown identifier. A lost
  /// assertion stays lost: release it, and create another one.
  virtual bool isHeld(std::uint32_t identifier) = 0;

  /// Releases the assertion, even if `isHeld` returns false. Ignores an unknown identifier.
  virtual void release(std::uint32_t identifier) = 0;
};

}  // namespace kestrune
