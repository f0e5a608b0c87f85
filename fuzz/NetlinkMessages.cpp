#include <memory>

#include "adapters/network/PathLookup.h"
#include "fuzz/Fuzz.h"

// What a socket of rtnetlink brings: the kernel's answers to a question, and news between them.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kestrune;
  using fuzz::require;

  // Datagrams one behind the other, each with its length in words in front.
  fuzz::Input input(data, size);
  unsigned requests = 0;
  PathLookup lookup(0, [&requests](const nlmsghdr& request) {
    require(request.nlmsg_seq == ++requests, "requests are numbered in their order");
    return 0;
  });
  while (!input.empty()) {
    const std::size_t words = input.byte();
    const std::string_view datagram = input.piece(words * sizeof(std::uint32_t));
    // In memory of just its size, so that a step beyond is seen.
    const auto copy = std::make_unique<std::uint32_t[]>((datagram.size() + 3) / 4);
    std::memcpy(copy.get(), datagram.data(), datagram.size());
    const unsigned before = requests;
    static_cast<void>(lookup.take(reinterpret_cast<const char*>(copy.get()), datagram.size()));
    require(requests - before <= datagram.size() / sizeof(nlmsghdr),
            "a message leads to one request at most");
  }
  if (const auto found = lookup.path("/nonexistent")) {
    require(found->path.satisfied || *found == RoutedPath{}, "what is no path has nothing to tell");
  }
  return 0;
}
