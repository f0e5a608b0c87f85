#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

// A fuzzer is one function that is given bytes of any kind, over and over, and ends the process when
// something does not hold that ought to hold whatever the bytes are. Linked with the fuzzing library it is
// given new bytes all the time; in an ordinary build `Replay.cpp` gives it those of its corpus.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace kestrune::fuzz {

/// Ends the process when something does not hold, and says what.
inline void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

inline std::string contentsOf(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

inline void put(const std::string& file, const std::string& text) {
  std::ofstream(file, std::ios::binary) << text;
}

/// Hands out an input piece by piece. At its end there are empty pieces and zeros.
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

  /// Four bytes in the order of this machine.
  std::uint32_t word() {
    std::uint32_t value = 0;
    const std::string_view bytes = take(sizeof value);
    std::memcpy(&value, bytes.data(), bytes.size());
    return value;
  }

  /// The bytes before the next zero byte, which is left out.
  std::string_view text() {
    const std::string_view piece = take(std::min(left.find('\0'), left.size()));
    byte();
    return piece;
  }

  /// As many bytes, or all that are left.
  std::string_view piece(std::size_t count) { return take(count); }

  /// Everything that is left.
  std::string_view rest() { return take(left.size()); }

 private:
  std::string_view take(std::size_t count) {
    const std::string_view piece = left.substr(0, count);
    left.remove_prefix(piece.size());
    return piece;
  }

  std::string_view left;
};

}  // namespace kestrune::fuzz
