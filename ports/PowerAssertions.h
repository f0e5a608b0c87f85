#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kestrune {

enum class PowerAssertionType { noDisplaySleep, preventUserIdleSystemSleep };

inline constexpr int powerAssertionLevelOn = 255;

/// Keeps the display or the system from sleeping while nobody touches it. Behind a port so that a test sees
/// what is held. Main thread.
class PowerAssertions {
 public:
  virtual ~PowerAssertions() = default;

  /// Takes an assertion that other programs see under `name`. Returns its identifier, never 0, or nothing
  /// when it is not held.
  virtual std::optional<std::uint32_t> create(PowerAssertionType type, int level,
                                              const std::string& name) = 0;

  /// Whether the assertion is in force, as far as is known. A host may lose one that was taken: the service
  /// that granted it is gone, or runs again and has not granted it anew.
  virtual bool isHeld(std::uint32_t identifier) = 0;

  /// Gives the assertion back, or what is left of one that was lost. An identifier that was not taken is
  /// ignored.
  virtual void release(std::uint32_t identifier) = 0;
};

}  // namespace kestrune
