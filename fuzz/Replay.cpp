#include <filesystem>
#include <set>

#include "fuzz/Fuzz.h"
#include "tests/rig/ScratchFolder.h"

// Runs a fuzzer with each file of the given folders, in builds without libFuzzer.

namespace {

namespace fs = std::filesystem;

void replay(const fs::path& file) {
  std::printf("%s\n", file.c_str());
  std::fflush(stdout);
  const std::string bytes = kestrune::testing::contentsOf(file);
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

}  // namespace

int main(int count, char** arguments) {
  std::set<fs::path> files;
  for (int i = 1; i < count; ++i) {
    files.insert(fs::directory_iterator(arguments[i]), fs::directory_iterator());
  }
  LLVMFuzzerTestOneInput(nullptr, 0);
  for (const auto& file : files) replay(file);
  return files.empty() ? 1 : 0;
}
