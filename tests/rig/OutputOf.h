#pragma once

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "tests/rig/ScratchFolder.h"

namespace kestrune::testing {

/// Returns the standard output and standard error of a shell command. If the command fails, the result ends
/// with "status " and the command's wait status (256 for exit status 1).
inline std::string outputOf(const std::string& command) {
  FILE* const pipe = popen((command + " 2>&1").c_str(), "r");
  std::string text;
  char buffer[4096];
  for (std::size_t count; (count = fread(buffer, 1, sizeof buffer, pipe)) > 0;) text.append(buffer, count);
  const int status = pclose(pipe);
  return status == 0 ? text : text + "status " + std::to_string(status);
}

/// Returns the message that zbarimg, a QR code reader, finds in a picture. Each byte of `rows` is a pixel:
/// '\0' is black, '\xFF' white. zbarimg gets each pixel as a square with sides of 6 pixels.
inline std::string scanned(const std::vector<std::string>& rows) {
  constexpr std::size_t scale = 6;
  const ScratchFolder folder;
  std::ofstream picture(folder.file("a.pgm"), std::ios::binary);
  picture << "P5\n" << rows[0].size() * scale << " " << rows.size() * scale << "\n255\n";
  for (const auto& row : rows) {
    for (std::size_t i = 0; i < scale; ++i) {
      for (const char each : row) picture << std::string(scale, each);
    }
  }
  picture.close();
  return outputOf("zbarimg --nodbus --quiet --raw -Sbinary " + folder.file("a.pgm"));
}

}  // namespace kestrune::testing
