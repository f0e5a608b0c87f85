#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "adapters/files/ProgramBundle.h"

// A program that makes a ProgramBundle, changes the working folder to /, and runs its first argument as a
// shell command. Then it prints what the bundle returns: its folder, the executable and the working folder.
// The other arguments are pairs: a resource's name and its extension. For each pair, it prints the
// resource's path. Each path is on its own line; "none" stands for an absent path.

int main(int count, char** arguments) {
  const kestrune::ProgramBundle bundle;
  if (chdir("/") != 0 || std::system(arguments[1]) != 0) return 98;
  const auto say = [](const std::optional<std::string>& text) { std::puts(text ? text->c_str() : "none"); };
  say(bundle.bundlePath());
  say(bundle.executablePath());
  say(bundle.currentDirectoryPath());
  for (int i = 2; i + 1 < count; i += 2) say(bundle.pathForResource(arguments[i], arguments[i + 1]));
}
