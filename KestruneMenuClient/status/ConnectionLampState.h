#pragma once

#include <array>
#include <cstddef>
#include <string_view>

namespace kestrune {

/// The backend's health.
enum class ConnectionLampState { ok, warning, error };

namespace detail {
struct LampWords {
  std::string_view icon;
  std::string_view label;
};
inline constexpr std::array<LampWords, 3> lampWords{{
    {"🟢", "已連線"},
    {"🟡", "檢查中"},
    {"🔴", "異常"},
}};
}  // namespace detail

constexpr std::string_view menuIcon(ConnectionLampState state) {
  return detail::lampWords[static_cast<std::size_t>(state)].icon;
}

constexpr std::string_view menuLabel(ConnectionLampState state) {
  return detail::lampWords[static_cast<std::size_t>(state)].label;
}

}  // namespace kestrune
