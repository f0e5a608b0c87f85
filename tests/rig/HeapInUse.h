#pragma once

#include <malloc.h>

#include <cstddef>

// Only builds with a sanitizer define this function. In these builds mallinfo2() counts nothing.
extern "C" std::size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

namespace kestrune::testing {

/// Returns how many bytes of the heap are in use.
inline std::size_t heapInUse() {
  if (__sanitizer_get_current_allocated_bytes != nullptr) return __sanitizer_get_current_allocated_bytes();
  const auto heap = mallinfo2();
  return heap.uordblks + heap.hblkhd;
}

}  // namespace kestrune::testing
