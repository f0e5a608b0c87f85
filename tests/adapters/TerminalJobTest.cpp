#include <sys/ioctl.h>

#include "tests/rig/ForkedProgram.h"
#include "tests/rig/RecordingTarget.h"
#include "tests/rig/TerminalRig.h"

namespace kestrune::testing {
namespace {

/// A shell in a session of its own. The shell runs the face (the user interface in the terminal) as its job,
/// and moves this job between foreground and background.
struct TerminalJob : ::testing::Test {
  void SetUp() override {
    ASSERT_EQ(shell.line(), "ready");
    ASSERT_TRUE(screen.shows("row 0"));
  }

  static void face(int inside, const ForkedProgram::Say& say) {
    dup2(inside, STDIN_FILENO);
    dup2(inside, STDOUT_FILENO);
    EventLoop loop;
    CallLog log;
    FakeNotifications desktop{log};
    TerminalFace face(loop, false, desktop);
    const auto target = std::make_shared<RecordingTarget>();
    target->onPerform = [&] { say("performed " + target->performed.back()); };
    face.addToStatusBar(StatusItem::squareLength);
    int version = 0;
    const auto show = [&] {
      face.setMenu(
          {{{.id = 1, .title = "row " + std::to_string(version++), .action = "act", .target = target}}});
    };
    show();
    const EventSource change = loop.onSignal(SIGUSR2, show);
    const EventSource secret = loop.onSignal(SIGALRM, [&face] {
      face.present({[] {
                      View key{.kind = ViewKind::secureTextField, .accessibilityLabel = "key"};
                      return Alert{.messageText = "?",
                                   .informativeText = "",
                                   .buttons = {"OK"},
                                   .accessoryView = std::move(key)};
                    },
                    [](const AlertAnswer&) {}});
    });
    bool asked = false;
    const EventSource question = loop.onSignal(SIGUSR1, [&asked] { asked = true; });
    for (;;) {
      loop.runUntil([&asked] { return asked; });
      asked = false;
      say(isIdle(loop) ? "idle" : "busy");
    }
  }

  void runShell(const ForkedProgram::Say& say) {
    setsid();
    const int inside = terminal.inside.get();
    ioctl(inside, TIOCSCTTY, 0);
    std::signal(SIGTTOU, SIG_IGN);
    termios settings = terminal.settings();
    settings.c_lflag |= TOSTOP;
    tcsetattr(inside, TCSANOW, &settings);
    const pid_t job = fork();
    if (job == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      setpgid(0, 0);
      std::signal(SIGTTOU, SIG_DFL);
      face(inside, say);
      _exit(0);
    }
    setpgid(job, job);
    say("ready");
    char command = 0;
    while (read(commands.reading.get(), &command, 1) == 1) {
      if (command == 'f') tcsetpgrp(inside, job);
      if (command == 'b') tcsetpgrp(inside, getpgrp());
      if (command == 'c') kill(job, SIGCONT);
      if (command == 'm') kill(job, SIGUSR2);
      if (command == 'i') kill(job, SIGUSR1);
      if (command == 's') kill(job, SIGALRM);
      if (command == 'e') terminal.setEcho(true);
      if (command == '?') {
        int status = 0;
        say(waitpid(job, &status, WUNTRACED | WNOHANG) == 0 ? "runs" : "stopped or ended");
      }
    }
    kill(job, SIGKILL);
    waitpid(job, nullptr, 0);
  }

  static void put(const FileDescriptor& end, std::string_view text) {
    ASSERT_EQ(write(end.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  void command(std::string_view letters) { put(commands.writing, letters); }
  void type(std::string_view text) { put(terminal.outside, text); }
  void TearDown() override { commands.writing.reset(); }

  PseudoTerminal terminal;
  PipeEnds commands;
  ForkedProgram shell{[this](const ForkedProgram::Say& say) {
    commands.writing.reset();
    runShell(say);
  }};
  EventLoop loop;
  Screen screen{loop, terminal.outside.get()};
};

TEST_F(TerminalJob, PrintsInTheBackgroundWithoutSpinning) {
  type("1\n");
  for (int version = 1; version <= 3; ++version) {
    command("m");
    EXPECT_TRUE(screen.shows("row " + std::to_string(version)));
  }
  command("?");
  EXPECT_EQ(shell.line(), "runs");
  command("i");
  EXPECT_EQ(shell.line(), "idle") << "though it cannot read what is there";
}

TEST_F(TerminalJob, ReadsWhenItIsContinuedInTheForeground) {
  type("1\n");
  command("m");
  ASSERT_TRUE(screen.shows("row 1"));
  command("fc");
  EXPECT_EQ(shell.line(), "performed act");
}

TEST_F(TerminalJob, PrintsTheMenuAgainWhenItIsContinuedInTheForegroundOnly) {
  screen.text.clear();
  command("ci");
  ASSERT_EQ(shell.line(), "idle");
  command("fc");
  EXPECT_TRUE(screen.shows("row 0\n列號或按鍵> "));
  EXPECT_EQ(screen.count("row 0"), 1U);
}

TEST_F(TerminalJob, HidesASecretAgainInTheForegroundWithoutSIGCONT) {
  command("fcs");
  ASSERT_TRUE(screen.shows("key（未填，輸入時不顯示）> "));
  // bash sends SIGCONT (c) for the command "bg", but not for "fg" after it.
  command("beci");
  ASSERT_EQ(shell.line(), "idle");
  EXPECT_TRUE(terminal.isEchoed());
  screen.text.clear();
  command("f");
  EXPECT_TRUE(screen.shows("key（未填，輸入時不顯示）> "));
  EXPECT_FALSE(terminal.isEchoed());
}

TEST_F(TerminalJob, ReadsAgainAfterItWasInTheBackground) {
  command("f?");
  ASSERT_EQ(shell.line(), "runs");
  type("1\n");
  ASSERT_EQ(shell.line(), "performed act");
  command("bm");
  ASSERT_TRUE(screen.shows("row 1"));
  command("f?");
  ASSERT_EQ(shell.line(), "runs");
  type("1\n");
  EXPECT_EQ(shell.line(), "performed act");
}

}  // namespace
}  // namespace kestrune::testing
