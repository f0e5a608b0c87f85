#include <gtest/gtest.h>

#include <optional>

#include "ports/Host.h"
#include "tests/rig/ForkedProgram.h"
#include "tests/rig/TerminalRig.h"

namespace kestrune::testing {
namespace {

/// An application that shows a small menu and a notification, and then ends.
class Demonstration final : public ApplicationDelegate {
 public:
  explicit Demonstration(Platform& givenPlatform) : platform(givenPlatform) {}

  void applicationDidFinishLaunching() override {
    item = platform.statusBar.statusItem(squareStatusItemLength);
    StatusButton button;
    button.toolTip = "the title";
    item->setButton(button);
    item->setMenu({{{.id = 1, .title = "the row", .enabled = false}}});
    platform.notifications.add({.identifier = "1", .title = "the news", .body = "of the day"});
    platform.dispatch.mainQueue().async([this] { platform.application->terminate(); });
  }
  void applicationWillTerminate() override {}

 private:
  Platform& platform;
  std::unique_ptr<StatusItem> item;
};

/// Runs an application with the terminal face (the user interface in a terminal) and all real adapters.
struct TerminalHost : ::testing::Test {
  static void demonstrate() {
    const auto host = makeHost({.face = Face::terminal});
    Demonstration demonstration(host->platform());
    host->platform().application->run(demonstration);
  }

  /// Returns the output on a terminal, with the given values of TERM and NO_COLOR (absent: not set).
  std::string shown(const std::optional<std::string>& term, const std::optional<std::string>& noColor) {
    PseudoTerminal terminal;
    ForkedProgram program([&](const ForkedProgram::Say& say) {
      const auto set = [](const char* name, const std::optional<std::string>& value) {
        value ? setenv(name, value->c_str(), 1) : unsetenv(name);
      };
      set("TERM", term);
      set("NO_COLOR", noColor);
      const StandardStreams streams(terminal.inside.get(), terminal.inside.get());
      demonstrate();
      say("done");
    });
    EXPECT_EQ(program.line(), "done");
    Screen screen(loop, terminal.outside.get());
    EXPECT_TRUE(screen.shows("> "));
    return screen.text;
  }

  EventLoop loop;
};

TEST_F(TerminalHost, UsesColoursOnATerminal) {
  EXPECT_NE(shown("xterm", std::nullopt).find("\x1b[1mthe title\x1b[0m"), std::string::npos);
  EXPECT_NE(shown("xterm", "").find("\x1b[1mthe title\x1b[0m"), std::string::npos);
}

TEST_F(TerminalHost, UsesNoColoursWhereNobodyWantsThem) {
  const std::pair<std::optional<std::string>, std::optional<std::string>> environments[] = {
      {"xterm", "1"}, {"dumb", std::nullopt}, {std::nullopt, std::nullopt}};
  for (const auto& [term, noColor] : environments) {
    const std::string text = shown(term, noColor);
    EXPECT_EQ(text.find('\x1b'), std::string::npos) << text;
    EXPECT_NE(text.find("the title"), std::string::npos) << text;
  }
}

TEST_F(TerminalHost, UsesNoColoursInAPipe) {
  PipeEnds pipe;
  ForkedProgram program([&](const ForkedProgram::Say& say) {
    setenv("TERM", "xterm", 1);
    unsetenv("NO_COLOR");
    const PseudoTerminal terminal;
    const StandardStreams streams(terminal.inside.get(), pipe.writing.get());
    demonstrate();
    say("done");
  });
  ASSERT_EQ(program.line(), "done");
  Screen screen(loop, pipe.reading.get());
  EXPECT_TRUE(screen.shows("the row"));
  EXPECT_EQ(screen.text.find('\x1b'), std::string::npos);
}

TEST_F(TerminalHost, WorksWithoutInputAsAService) {
  const FileDescriptor nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
  for (const int input : {nothing.get(), -1}) {
    PipeEnds pipe;
    ForkedProgram program([&](const ForkedProgram::Say& say) {
      const StandardStreams streams(input, pipe.writing.get());
      demonstrate();
      say("done");
    });
    ASSERT_EQ(program.line(), "done");
    Screen screen(loop, pipe.reading.get());
    EXPECT_TRUE(screen.shows("the news：of the day"));
    EXPECT_TRUE(screen.shows("the row"));
  }
}

TEST_F(TerminalHost, WorksWithoutAnyStandardStream) {
  PipeEnds pipe;
  for (const int input : {pipe.reading.get(), -1}) {
    ForkedProgram program([&](const ForkedProgram::Say& say) {
      if (input < 0) close(STDERR_FILENO);
      const StandardStreams streams(input, -1);
      demonstrate();
      say("done");
    });
    EXPECT_EQ(program.line(), "done");
  }
}

}  // namespace
}  // namespace kestrune::testing
