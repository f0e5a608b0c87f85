#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

// A fuzzer is one function that takes any bytes, and aborts if an invariant does not hold. In a build with
// libFuzzer, libFuzzer calls the function again and again with new bytes. In a build without libFuzzer,
// `Replay.cpp` calls it once for each file of the fuzzer's corpus.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace kestrune::fuzz {

inline void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

/// Splits the input of a fuzzer into pieces. After the end of the input, every piece is empty or zero.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : left(reinterpret_cast<const char*>(data), size) {}

  bool empty() const { return left.empty(); }

  std::uint8_t byte() {
    if (left.empty()) return 0;
    const auto first = static_cast<std::uint8_t>(left.front());
    left.remove_prefix(1);
    return first;
  }

  /// Returns the next four bytes as a number, in the byte order of this machine.
  std::uint32_t word() {
    std::uint32_t value = 0;
    const std::string_view bytes = take(sizeof value);
    std::memcpy(&value, bytes.data(), bytes.size());
    return value;
  }

  /// Returns the bytes before the next NUL, and skips the NUL.
  std::string_view text() {
    const std::string_view piece = take(std::min(left.find('\0'), left.size()));
    byte();
    return piece;
  }

  std::string_view rest() { return take(left.size()); }

 private:
  /// Returns the next `count` bytes, or all bytes that are left if there are fewer.
  std::string_view take(std::size_t count) {
    const std::string_view piece = left.substr(0, count);
    left.remove_prefix(piece.size());
    return piece;
  }

  std::string_view left;
};

}  // namespace kestrune::fuzz
