#include <libintl.h>
#include <sched.h>

#include <algorithm>
#include <clocale>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <optional>

#include "ports/Host.h"
#include "tests/rig/ForkedProgram.h"
#include "tests/rig/ResourceLimit.h"
#include "tests/rig/ScratchFolder.h"
#include "tests/rig/TerminalRig.h"

namespace kestrune::testing {
namespace {

/// An application that shows a small menu and a notification, and then ends.
class Demonstration final : public ApplicationDelegate {
 public:
  explicit Demonstration(Platform& givenPlatform) : platform(givenPlatform) {}

  void applicationDidFinishLaunching() override {
    platform.statusItem.addToStatusBar(StatusItem::squareLength);
    platform.statusItem.setButton({.toolTip = "the title"});
    platform.statusItem.setMenu({{{.id = 1, .title = "the row", .enabled = false}}});
    platform.notifications.add({.identifier = "1", .title = "the news", .body = "of the day"});
    platform.dispatch.mainQueue().async([this] { platform.application->terminate(); });
  }
  void applicationWillTerminate() override {}

 private:
  Platform& platform;
};

/// Runs an application with the terminal face (the user interface in a terminal) and all real adapters.
struct TerminalHost : ::testing::Test {
  using Variables = std::map<std::string, std::optional<std::string>>;

  /// Runs the application with these standard streams and environment variables. Absent: not set.
  static void demonstrate(int input, int output, const Variables& variables = {}) {
    ForkedProgram program([&](const ForkedProgram::Say& say) {
      for (const auto& [name, value] : variables)
        value ? setenv(name.c_str(), value->c_str(), 1) : unsetenv(name.c_str());
      const StandardStreams streams(input, output);
      const auto host = makeHost({.terminal = true});
      Demonstration demonstration(host->platform());
      host->platform().application->run(demonstration);
      say("done");
    });
    ASSERT_EQ(program.line(), "done");
  }

  /// Returns what the application prints on a terminal.
  std::string shown(const std::optional<std::string>& term, const std::optional<std::string>& noColor) {
    const PseudoTerminal terminal;
    demonstrate(terminal.inside.get(), terminal.inside.get(), {{"TERM", term}, {"NO_COLOR", noColor}});
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

TEST_F(TerminalHost, UsesNoColoursIfTheyAreSwitchedOffOrTheTerminalIsDumb) {
  const std::pair<std::optional<std::string>, std::optional<std::string>> environments[] = {
      {"xterm", "1"}, {"dumb", std::nullopt}, {std::nullopt, std::nullopt}};
  for (const auto& [term, noColor] : environments) {
    const std::string text = shown(term, noColor);
    EXPECT_EQ(text.find('\x1b'), std::string::npos) << text;
    EXPECT_NE(text.find("the title"), std::string::npos) << text;
  }
}

TEST_F(TerminalHost, UsesNoColoursInAPipe) {
  const PseudoTerminal terminal;
  const PipeEnds pipe;
  demonstrate(terminal.inside.get(), pipe.writing.get(), {{"TERM", "xterm"}, {"NO_COLOR", std::nullopt}});
  Screen screen(loop, pipe.reading.get());
  EXPECT_TRUE(screen.shows("the row"));
  EXPECT_EQ(screen.text.find('\x1b'), std::string::npos);
}

TEST_F(TerminalHost, WorksWithoutInputAsAService) {
  const FileDescriptor nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
  for (const int input : {nothing.get(), -1}) {
    const PipeEnds pipe;
    demonstrate(input, pipe.writing.get());
    Screen screen(loop, pipe.reading.get());
    EXPECT_TRUE(screen.shows("the news：of the day"));
    EXPECT_TRUE(screen.shows("the row"));
  }
}

namespace fs = std::filesystem;

/// Returns whether this process has the standard output pipe of `pid` open.
bool hasOutputPipeOf(pid_t pid) {
  const fs::path pipe = fs::read_symlink("/proc/" + std::to_string(pid) + "/fd/1");
  std::error_code ignored;
  return std::ranges::any_of(fs::directory_iterator("/proc/self/fd"),
                             [&](const auto& each) { return fs::read_symlink(each, ignored) == pipe; });
}

TEST(WholeHost, KeepsTheOutputPipeOfAServiceThatOutlivesItsCommand) {
  ForkedProgram program([](const ForkedProgram::Say& say) {
    const auto host = makeHost({});
    auto child = std::move(*host->platform().processes.launch("/bin/sh", {"-c", "sleep 60 & echo $!"}));
    while (child->isRunning()) sched_yield();
    const pid_t service = std::stoi(child->readOutput(Seconds{0.1}));
    child.reset();
    say(hasOutputPipeOf(service) ? "open" : "closed");
    kill(service, SIGKILL);
  });
  EXPECT_EQ(program.line(), "open");
}

/// Writes a catalogue of translated messages (.mo file), as msgfmt does.
void writeCatalogue(const fs::path& file, std::map<std::string, std::string> messages) {
  messages[""] = "Content-Type: text/plain; charset=UTF-8\n";
  const auto count = static_cast<std::uint32_t>(messages.size());
  constexpr std::uint32_t magic = 0x950412de, headSize = 28, entrySize = 8;
  const std::uint32_t translations = headSize + count * entrySize, texts = translations + count * entrySize;
  std::vector<std::uint32_t> numbers{magic, 0, count, headSize, translations, 0, texts};
  std::string bytes;
  const auto add = [&](const std::string& text) {
    numbers.push_back(static_cast<std::uint32_t>(text.size()));
    numbers.push_back(texts + static_cast<std::uint32_t>(bytes.size()));
    bytes += text + '\0';
  };
  for (const auto& [original, translation] : messages) add(original);
  for (const auto& [original, translation] : messages) add(translation);
  fs::create_directories(file.parent_path());
  std::ofstream(file, std::ios::binary)
          .write(reinterpret_cast<const char*>(numbers.data()),
                 static_cast<std::streamsize>(numbers.size() * sizeof numbers[0]))
      << bytes;
}

/// Runs code with the client's real adapters. In the locale test.UTF-8, two error messages of the C library
/// are translated.
struct MessageLanguage : ::testing::Test {
  MessageLanguage() {
    writeCatalogue(
        folder.file("test/LC_MESSAGES/libc.mo"),
        {{"No such file or directory", "沒有此一檔案或目錄"}, {"Too many open files", "開啟太多檔案"}});
    // glibc 2.39 and later translate nothing in the locale C.UTF-8, so this link gives the locale another
    // name.
    fs::create_directory_symlink("/usr/lib/locale/C.utf8", folder.file("test.utf8"));
  }

  using Body = std::function<void(Processes&, const ForkedProgram::Say&)>;

  ForkedProgram programIn(const char* locale, const Body& body) {
    return ForkedProgram([&](const ForkedProgram::Say& say) {
      setenv("LC_ALL", locale, 1);
      setenv("LANGUAGE", "test", 1);
      setenv("LOCPATH", folder.file(".").c_str(), 1);
      bindtextdomain("libc", folder.file(".").c_str());
      const auto host = makeHost({.terminal = true});
      body(host->platform().processes, say);
    });
  }

  /// In the given locale, tries to launch a program that does not exist. Returns the error message.
  std::string complaintIn(const char* locale) {
    return programIn(locale,
                     [](Processes& processes, const ForkedProgram::Say& say) {
                       say(processes.launch("/no/such/program", {}).reason());
                     })
        .line();
  }

  ScratchFolder folder;
};

constexpr auto otherLocale = "test.UTF-8";

TEST_F(MessageLanguage, FollowsTheSession) {
  EXPECT_EQ(complaintIn(otherLocale), "沒有此一檔案或目錄");
}

TEST_F(MessageLanguage, IsEnglishWithoutALocale) {
  EXPECT_EQ(complaintIn("C"), "No such file or directory");
  EXPECT_EQ(complaintIn("no_SUCH.UTF-8"), "No such file or directory");
}

TEST_F(MessageLanguage, WorksWithoutFreeDescriptors) {
  ForkedProgram program = programIn(otherLocale, [](Processes& processes, const ForkedProgram::Say& say) {
    const ResourceLimit none(RLIMIT_NOFILE, 0);
    say(processes.launch("/bin/true", {}).reason());
  });
  EXPECT_EQ(program.line(), "開啟太多檔案");
}

TEST_F(MessageLanguage, ChangesNoOtherCategory) {
  ForkedProgram program = programIn(otherLocale, [](Processes&, const ForkedProgram::Say& say) {
    for (const int category : {LC_CTYPE, LC_NUMERIC, LC_COLLATE, LC_TIME, LC_MONETARY}) {
      say(std::setlocale(category, nullptr));
    }
  });
  for (int category = 0; category < 5; ++category) EXPECT_EQ(program.line(), "C");
}

}  // namespace
}  // namespace kestrune::testing
