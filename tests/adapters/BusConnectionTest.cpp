#include <sys/socket.h>

#include <filesystem>

#include "adapters/instance/InstanceFolders.h"
#include "tests/rig/StandardErrorText.h"
#include "tests/rig/TrayDesk.h"

namespace kestrune::testing {
namespace {

using BusConnection = EmptyDesk;

TEST_F(BusConnection, ClientsHearOfConnectionAndLossOnce) {
  daemon.start();
  const StandardErrorText errors;
  RoundTrip removed(bus);
  bus.remove(removed);
  { const RoundTrip destroyed(bus); }
  bus.connect();
  EXPECT_NE(probe.bus, nullptr);
  const RoundTrip late(bus);
  EXPECT_EQ(late.connections, 1);
  probe.catchUp(loop);
  EXPECT_EQ(probe.losses, 0);
  EXPECT_EQ(errors.text(), "");
  daemon.stop();
  ASSERT_TRUE(comesTrue(loop, [this] { return probe.losses == 1; }));
  EXPECT_EQ(probe.connections, 1);
  EXPECT_EQ(probe.bus, nullptr);
  EXPECT_EQ(removed.connections, 0);
}

TEST_F(BusConnection, CanWaitForTheAuthenticationAndHasNoTimeout) {
  bus.waitUntilReady();  // returns although there is no connection
  daemon.start();
  bus.connect();
  EXPECT_EQ(sd_bus_is_ready(probe.bus), 0);
  std::uint64_t timeout = 0;
  sd_bus_get_method_call_timeout(probe.bus, &timeout);
  EXPECT_EQ(timeout, UINT64_MAX);
  // One call waits for 20 ms at most, and the bus of a busy machine may need more.
  for (int calls = 0; calls < 1000 && sd_bus_is_ready(probe.bus) == 0; ++calls) bus.waitUntilReady();
  EXPECT_GT(sd_bus_is_ready(probe.bus), 0);
}

TEST_F(BusConnection, DoesNotBlockOnAStoppedBus) {
  daemon.start();
  daemon.freeze();
  EXPECT_LT(durationOf([this] { bus.connect(); }), soon);
  EXPECT_LT(durationOf([this] { bus.waitUntilReady(); }), soon);
  EXPECT_LT(durationOf([this] { settleQueue(loop); }), soon);
  daemon.thaw();
  probe.catchUp(loop);
  EXPECT_EQ(probe.connections, 1);
}

TEST_F(BusConnection, ReconnectsWhenTheBusEndsBeforeItAnswers) {
  daemon.start();
  daemon.freeze();
  bus.connect();
  settleQueue(loop);
  daemon.stop();
  daemon.start();
  ASSERT_TRUE(comesTrue(loop, [this] { return probe.connections == 2; }));
  probe.catchUp(loop);
}

TEST_F(BusConnection, RetryDelayGrowsWhileNobodyAnswers) {
  const std::filesystem::path path = daemon.address().substr(std::string_view("unix:path=").size());
  const FileDescriptor listening = instanceSocket(path.parent_path(), path.filename().c_str(), &::bind);
  ASSERT_EQ(listen(listening.get(), 8), 0);
  std::vector<std::chrono::steady_clock::time_point> attempts;
  const EventSource accepting = loop.onDescriptor(listening.get(), EPOLLIN, [&] {
    const FileDescriptor hungUp(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
    attempts.push_back(std::chrono::steady_clock::now());
  });
  bus.connect();
  ASSERT_TRUE(comesTrue(loop, [&attempts] { return attempts.size() == 4; }));
  // The waits between these four attempts must grow: 0.1, 0.2 and 0.4 s, 0.7 s in total. Constant waits of
  // 0.1 s would take 0.3 s in total.
  EXPECT_GT(Seconds(attempts.back() - attempts.front()), Seconds{0.5});
}

TEST_F(BusConnection, SystemBusUsesItsOwnAddress) {
  daemon.start();
  SystemBus machine(loop);
  RoundTrip client(machine);
  const ScopedVariable nowhere("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/dev/null/bus");
  machine.connect();
  EXPECT_EQ(client.bus, nullptr);
  EXPECT_EQ(client.connections, 0);
  const ScopedVariable found("DBUS_SYSTEM_BUS_ADDRESS", daemon.address());
  const ScopedVariable none("DBUS_SESSION_BUS_ADDRESS", "unix:path=/dev/null/bus");
  ASSERT_TRUE(comesTrue(loop, [&client] { return client.connections == 1; }));
  EXPECT_NE(client.bus, nullptr);
  client.catchUp(loop);
  EXPECT_EQ(client.losses, 0);
}

TEST_F(BusConnection, MissingBusIsReportedOnce) {
  // reportOnce prints each message once per process. The child process below inherits the set of messages
  // that other tests have printed. So cause an error (ENOTDIR) that no other test causes.
  const ScratchFolder folder;
  std::ofstream(folder.file("file")) << "not a folder";
  ForkedProgram program([&folder](const ForkedProgram::Say& say) {
    setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + folder.file("file/bus")).c_str(), 1);
    EventLoop ownLoop;
    SessionBus ownBus(ownLoop);
    ownBus.connect();
    ownBus.connect();
    say(RoundTrip(ownBus).bus != nullptr ? "connected" : "alone");
  });
  EXPECT_EQ(program.line(), "alone");
  program.waitForEnd();
  const std::string said = program.standardError();
  EXPECT_EQ(said.rfind("KestruneMenuClient: no session bus (Not a directory)", 0), 0u) << said;
  EXPECT_EQ(said.find('\n'), said.size() - 1) << said;
}

}  // namespace
}  // namespace kestrune::testing
