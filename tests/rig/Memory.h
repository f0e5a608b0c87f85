#pragma once

#include <malloc.h>

#include <algorithm>
#include <cstddef>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>

#include "tests/rig/ForkedProgram.h"

// The runtime of a sanitizer defines these functions. In a build with a sanitizer, mallinfo2() counts
// nothing, so the code below calls these functions instead. In other builds, their addresses are null.
extern "C" std::size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*onMalloc)(const volatile void*, std::size_t),
                                                         void (*onFree)(const volatile void*))
    __attribute__((weak));

namespace kestrune::testing {

inline std::size_t heapInUse() {
  if (__sanitizer_get_current_allocated_bytes != nullptr) return __sanitizer_get_current_allocated_bytes();
  const auto heap = mallinfo2();
  return heap.uordblks + heap.hblkhd;
}

inline std::size_t peakOfTheHeap = 0;

/// Runs `work` in a process of its own. Returns by how many bytes `work` raises the peak resident size
/// (VmHWM). With a sanitizer, returns the rise of the peak heap size instead, because a sanitizer delays the
/// freeing of memory.
inline std::size_t peakMemoryOf(const std::function<void()>& work) {
  static constexpr auto kibibyte = std::size_t{1} << 10;
  const auto peak = [] {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
      if (word == "VmHWM:" && status >> word) return std::stoull(word) * kibibyte;
    }
    throw std::runtime_error("no peak");
  };
  ForkedProgram program([&](const ForkedProgram::Say& say) {
    if (__sanitizer_install_malloc_and_free_hooks != nullptr) {
      __sanitizer_install_malloc_and_free_hooks(
          [](const volatile void*, std::size_t) { peakOfTheHeap = std::max(peakOfTheHeap, heapInUse()); },
          [](const volatile void*) {});
      const auto before = peakOfTheHeap = heapInUse();
      work();
      return say(std::to_string(peakOfTheHeap - before));
    }
    std::ofstream("/proc/self/clear_refs") << "5";  // resets VmHWM to the present size
    const auto before = peak();
    work();
    say(std::to_string(peak() - before));
  });
  return std::stoull(program.line());
}

}  // namespace kestrune::testing
