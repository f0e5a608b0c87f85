#pragma once

#include <malloc.h>

#include <cstddef>

// Only a sanitizer's allocator has this; there, the C library's own count says nothing.
extern "C" std::size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

namespace kestrune::testing {

/// Bytes of the heap that this process has not given back.
inline std::size_t heapInUse() {
  if (__sanitizer_get_current_allocated_bytes != nullptr) return __sanitizer_get_current_allocated_bytes();
  const auto heap = mallinfo2();
  return heap.uordblks + heap.hblkhd;
}

}  // namespace kestrune::testing
