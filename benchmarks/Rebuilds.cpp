#include <cstdio>
#include <fstream>
#include <string>
#include <string_view>

#include "adapters/bus/SessionBus.h"
#include "adapters/files/ProgramBundle.h"
#include "adapters/loop/EventLoop.h"
#include "adapters/tray/StatusNotifierItem.h"

// Gives the tray's menu new texts 500 times as a warm-up, and then 5,000 times. Prints by how many kB the
// process's private memory (Private_Dirty) grows during these 5,000 changes.

namespace {

constexpr int rows = 29;
constexpr int warmUp = 500;
constexpr int rebuilds = 5000;

long privateMemory() {
  constexpr std::string_view name = "Private_Dirty:";
  std::ifstream file("/proc/self/smaps_rollup");
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with(name)) return std::stol(line.substr(name.size()));
  }
  return -1;
}

}  // namespace

int main() {
  kestrune::EventLoop loop;
  kestrune::SessionBus bus(loop);
  bus.connect();
  const kestrune::ProgramBundle bundle;
  kestrune::StatusNotifierItem item({bus, loop.mainQueue(), bundle, [] {}});
  item.addToStatusBar(kestrune::StatusItem::squareLength);
  int done = 0;
  long before = 0;
  const std::function<void()> rebuild = [&] {
    if (done == warmUp) before = privateMemory();
    kestrune::Menu menu;
    for (int row = 1; row <= rows; ++row) {
      menu.items.push_back({.id = row,
                            .title = "狀態 " + std::to_string(done * rows + row),
                            .action = "quit",
                            .enabled = done % 2 == 0});
    }
    item.setMenu(std::move(menu));
    if (++done < warmUp + rebuilds) loop.mainQueue().async(rebuild);
  };
  loop.mainQueue().async(rebuild);
  loop.runUntil([&done] { return done == warmUp + rebuilds; });
  std::printf("%ld\n", privateMemory() - before);
}
