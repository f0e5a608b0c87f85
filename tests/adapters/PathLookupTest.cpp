#include "adapters/network/PathLookup.h"

#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "tests/rig/NetworkPaths.h"

namespace kestrune::testing {
namespace {

constexpr std::uint32_t portId = 4711;
constexpr unsigned carrying = IFF_UP | IFF_LOWER_UP | IFF_RUNNING;

/// A message as the kernel sends it.
class Message {
 public:
  template <typename Header>
  Message(std::uint16_t type, std::uint32_t sequence, const Header& header, std::uint16_t flags = 0) {
    nlmsghdr* const message = mnl_nlmsg_put_header(bytes.data());
    message->nlmsg_type = type;
    message->nlmsg_seq = sequence;
    message->nlmsg_pid = portId;
    message->nlmsg_flags = flags;
    std::memcpy(mnl_nlmsg_put_extra_header(message, sizeof header), &header, sizeof header);
  }

  Message& number(std::uint16_t type, std::uint32_t value) {
    mnl_attr_put_u32(get(), type, value);
    return *this;
  }
  Message& text(std::uint16_t type, const std::string& value) {
    mnl_attr_put_strz(get(), type, value.c_str());
    return *this;
  }
  /// The description of a virtual device.
  Message& kind(const std::string& name, std::uint32_t activeMember) {
    nlattr* const description = mnl_attr_nest_start(get(), IFLA_LINKINFO);
    text(IFLA_INFO_KIND, name);
    nlattr* const details = mnl_attr_nest_start(get(), IFLA_INFO_DATA);
    number(IFLA_BOND_ACTIVE_SLAVE, activeMember);
    mnl_attr_nest_end(get(), details);
    mnl_attr_nest_end(get(), description);
    return *this;
  }

  nlmsghdr* get() { return reinterpret_cast<nlmsghdr*>(bytes.data()); }
  std::string datagram() const {
    return {bytes.data(), reinterpret_cast<const nlmsghdr*>(bytes.data())->nlmsg_len};
  }

 private:
  alignas(nlmsghdr) std::array<char, 1024> bytes{};
};

Message route(std::uint32_t sequence, unsigned char family, unsigned interface) {
  rtmsg header{};
  header.rtm_family = family;
  return std::move(Message(RTM_NEWROUTE, sequence, header).number(RTA_OIF, interface));
}

Message link(std::uint32_t sequence, int index, const std::string& name, unsigned flags = carrying,
             std::uint16_t messageFlags = 0) {
  const ifinfomsg header{AF_UNSPEC, 0, 1, index, flags, 0};
  return std::move(Message(RTM_NEWLINK, sequence, header, messageFlags).text(IFLA_IFNAME, name));
}

Message error(std::uint32_t sequence, int number) {
  nlmsgerr header{};
  header.error = -number;
  return {NLMSG_ERROR, sequence, header};
}

struct PathLookupTest : ::testing::Test {
  bool take(const std::string& datagram) {
    // In memory of just that size, so that a sanitizer sees a step beyond.
    const auto copy = std::make_unique<std::uint32_t[]>((datagram.size() + 3) / 4);
    std::memcpy(copy.get(), datagram.data(), datagram.size());
    return lookup.take(reinterpret_cast<const char*>(copy.get()), datagram.size());
  }
  bool take(const Message& message) { return take(message.datagram()); }

  NetworkPath path() const { return lookup.path("/nonexistent").value().path; }

  /// What was sent: type, flags, and the family of a route or the index of a link.
  struct Request {
    unsigned type, flags;
    int what;
    bool operator==(const Request&) const = default;
  };
  std::vector<Request> requests;
  int sendError = 0;
  PathLookup lookup{portId, [this](const nlmsghdr& request) {
                      const void* const payload = mnl_nlmsg_get_payload(&request);
                      const bool isRoute = request.nlmsg_type == RTM_GETROUTE;
                      requests.push_back({request.nlmsg_type, request.nlmsg_flags,
                                          isRoute ? static_cast<const rtmsg*>(payload)->rtm_family
                                                  : static_cast<const ifinfomsg*>(payload)->ifi_index});
                      return sendError;
                    }};
};

TEST_F(PathLookupTest, AsksForBothFamiliesAndThenForTheInterface) {
  EXPECT_FALSE(take(route(1, AF_INET, 7)));
  EXPECT_FALSE(take(error(2, ENETUNREACH)));
  EXPECT_FALSE(lookup.isOver());
  EXPECT_FALSE(take(link(3, 7, "cable")));
  EXPECT_TRUE(lookup.isOver());
  EXPECT_EQ(path(), viaCable);
  EXPECT_EQ(requests, (std::vector<Request>{{RTM_GETROUTE, NLM_F_REQUEST, AF_INET},
                                            {RTM_GETROUTE, NLM_F_REQUEST, AF_INET6},
                                            {RTM_GETLINK, NLM_F_REQUEST, 7}}));
}

TEST_F(PathLookupTest, AsksForAllInterfacesWhereOneIsStacked) {
  take(error(1, ENETUNREACH));
  take(route(2, AF_INET6, 7));
  take(link(3, 7, "bond").kind("bond", 9));
  ASSERT_EQ(requests.size(), 4u);
  EXPECT_EQ(requests.back(), (Request{RTM_GETLINK, NLM_F_REQUEST | NLM_F_DUMP, 0}));
  for (const int index : {7, 8, 9}) {
    Message each = link(4, index, "device", index == 8 ? 0 : carrying, NLM_F_MULTI);
    if (index == 7) each.kind("bond", 9);
    take(each);
    EXPECT_FALSE(lookup.isOver());
  }
  take(Message(NLMSG_DONE, 4, 0, NLM_F_MULTI));
  EXPECT_TRUE(lookup.isOver());
  EXPECT_EQ(path(), viaCable);
  EXPECT_EQ(requests.size(), 4u);
}

TEST_F(PathLookupTest, DoesNotLookIntoAnotherNamespace) {
  take(route(1, AF_INET, 7));
  take(link(3, 7, "made").kind("macvlan", 0).number(IFLA_LINK, 8).number(IFLA_LINK_NETNSID, 0));
  take(link(4, 8, "cable", carrying, NLM_F_MULTI));
  EXPECT_EQ(path(), viaSomething);
}

TEST_F(PathLookupTest, TellsAnswersFromNews) {
  Message ofOthers = route(1, AF_INET, 7);
  ofOthers.get()->nlmsg_pid = portId + 1;
  EXPECT_TRUE(take(ofOthers));
  EXPECT_TRUE(take(link(0, 7, "cable")));
  EXPECT_TRUE(take(route(17, AF_INET, 7)));
  EXPECT_TRUE(take(route(1, AF_INET, 7).datagram() + ofOthers.datagram()));
  EXPECT_TRUE(take(route(1, AF_INET, 7)));  // answered already
  EXPECT_FALSE(lookup.isOver());
}

TEST_F(PathLookupTest, IsOverTheInterfacesThatCarry) {
  constexpr unsigned flags[]{0, IFF_UP, IFF_UP | IFF_RUNNING, IFF_UP | IFF_LOWER_UP | IFF_DORMANT,
                             carrying | IFF_LOOPBACK};
  std::uint32_t sequence = 2;
  for (const unsigned each : flags) {
    take(link(++sequence, 7, "cable", each));
    take(route(1, AF_INET, 7));
    EXPECT_EQ(path(), disconnected) << each;
  }
}

TEST_F(PathLookupTest, TakesRejectedRoutesAndInterfacesThatAreGoneForNoPath) {
  for (const int number : {ENETUNREACH, EHOSTUNREACH, EACCES, EINVAL}) {
    PathLookup each(portId, [](const nlmsghdr&) { return 0; });
    each.take(error(1, number).datagram().data(), error(1, number).datagram().size());
    EXPECT_EQ(each.path(""), RoutedPath{}) << number;
  }
  take(route(1, AF_INET, 7));
  take(error(2, ENETUNREACH));
  take(error(3, ENODEV));  // the interface is gone
  EXPECT_TRUE(lookup.isOver());
  EXPECT_EQ(path(), disconnected);
}

TEST_F(PathLookupTest, TakesAKernelWithoutIPv6ForOneWithoutARoute) {
  take(error(1, ENETUNREACH));
  take(error(2, EOPNOTSUPP));
  EXPECT_EQ(path(), disconnected);
}

TEST_F(PathLookupTest, DoesNotTakeARefusalForNoPath) {
  take(error(1, EPERM));
  take(error(2, EPERM));
  EXPECT_TRUE(lookup.isOver());
  EXPECT_EQ(lookup.path(""), std::nullopt);
  EXPECT_EQ(lookup.refusal(), EPERM);
}

TEST_F(PathLookupTest, IsOverAtOnceWhereNothingCanBeSent) {
  PathLookup refused(portId, [](const nlmsghdr&) { return EACCES; });
  EXPECT_TRUE(refused.isOver());
  EXPECT_EQ(refused.path(""), std::nullopt);
  EXPECT_EQ(refused.refusal(), EACCES);
}

// --- bad input

TEST_F(PathLookupTest, TakesMessagesThatAreCutShort) {
  const std::vector<Message> messages{route(1, AF_INET, 7), link(3, 7, "cable").kind("bond", 9),
                                      error(2, EPERM)};
  for (const auto& message : messages) {
    const std::string whole = message.datagram();
    for (std::size_t length = 0; length < whole.size(); ++length) {
      std::string cut = whole.substr(0, length);
      take(cut);
      if (length < sizeof(nlmsghdr)) continue;
      const auto said = static_cast<std::uint32_t>(length);
      std::memcpy(cut.data(), &said, sizeof said);
      take(cut);
    }
  }
}

TEST_F(PathLookupTest, TakesNoMessageThatIsLongerThanWhatCame) {
  std::string datagram = link(0, 7, "cable").datagram();
  const auto size = static_cast<std::uint32_t>(datagram.size());
  EXPECT_TRUE(take(datagram));
  for (const std::uint32_t length : {0U, 15U, size + 1, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFCU}) {
    std::memcpy(datagram.data(), &length, sizeof length);
    EXPECT_FALSE(take(datagram)) << length;
  }
}

}  // namespace
}  // namespace kestrune::testing
