#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace kestrune::testing {

/// A new empty folder. The destructor removes the folder and its contents.
class ScratchFolder {
 public:
  ScratchFolder() : made(std::filesystem::temp_directory_path() / "kestrune-XXXXXX") {
    if (mkdtemp(made.data()) == nullptr) throw std::runtime_error("no scratch folder");
  }
  ~ScratchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(made, ignored);
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  std::string file(const std::string& name) const { return made + "/" + name; }

 private:
  std::string made;
};

}  // namespace kestrune::testing
