#include <memory>

#include "fuzz/Fuzz.h"
#include "platform/linux/NetlinkMessages.h"
#include "platform/linux/RouteTable.h"

// What the kernel sends about interfaces and routes: one message behind the other.

namespace {

using namespace kestrune;
using fuzz::require;

/// In memory of just its size, so that a step beyond is seen.
void take(RouteTable& table, const nlmsghdr& message) {
  const std::size_t size = message.nlmsg_len;
  const auto copy = std::make_unique<std::uint32_t[]>((size + 3) / 4);
  std::memcpy(copy.get(), &message, size);
  const auto& alone = *reinterpret_cast<const nlmsghdr*>(copy.get());
  table.add(alone);
  static_cast<void>(concernsDefaultRoute(alone));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const auto aligned = std::make_unique<std::uint32_t[]>((size + 3) / 4);
  std::memcpy(aligned.get(), data, size);

  RouteTable table;
  forEachNetlinkMessage(reinterpret_cast<const char*>(aligned.get()), size,
                        [&table](const nlmsghdr& message) {
                          take(table, message);
                          return true;
                        });

  for (const NextHop& hop : table.defaultHops()) {
    const auto link = table.interfaces().find(hop.interface);
    require(link != table.interfaces().end() && link->second.usable,
            "a way out leads over a usable interface");
  }
  static_cast<void>(table.needsNextHopObjects());
  for (const auto& [index, link] : table.interfaces()) {
    require(link.index == index, "an interface stands under its own index");
    require(link.name.find('\0') == std::string::npos, "a name ends at its end");
  }
  return 0;
}
