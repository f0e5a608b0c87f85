#pragma once

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
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

inline void put(const std::string& file, const std::string& contents, mode_t mode = 0644) {
  std::ofstream(file, std::ios::binary) << contents;
  chmod(file.c_str(), mode);
}

inline std::string contentsOf(const std::string& file) {
  std::ostringstream text;
  text << std::ifstream(file, std::ios::binary).rdbuf();
  return text.str();
}

}  // namespace kestrune::testing
