#include <filesystem>

#include "tests/adapters/AwakeDesk.h"
#include "tests/rig/RealDesktop.h"

// Tests of the inhibitors with real services (xssproxy and mate-session).

namespace kestrune::testing {
namespace {

struct RealScreenSaver : AwakeDesk {
  void SetUp() override {
    startBuses();
    service = std::make_unique<RealProgram>(std::vector<std::string>{"stdbuf", "-oL", "xssproxy", "-v"},
                                            screen.variables());
    connect();
  }

  bool comesToSay(const std::string& text) {
    return comesAbout([&] { return service->says(text); });
  }

  RealDisplay screen;
  std::unique_ptr<RealProgram> service;
};

TEST_F(RealScreenSaver, IsDisabledWhileAnInhibitorIsHeld) {
  std::optional<std::uint32_t> identifier;
  ASSERT_TRUE(comesAbout([&] { return identifier || (identifier = create(display)); })) << service->errors();
  ASSERT_TRUE(comesToSay("Disabling screensaver\n")) << service->errors();
  EXPECT_TRUE(comesToSay(std::string("name='Kestrune' reason='") + reason + "'")) << service->output();
  EXPECT_FALSE(service->says("Enabling screensaver\n"));
  inhibitors->release(*identifier);
  EXPECT_TRUE(comesToSay("Enabling screensaver\n")) << service->output();
}

struct RealSessionManager : AwakeDesk {
  void SetUp() override {
    startBuses();
    // The autostart folder is empty, so that mate-session starts no programs.
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

TEST_F(RealSessionManager, IsIdleInhibitedWhileAnInhibitorIsHeld) {
  ASSERT_TRUE(knowsAll());
  const auto identifier = create(display).value();
  EXPECT_EQ(isIdleInhibited(), "true");
  inhibitors->release(identifier);
  EXPECT_TRUE(comesAbout([this] { return isIdleInhibited() == "false"; }));
}

TEST_F(AwakeDesk, StartsNoServiceToHoldAnInhibitor) {
  const ScratchFolder folder;
  const std::string started = folder.file("started"), script = folder.file("start");
  put(script, "echo $1 >>" + started + "\n");
  PrivateBus bus;
  for (const char* const name : {managerName, saverName, powerName, "com.dovrel.kestrune.marker"}) {
    bus.add(name, "/bin/sh " + script + " " + name);
  }
  bus.start();
  systemDaemon.start();
  login = serve(loginName, locks.grants());
  connect();
  EXPECT_TRUE(create(display));
  EXPECT_TRUE(create(system));
  ASSERT_TRUE(knowsAll());  // the bus has received all calls of the client
  sd_bus* caller = nullptr;
  ASSERT_GE(sd_bus_open_user(&caller), 0);
  // This call starts the last service. It fails when the script ends.
  sd_bus_call_method(caller, "com.dovrel.kestrune.marker", "/", "a.b", "Start", nullptr, nullptr, "");
  sd_bus_flush_close_unref(caller);
  EXPECT_EQ(contentsOf(started), "com.dovrel.kestrune.marker\n");
}

}  // namespace
}  // namespace kestrune::testing
