#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <iterator>
#include <set>
#include <string>

#include "tests/rig/ScratchFolder.h"

namespace kestrune::testing {

namespace fs = std::filesystem;

inline mode_t modeOf(const std::string& file) {
  struct stat state {};
  EXPECT_EQ(stat(file.c_str(), &state), 0) << file;
  return state.st_mode & 07777;
}

inline std::ptrdiff_t openDescriptors() {
  return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

using Names = std::set<std::string>;

/// A test fixture with a new folder of its own, which is empty at the start of the test.
struct FileTest : ::testing::Test {
  Names names() const {
    Names found;
    for (const auto& each : fs::directory_iterator(folder.file("."))) found.insert(each.path().filename());
    return found;
  }

  const ScratchFolder folder;
};

}  // namespace kestrune::testing
