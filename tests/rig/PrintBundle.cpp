#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>

#include "adapters/files/ProgramBundle.h"

// A program that makes a ProgramBundle, then obeys its arguments, one after the other:
//   chdir FOLDER            change the working folder
//   remove PATH             remove a file or a folder
//   rename FROM TO          rename a file or a folder
//   resource NAME EXTENSION print the path of the bundle's resource NAME.EXTENSION, or "none"
//   variable NAME           print the value of the environment variable, or "none"
//   paths                   print the bundle's folder, the program and the working folder, each on a line

int main(int count, char** arguments) {
  const kestrune::ProgramBundle bundle;
  const auto say = [](const std::optional<std::string>& text) { std::puts(text ? text->c_str() : "none"); };
  for (int i = 1; i < count; ++i) {
    const std::string verb = arguments[i];
    const auto next = [&] { return i + 1 < count ? arguments[++i] : ""; };
    if (verb == "chdir") {
      std::filesystem::current_path(next());
    } else if (verb == "remove") {
      std::filesystem::remove_all(next());
    } else if (verb == "rename") {
      const std::string from = next();
      std::filesystem::rename(from, next());
    } else if (verb == "resource") {
      const std::string name = next();
      say(bundle.pathForResource(name, next()));
    } else if (verb == "variable") {
      say(bundle.environmentVariable(next()));
    } else if (verb == "paths") {
      say(bundle.bundlePath());
      say(bundle.executablePath());
      say(bundle.currentDirectoryPath());
    } else {
      std::fprintf(stderr, "print_bundle: what is \"%s\"?\n", verb.c_str());
      return 98;
    }
  }
}
