#pragma once

#include <linux/netlink.h>

#include <algorithm>
#include <cstddef>

namespace kestrune {

/// Calls `use` for each message of a datagram, until it returns false or what is left is no whole message.
/// `data` is aligned as a message is.
template <typename Use>
void forEachNetlinkMessage(const char* data, std::size_t size, Use use) {
  // The test of libmnl takes lengths of 2 GiB and more for negative ones, and so for such as fit.
  while (size >= sizeof(nlmsghdr)) {
    const auto& message = *reinterpret_cast<const nlmsghdr*>(data);
    const std::size_t length = message.nlmsg_len;
    if (length < sizeof message || length > size || !use(message)) return;
    const std::size_t step = std::min<std::size_t>(NLMSG_ALIGN(length), size);
    data += step;
    size -= step;
  }
}

}  // namespace kestrune
