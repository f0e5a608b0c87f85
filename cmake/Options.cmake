# The compile options of all targets.
add_library(kestrune_options INTERFACE)
target_include_directories(kestrune_options INTERFACE ${CMAKE_SOURCE_DIR})
target_compile_options(kestrune_options INTERFACE
  -ffunction-sections -fdata-sections
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Woverloaded-virtual
  $<$<BOOL:${KESTRUNE_WERROR}>:-Werror>
  # Silence a false warning: GCC 11 takes the size() of an array for a read of its elements.
  $<$<AND:$<CXX_COMPILER_ID:GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,12>>:-Wno-maybe-uninitialized>
  $<$<CONFIG:Release>:-fstack-protector-strong>)
if(CMAKE_BUILD_TYPE STREQUAL "Release" AND NOT KESTRUNE_SANITIZE)
  target_compile_definitions(kestrune_options INTERFACE _FORTIFY_SOURCE=2)
endif()

if(KESTRUNE_SANITIZE)
  target_compile_options(kestrune_options INTERFACE
    -fsanitize=${KESTRUNE_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(kestrune_options INTERFACE -fsanitize=${KESTRUNE_SANITIZE})
  if(KESTRUNE_SANITIZE MATCHES "undefined")
    # The vptr check needs a pipe, so it reports a false error in tests that leave the process no descriptors.
    target_compile_options(kestrune_options INTERFACE -fno-sanitize=vptr)
  endif()
endif()

# Optimise for size: the process waits nearly all the time, and every page of code that it touches stays in memory.
set(CMAKE_CXX_FLAGS_RELEASE "-Os -DNDEBUG")
if(CMAKE_BUILD_TYPE STREQUAL "Release")
  include(CheckIPOSupported)
  check_ipo_supported(RESULT KESTRUNE_IPO OUTPUT ignored)
  set(CMAKE_INTERPROCEDURAL_OPTIMIZATION ${KESTRUNE_IPO})
endif()
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
