#include <gtest/gtest.h>

#include <filesystem>

#include "tests/adapters/AwakeDesk.h"
#include "tests/rig/ForkedProgram.h"
#include "tests/rig/RealDesktop.h"
#include "tests/rig/StartingBus.h"

// The inhibitors with the services that they are for.

namespace kestrune::testing {
namespace {

using Locks = std::vector<std::string>;

/// Holds an assertion in a process of its own, until that is killed.
void holdUntilKilled(PowerAssertionType type, const ForkedProgram::Say& say) {
  EventLoop loop;
  VirtualClock clock;
  SessionBus sessionBus(loop);
  SystemBus systemBus(loop);
  Inhibitors inhibitors(sessionBus, systemBus, clock);
  sessionBus.connect();
  systemBus.connect();
  std::optional<std::uint32_t> identifier;
  const bool held = comesTrueElsewhere(
      loop, [&] { return identifier || (identifier = inhibitors.create(type, on, reason)); });
  say(held ? "held" : "not held");
  loop.runUntil([] { return false; });
}

struct RealLoginTest : AwakeDesk {
  void SetUp() override {
    startBuses();
    login = std::make_unique<RealLogin>(systemDaemon.address());
    ASSERT_TRUE(comesAbout([this] { return login->inhibitors() == Locks{}; }))
        << ::testing::PrintToString(login->inhibitors());
    connect();
  }

  const std::string lock = std::string("idle, Kestrune, ") + reason + ", block";
  std::unique_ptr<RealLogin> login;
};

TEST_F(RealLoginTest, ListsEachAssertionUntilItIsReleased) {
  const auto first = create(display);
  const auto second = create(system);
  ASSERT_TRUE(first && second);
  EXPECT_EQ(login->inhibitors(), (Locks{lock, lock}));
  inhibitors->release(*first);
  EXPECT_TRUE(comesAbout([this] { return login->inhibitors() == Locks{lock}; }));
  inhibitors->release(*second);
  EXPECT_TRUE(comesAbout([this] { return login->inhibitors() == Locks{}; }));
}

TEST_F(RealLoginTest, ForgetsWhatAKilledClientHeld) {
  ForkedProgram client([](const ForkedProgram::Say& say) { holdUntilKilled(system, say); });
  ASSERT_EQ(client.line(), "held");
  EXPECT_EQ(login->inhibitors(), Locks{lock});
  client.end(SIGKILL);
  EXPECT_TRUE(comesAbout([this] { return login->inhibitors() == Locks{}; }));
}

TEST_F(RealLoginTest, IsAskedAgainAfterItsOwnRestart) {
  const auto identifier = create(system);
  ASSERT_TRUE(identifier);
  login.reset();
  EXPECT_TRUE(comesAbout([&] { return !inhibitors->isHeld(*identifier); }));
  login = std::make_unique<RealLogin>(systemDaemon.address());
  EXPECT_TRUE(comesAbout([this] { return login->inhibitors() == Locks{lock}; }));
  EXPECT_TRUE(comesAbout([&] { return inhibitors->isHeld(*identifier); }));
  inhibitors->release(*identifier);
  EXPECT_TRUE(comesAbout([this] { return login->inhibitors() == Locks{}; }));
}

struct RealScreenSaver : AwakeDesk {
  void SetUp() override {
    startBuses();
    service = std::make_unique<RealProgram>(std::vector<std::string>{"stdbuf", "-oL", "xssproxy", "-v"},
                                            screen.variables());
    connect();
  }

  /// Returns when the screen saver holds the assertion.
  std::optional<std::uint32_t> createWhenItIsThere() {
    std::optional<std::uint32_t> identifier;
    comesAbout([&] { return identifier || (identifier = create(display)); });
    return identifier;
  }

  RealDisplay screen;
  std::unique_ptr<RealProgram> service;
};

TEST_F(RealScreenSaver, IsOffWhileTheDisplayIsToStayOn) {
  const auto identifier = createWhenItIsThere();
  ASSERT_TRUE(identifier) << service->output() << service->errors();
  ASSERT_TRUE(comesAbout([this] { return service->says("Disabling screensaver\n"); }))
      << service->output() << service->errors();
  EXPECT_TRUE(comesAbout([this] {
    return service->says(std::string("name='Kestrune' reason='") + reason + "'");
  })) << service->output()
      << service->errors();
  EXPECT_FALSE(service->says("Enabling screensaver\n"));
  inhibitors->release(*identifier);
  EXPECT_TRUE(comesAbout([this] { return service->says("Enabling screensaver\n"); }))
      << service->output() << service->errors();
}

TEST_F(RealScreenSaver, ComesOnAgainWhenTheClientIsGone) {
  ForkedProgram client([](const ForkedProgram::Say& say) { holdUntilKilled(display, say); });
  ASSERT_EQ(client.line(), "held");
  ASSERT_TRUE(comesAbout([this] { return service->says("Disabling screensaver\n"); }))
      << service->output() << service->errors();
  client.end(SIGKILL);
  EXPECT_TRUE(comesAbout([this] { return service->says("Enabling screensaver\n"); }))
      << service->output() << service->errors();
}

TEST_F(RealScreenSaver, IsOffAgainAfterItsOwnRestart) {
  ASSERT_TRUE(createWhenItIsThere()) << service->output() << service->errors();
  service->end();
  service = std::make_unique<RealProgram>(std::vector<std::string>{"stdbuf", "-oL", "xssproxy", "-v"},
                                          screen.variables());
  EXPECT_TRUE(comesAbout([this] { return service->says("Disabling screensaver\n"); }))
      << service->output() << service->errors();
}

struct RealSessionManager : AwakeDesk {
  void SetUp() override {
    startBuses();
    // Of the programs of a session it is to start none.
    std::filesystem::create_directory(screen.home.file("nothing"));
    service = std::make_unique<RealProgram>(
        std::vector<std::string>{"mate-session", "--failsafe", "--disable-acceleration-check", "--autostart",
                                 screen.home.file("nothing")},
        screen.variables());
    ASSERT_GE(sd_bus_open_user(&bus), 0);
    connect();
    ASSERT_TRUE(comesAbout([this] { return isIdleInhibited() == "false"; }))
        << service->output() << service->errors();
  }
  ~RealSessionManager() override { sd_bus_flush_close_unref(bus); }

  std::string isIdleInhibited() const {
    sd_bus_message* reply = nullptr;
    sd_bus_error error{};
    sd_bus_call_method(bus, managerName, "/org/gnome/SessionManager", managerName, "IsInhibited", &error,
                       &reply, "u", 8u);
    sd_bus_error_free(&error);
    return textOf(BusMessage(reply));
  }

  RealDisplay screen;
  std::unique_ptr<RealProgram> service;
  sd_bus* bus = nullptr;
};

TEST_F(RealSessionManager, TakesNobodyForIdleWhileTheDisplayIsToStayOn) {
  ASSERT_TRUE(knowsAll());
  const auto identifier = create(display);
  ASSERT_TRUE(identifier);
  EXPECT_EQ(isIdleInhibited(), "true");
  inhibitors->release(*identifier);
  EXPECT_TRUE(comesAbout([this] { return isIdleInhibited() == "false"; }));
}

TEST_F(RealSessionManager, ForgetsWhatAKilledClientHeld) {
  ForkedProgram client([](const ForkedProgram::Say& say) { holdUntilKilled(display, say); });
  ASSERT_EQ(client.line(), "held");
  EXPECT_EQ(isIdleInhibited(), "true");
  client.end(SIGKILL);
  EXPECT_TRUE(comesAbout([this] { return isIdleInhibited() == "false"; }));
}

TEST_F(AwakeDesk, StartsNoServiceToBeHeld) {
  const ScratchFolder folder;
  const std::string pipe = folder.file("started");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const FileDescriptor started(open(pipe.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
  const std::string script = folder.file("start");
  std::ofstream(script) << "echo $1 >" << pipe << "\n";
  StartingBus bus;
  for (const char* const name : {managerName, saverName, powerName, "com.dovrel.kestrune.marker"}) {
    bus.add(name, "/bin/sh " + script + " " + name);
  }
  bus.start({});
  systemDaemon.start();
  login = serve(loginName, locks.grants());
  connect();
  EXPECT_TRUE(create(display));
  EXPECT_TRUE(create(system));
  sd_bus* caller = nullptr;
  ASSERT_GE(sd_bus_open_user(&caller), 0);
  sd_bus_call_method_async(caller, nullptr, "com.dovrel.kestrune.marker", "/", "a.b", "Start", nullptr,
                           nullptr, "");
  std::string lines;
  EXPECT_TRUE(comesAbout([&] {
    sd_bus_process(caller, nullptr);
    char buffer[256];
    const ssize_t count = read(started.get(), buffer, sizeof buffer);
    if (count > 0) lines.append(buffer, static_cast<std::size_t>(count));
    return lines.find("marker\n") != std::string::npos;
  }));
  sd_bus_flush_close_unref(caller);
  EXPECT_EQ(lines, "com.dovrel.kestrune.marker\n");
}

}  // namespace
}  // namespace kestrune::testing
