#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kestrune {

enum class PowerAssertionType { noDisplaySleep, preventUserIdleSystemSleep };

inline constexpr int powerAssertionLevelOn = 255;

/// Keeps the display or the system from sleeping while the user is idle. On Linux, inhibitors. Main thread.
class PowerAssertions {
 public:
  virtual ~PowerAssertions() = default;

  /// Takes an assertion, which other programs see under `name`. Returns its identifier, never 0; absent when
  /// it was refused.
  virtual std::optional<std::uint32_t> create(PowerAssertionType type, int level,
                                              const std::string& name) = 0;

  /// Whether the assertion is held, as far as is known. It is lost when the service that granted it has
  /// ended, or has restarted and not granted it again.
  virtual bool isHeld(std::uint32_t identifier) = 0;

  /// Releases the assertion, even if it was partly lost. Ignores an unknown identifier.
  virtual void release(std::uint32_t identifier) = 0;
};

}  // namespace kestrune
