#include <linux/if_arp.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <array>
#include <optional>

#include "tests/adapters/RouteMonitorNetwork.h"

namespace kestrune::testing {
namespace {

bool isReadable(int descriptor) {
  pollfd readable{descriptor, POLLIN, 0};
  return poll(&readable, 1, patienceInMilliseconds) == 1;
}

struct RouteMonitorSocket : RouteMonitorNetwork {
  /// Runs as many commands of `ip` as there are, in one process.
  pid_t beginBatch(const std::string& commands) const {
    std::ofstream(devices.file("batch")) << commands;
    return NetworkNamespace::begin("-batch " + devices.file("batch"));
  }

  static std::string linkMessages(int count) {
    std::string commands;
    for (int i = 0; i < count; ++i) commands += "link set cable mtu " + std::to_string(1300 + i % 100) + "\n";
    return commands;
  }

  std::optional<RouteTable> read() {
    bool ended = false;
    std::optional<RouteTable> found;
    const RouteReading reading(loop, [&](std::optional<RouteTable> table, int error) {
      EXPECT_EQ(error, 0);
      found = std::move(table);
      ended = true;
    });
    EXPECT_FALSE(ended);
    EXPECT_TRUE(comesTrue(loop, [&ended] { return ended; }));
    return found;
  }
};

// --- listening

TEST_F(RouteMonitorSocket, HearsOfWhatConcernsTheDefaultRoute) {
  network.addCable("cable", "10.1.0.2/24");
  struct {
    const char* words;
    std::map<std::string, bool> running{};  // told a moment later
  } const changes[] = {
      {"link set cable down", {{"cable-peer", false}}},
      {"link set cable up", {{"cable", true}, {"cable-peer", true}}},
      {"route add default via 10.1.0.1"},
      {"route delete default"},
      {"-6 route add unreachable default"},
      {"address delete 10.1.0.2/24 dev cable"},
      {"link delete cable"},
  };
  for (const auto& [words, running] : changes) {
    RouteListener listener;
    ASSERT_TRUE(listener.isOpen());
    LinkNews news;
    network.ip(words);
    for (const auto& [name, isRunning] : running) news.awaitRunning(name, isRunning);
    EXPECT_TRUE(listener.takeMessages()) << words;
    EXPECT_FALSE(listener.takeMessages());
  }
}

TEST_F(RouteMonitorSocket, PassesOverWhatDoesNot) {
  network.addCable("cable", "10.1.0.2/24");
  RouteListener listener;
  for (const char* const words :
       {"route add 10.9.0.0/16 via 10.1.0.1", "route delete 10.9.0.0/16",
        "route add default via 10.1.0.1 table 9", "address add 10.1.0.3/24 dev cable",
        "-6 route add fd00:9::/64 dev cable"}) {
    network.ip(words);
    ASSERT_TRUE(isReadable(listener.descriptor()));
    EXPECT_FALSE(listener.takeMessages()) << words;
  }
}

TEST_F(RouteMonitorSocket, CountsLostMessagesAsAChange) {
  network.addCable("cable", "10.1.0.2/24");
  RouteListener listener;
  const int smallest = 1;
  setsockopt(listener.descriptor(), SOL_SOCKET, SO_RCVBUF, &smallest, sizeof smallest);
  std::string commands;
  for (int i = 0; i < 100; ++i) commands += "route add 10.9." + std::to_string(i) + ".0/24 via 10.1.0.1\n";
  ASSERT_TRUE(NetworkNamespace::finish(beginBatch(commands)));
  EXPECT_TRUE(listener.takeMessages());
  EXPECT_FALSE(listener.takeMessages());
}

TEST_F(RouteMonitorSocket, BelievesTheKernelOnly) {
  RouteListener listener;
  sockaddr_nl address{};
  socklen_t size = sizeof address;
  ASSERT_EQ(getsockname(listener.descriptor(), reinterpret_cast<sockaddr*>(&address), &size), 0);
  const FileDescriptor other(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  struct {
    nlmsghdr header;
    ifinfomsg body;
  } message{};
  message.header.nlmsg_len = sizeof message;
  message.header.nlmsg_type = RTM_DELLINK;
  sockaddr_nl target{};
  target.nl_family = AF_NETLINK;
  target.nl_pid = address.nl_pid;
  ASSERT_EQ(sendto(other.get(), &message, sizeof message, 0, reinterpret_cast<const sockaddr*>(&target),
                   sizeof target),
            static_cast<ssize_t>(sizeof message));
  ASSERT_TRUE(isReadable(listener.descriptor()));
  EXPECT_FALSE(listener.takeMessages());
}

// --- reading

TEST_F(RouteMonitorSocket, ReadsWhatTheKernelSaysOfInterfaces) {
  network.addCable("cable", "10.1.0.2/24");
  network.ip("link add bridge type bridge");
  network.ip("link set cable master bridge");
  network.ip("link add link cable-peer name stacked type macvlan");
  const auto table = read();
  ASSERT_TRUE(table);
  std::map<std::string, NetworkInterface> byName;
  for (const auto& [index, link] : table->interfaces()) byName.emplace(link.name, link);
  ASSERT_EQ(byName.size(), 5u);
  EXPECT_FALSE(byName["lo"].usable);
  EXPECT_TRUE(byName["cable"].usable);
  EXPECT_EQ(byName["cable"].kind, "veth");
  EXPECT_EQ(byName["cable"].master, byName["bridge"].index);
  EXPECT_EQ(byName["bridge"].kind, "bridge");
  EXPECT_FALSE(byName["bridge"].usable);
  EXPECT_EQ(byName["bridge"].hardwareType, unsigned{ARPHRD_ETHER});
  EXPECT_EQ(byName["stacked"].lower, byName["cable-peer"].index);
}

TEST_F(RouteMonitorSocket, ReadsMoreThanOnePiece) {
  network.addCable("cable", "10.1.0.2/24");
  std::string commands;
  for (int i = 0; i < 5000; ++i) {
    commands += "route add 10." + std::to_string(16 + i / 250) + "." + std::to_string(i % 250) +
                ".0/24 via 10.1.0.1\n";
  }
  for (int i = 0; i < 200; ++i) {
    commands += "link add pair" + std::to_string(i) + " type veth peer name end" + std::to_string(i) + "\n";
  }
  commands += "route add default via 10.1.0.1\n";
  ASSERT_TRUE(NetworkNamespace::finish(beginBatch(commands)));
  const auto table = read();
  ASSERT_TRUE(table);
  EXPECT_EQ(table->interfaces().size(), 403u);
  ASSERT_EQ(table->defaultHops().size(), 1u);
  EXPECT_EQ(table->interfaces().at(table->defaultHops().front().interface).name, "cable");
}

TEST_F(RouteMonitorSocket, ReadsWhileEverythingChanges) {
  network.addCable("cable", "10.1.0.2/24");
  network.ip("route add default via 10.1.0.1");
  std::string commands;
  for (int i = 0; i < 200; ++i) {
    const std::string number = std::to_string(i);
    commands += "link add pair" + number + " type veth peer name end" + number + "\n";
  }
  // It waits for more, and so does not end before the first reading.
  const std::string pipe = devices.file("changes");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const pid_t changes = NetworkNamespace::begin("-batch " + pipe);
  FileDescriptor more(open(pipe.c_str(), O_WRONLY | O_CLOEXEC));
  ASSERT_EQ(write(more.get(), commands.data(), commands.size()), static_cast<ssize_t>(commands.size()));
  const FileDescriptor handle(static_cast<int>(syscall(SYS_pidfd_open, changes, 0)));
  int readings = 0;
  for (pollfd ended{handle.get(), POLLIN, 0}; poll(&ended, 1, 0) == 0; ++readings) {
    const auto table = read();
    ASSERT_TRUE(table);
    EXPECT_EQ(table->defaultHops().size(), 1u);
    more.reset();
  }
  EXPECT_TRUE(NetworkNamespace::finish(changes));
  EXPECT_GT(readings, 0);
}

// --- storms

struct RouteMonitorStorm : RouteMonitorSocket {
  void SetUp() override {
    pretendWiFi("cable");
    network.addCable("cable", "10.1.0.2/24");
    network.ip("route add default via 10.1.0.1");
    startOn(viaWiFi);
  }

  std::uint64_t wakeUps() const {
    std::uint64_t iterations = 0;
    sd_event_get_iteration(loop.event(), &iterations);
    return iterations;
  }
};

TEST_F(RouteMonitorStorm, OfAThousandMessagesCostsAFewReadings) {
  // Each reading looks up the device of the default route.
  const FileDescriptor lookUps(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  inotify_add_watch(lookUps.get(), devices.file("cable/uevent").c_str(), IN_OPEN);
  std::uint64_t readings = 0;
  const EventSource counting = loop.onDescriptor(lookUps.get(), EPOLLIN, [&] {
    alignas(inotify_event) std::array<char, 256> events;
    static_cast<void>(::read(lookUps.get(), events.data(), events.size()));
    ++readings;
  });
  const Seconds begin = clock.awakeTime();
  const std::uint64_t before = wakeUps();
  const pid_t storm = beginBatch(linkMessages(1000));
  const FileDescriptor handle(static_cast<int>(syscall(SYS_pidfd_open, storm, 0)));
  bool over = false;
  EventSource end = loop.onDescriptor(handle.get(), EPOLLIN, [&] {
    over = true;
    end.reset();
  });
  ASSERT_TRUE(comesTrue(loop, [&over] { return over; }));
  EXPECT_TRUE(NetworkNamespace::finish(storm));
  EXPECT_TRUE(comesTrue(loop, [&readings] { return readings > 0; }));
  EXPECT_TRUE(updates.empty());
  timeUntil(disconnected, "route delete default");
  const auto most = static_cast<std::uint64_t>((lastReport - begin) / PathReports::gainDelay) + 1;
  EXPECT_LE(readings, most);
  // The message, the reading with its pieces, and the count of it.
  EXPECT_LE(wakeUps() - before, 10 * most);
}

TEST_F(RouteMonitorStorm, HidesNoChange) {
  // Nobody takes the messages meanwhile, and most are lost.
  ASSERT_TRUE(NetworkNamespace::finish(beginBatch(linkMessages(2000) + "link set cable-peer down\n")));
  EXPECT_TRUE(reports(disconnected));
  timeUntil(viaWiFi, "link set cable-peer up");
}

}  // namespace
}  // namespace kestrune::testing
