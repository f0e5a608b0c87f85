#include <algorithm>

#include "adapters/files/AutostartEntries.h"
#include "adapters/files/Files.h"
#include "tests/rig/FakePlatform.h"
#include "tests/rig/FileTest.h"
#include "tests/rig/OutputOf.h"
#include "tests/rig/ScopedVariable.h"
#include "text/Text.h"

namespace kestrune::testing {
namespace {

constexpr auto label = "com.example.client";

/// Folder names. The client writes a path with one of `plainNames` into an Exec key. It refuses a path with
/// one of `otherNames`: each contains "=", which the path of a program in Exec must not contain, or a
/// character that not all desktops unescape in the same way.
const std::vector<std::string> plainNames{"plain", "with blank 引號 '單' a;b|c&d<e>f*? [x] {y} #hash ~ (z)!"};
const std::vector<std::string> otherNames{"引號 \"雙\"", "$HOME",          "`id`",      "100% %f %%",
                                          "a=b",         "back\\slash\\n", "tab\there", "line\nend"};

struct AutostartEntriesTest : FileTest {
  const ScratchFolder& home = folder;
  FakeMainBundle bundle;
  SystemFileManager files{"/home/u"};
  AutostartEntries agents{files, home.file("autostart"), bundle};
  const std::string path = agents.path(label);

  AutostartEntriesTest() { fs::create_directory(home.file("autostart")); }

  static std::vector<std::string> allNames() {
    std::vector<std::string> names = plainNames;
    names.insert(names.end(), otherNames.begin(), otherNames.end());
    return names;
  }

  void put(const std::string& text) const { testing::put(path, text); }
  static void makeBackend(const std::string& repo) {
    fs::create_directories(repo + "/.venv/bin");
    testing::put(repo + "/.venv/bin/activate", "");
  }

  /// Creates a program in the folder `below`, and returns its path. The program writes three things to
  /// the file $NOTES: $KESTRUNE_REPO_PATH (or its working directory if the variable is unset), its own path,
  /// and its arguments.
  std::string program(const std::string& below, const std::string& name = "KestruneMenuClient") const {
    fs::create_directories(home.file(below));
    const std::string file = home.file(below) + "/" + name;
    testing::put(file,
                 "#!/bin/sh\n{ cd \"${KESTRUNE_REPO_PATH:-.}\"; pwd; printf '%s\\n' \"$0\" \"$@\"; } > "
                 "\"$NOTES\"\n",
                 0755);
    return file;
  }

  /// Runs `command`, which starts the program in the background. Returns what the command prints, and what
  /// the program writes to $NOTES before it closes the file or 20 s are over.
  std::string notesAfter(const std::string& command) const {
    const std::string notes = home.file("notes");
    fs::remove(notes);
    EXPECT_EQ(mkfifo(notes.c_str(), 0600), 0);
    const ScopedVariable noted("NOTES", notes);
    const ScopedVariable unset("KESTRUNE_REPO_PATH", std::nullopt);
    return outputOf("{ timeout 20 cat \"$NOTES\" & " + command + "; wait; }");
  }
};

TEST_F(AutostartEntriesTest, EntryStartsTheProgramInTheBackground) {
  bundle.bundle = "/home/u/repo/dist/app";
  EXPECT_EQ(agents.document(label, "/home/u/repo/dist/app/client", "/home/u/repo"),
            "[Desktop Entry]\n"
            "Type=Application\n"
            "Name=Kestrune\n"
            "Comment=Keeps the bridge to the phone connected\n"
            "Comment[zh_TW]=保持手機連線\n"
            "Exec=\"/home/u/repo/dist/app/client\" --background\n"
            "TryExec=/home/u/repo/dist/app/client\n"
            "Path=/home/u/repo\n"
            "Icon=KestruneMacClient\n"
            "Terminal=false\n"
            "StartupNotify=false\n"
            "X-GNOME-Autostart-enabled=true\n");
}

TEST_F(AutostartEntriesTest, OnlyAFolderWithABackendIsNamed) {
  const std::string repo = home.file("repo");
  EXPECT_EQ(agents.document(label, "/opt/client", repo)->find("KESTRUNE_REPO_PATH"), std::string::npos);
  makeBackend(repo);
  EXPECT_NE(agents.document(label, "/opt/client", repo)->find("KESTRUNE_REPO_PATH"), std::string::npos);
}

TEST_F(AutostartEntriesTest, RelativeRepositoryBecomesAbsolute) {
  bundle.bundle = "/home/u/repo/dist/app";
  bundle.currentDirectory = "/home/u";
  bundle.environment["KESTRUNE_REPO_PATH"] = "repo";
  const std::string entry = *agents.document(label, "/opt/client", "repo");
  EXPECT_NE(entry.find("\nExec=env \"KESTRUNE_REPO_PATH=/home/u/repo\" \"/opt/client\""), entry.npos)
      << entry;
  EXPECT_NE(entry.find("\nPath=/home/u/repo\n"), entry.npos) << entry;
}

TEST_F(AutostartEntriesTest, EntriesAreValidDesktopEntries) {
  for (const bool named : {false, true}) {
    if (named) bundle.environment["KESTRUNE_REPO_PATH"] = "set";
    for (const auto& name : allNames()) {
      put(*agents.document(label, "/opt/KestruneMenuClient", home.file(name)));
      EXPECT_EQ(outputOf("desktop-file-validate " + path), "") << name;
    }
    for (const auto& name : plainNames) {
      put(*agents.document(label, home.file(name) + "/KestruneMenuClient", "/repo"));
      EXPECT_EQ(outputOf("desktop-file-validate " + path), "") << name;
    }
  }
}

TEST_F(AutostartEntriesTest, PathThatCannotBeQuotedIsRefused) {
  for (const auto& name : otherNames) {
    EXPECT_FALSE(agents.document(label, home.file(name) + "/KestruneMenuClient", "/repo")) << name;
  }
  EXPECT_FALSE(agents.document(label, "/not\xFFtext/KestruneMenuClient", "/repo"));
  EXPECT_FALSE(agents.document(label, "/opt/KestruneMenuClient", "/not\xFFtext"));
}

TEST_F(AutostartEntriesTest, LaunchersRunTheEntryWithTheRightArguments) {
  for (const bool named : {false, true}) {
    if (named) bundle.environment["KESTRUNE_REPO_PATH"] = "set";
    for (const auto& name : allNames()) {
      const std::string repo = home.file(name);
      fs::create_directories(repo);
      if (!named) makeBackend(repo);
      const bool isPlain = std::find(plainNames.begin(), plainNames.end(), name) != plainNames.end();
      const std::string executable = program((isPlain ? name : "other") + "/bin");
      const std::string entry = *agents.document(label, executable, repo);
      if (isPlain) {  // must also work in a session that ignores the key Path
        put(replacingAll(entry, "\nPath=", "\nX-Ignored="));
        EXPECT_EQ(notesAfter("gio launch " + path), repo + "\n" + executable + "\n--background\n") << entry;
      }
      put(entry);
      EXPECT_EQ(notesAfter("gio launch " + path), repo + "\n" + executable + "\n--background\n") << entry;
      if (name.find_first_of("\\\t\n") != std::string::npos) continue;  // dex(1) fails with such a name
      EXPECT_EQ(notesAfter("dex --wait " + path), repo + "\n" + executable + "\n--background\n")
          << contentsOf(path);
    }
  }
}

TEST_F(AutostartEntriesTest, EntrySwitchedOffByTheDesktopIsNotRegistered) {
  const std::string entry = *agents.document(label, "/opt/client", "/repo");
  put(entry);
  EXPECT_TRUE(agents.isRegistered(label));
  for (const std::string off : {"Hidden=true\n", "Hidden = true\n", "Hidden=true\r\n"}) {
    put(entry + off);
    EXPECT_FALSE(agents.isRegistered(label)) << off;
  }
  put("[Desktop Entry]\nExec=client\nX-GNOME-Autostart-enabled=false\n");
  EXPECT_FALSE(agents.isRegistered(label));
}

TEST_F(AutostartEntriesTest, EntryStaysRegisteredWhenOtherKeysAreSet) {
  for (const std::string on :
       {"[Desktop Entry]\n", "[Desktop Entry]\nHidden=false\n", "[Desktop Entry]\n#Hidden=true\n",
        "[Desktop Entry]\nNoDisplay=true\n", "[Desktop Entry]\n[Desktop Action a]\nHidden=true\n",
        "[Desktop Entry]\nHidden=false\nHidden=true\n", "", "rubbish"}) {
    put(on);
    EXPECT_TRUE(agents.isRegistered(label)) << on;
  }
}

TEST_F(AutostartEntriesTest, FolderOrLinkToDevNullIsNotRegistered) {
  fs::create_symlink("/dev/null", path);
  EXPECT_FALSE(agents.isRegistered(label));
  ASSERT_TRUE(files.writeAtomically(path, *agents.document(label, "/program", "/repository")));
  EXPECT_TRUE(agents.isRegistered(label));
  fs::remove(path);
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_TRUE(agents.isRegistered(label)) << "though it cannot be read";
  fs::remove(path);
  fs::create_directory(path);
  EXPECT_FALSE(agents.isRegistered(label));
}

TEST_F(AutostartEntriesTest, RepairReplacesAProgramThatIsGone) {
  for (const auto& name : plainNames) {
    const std::string gone = home.file(name) + "/old/KestruneMenuClient";
    const std::string present = program(name + "/new");
    bundle.environment["KESTRUNE_REPO_PATH"] = "set";
    put(*agents.document(label, gone, home.file(name)));
    bundle.executable = present;
    bundle.environment.clear();
    agents.repair(label, home.file("present"));
    bundle.environment["KESTRUNE_REPO_PATH"] = "set";
    EXPECT_EQ(contentsOf(path), agents.document(label, present, home.file(name)));
  }
}

TEST_F(AutostartEntriesTest, RepairReplacesARepositoryThatIsGone) {
  const std::string present = program("new");
  for (const bool named : {false, true}) {
    for (const auto& name : allNames()) {
      if (named) bundle.environment["KESTRUNE_REPO_PATH"] = "set";
      put(*agents.document(label, home.file("gone") + "/KestruneMenuClient", home.file("gone") + name));
      const auto expected = agents.document(label, present, home.file(name));
      bundle.executable = present;
      bundle.environment.clear();
      agents.repair(label, home.file(name));
      EXPECT_EQ(contentsOf(path), expected);
    }
  }
}

TEST_F(AutostartEntriesTest, RepairLeavesOtherEntriesAlone) {
  const std::string there = program("there");
  const std::string gone = home.file("gone") + "/KestruneMenuClient";
  const std::string building = program("tree/build/release");
  std::ofstream(home.file("tree/build/CMakeCache.txt")) << "\n";
  const std::tuple<const char*, std::string, std::optional<std::string>> cases[] = {
      {"its program is there", *agents.document(label, there, "/repo"), program("other")},
      {"the running one may go as easily", *agents.document(label, gone, "/repo"), building},
      {"the running one cannot be written", *agents.document(label, gone, "/repo"), program("a$b")},
      {"nobody knows which one runs", *agents.document(label, gone, "/repo"), std::nullopt},
      {"it starts something else", *agents.document(label, home.file("gone") + "/other", "/repo"), there},
      {"its command was changed", "[Desktop Entry]\nExec=sh -c client\nTryExec=" + gone + "\n", there},
      {"it has no program", "[Desktop Entry]\nExec=\"" + gone + "\"\n", there},
      {"it is empty", "", there},
  };
  for (const auto& [name, entry, running] : cases) {
    put(entry);
    bundle.executable = running;
    agents.repair(label, "/repo");
    EXPECT_EQ(contentsOf(path), entry) << name;
  }
  fs::remove(path);
  bundle.executable = there;
  agents.repair(label, "/repo");
  EXPECT_FALSE(fs::exists(path)) << "made where there is none";
}

TEST_F(AutostartEntriesTest, RepairLeavesPathsThatCannotBeChecked) {
  bundle.executable = program("there");
  bundle.environment["KESTRUNE_REPO_PATH"] = "set";
  fs::create_symlink("loop", home.file("loop"));  // stat fails with ELOOP, also for root
  const std::string gone = home.file("gone") + "/KestruneMenuClient";
  const std::string unchecked = home.file("loop") + "/KestruneMenuClient";
  for (const auto& [former, expected] :
       {std::pair(unchecked, unchecked), std::pair(gone, *bundle.executable)}) {
    put(*agents.document(label, former, home.file("loop")));
    agents.repair(label, "/repo");
    EXPECT_EQ(contentsOf(path), agents.document(label, expected, home.file("loop")));
  }
}

TEST_F(AutostartEntriesTest, RepairKeepsTheChangesOfTheUser) {
  bundle.executable = program("there");
  const std::string gone = home.file("gone") + "/KestruneMenuClient";
  put("# mine\n[Desktop Entry]\nHidden=true\nExec=nice \"" + gone + "\" --background\nTryExec=" + gone +
      "\nX-GNOME-Autostart-enabled=false\n\n[Desktop Action a]\nName=a\nExec=other\n");
  agents.repair(label, "/repo");
  EXPECT_EQ(contentsOf(path),
            "# mine\n[Desktop Entry]\nHidden=true\nExec=nice \"" + *bundle.executable +
                "\" --background\nTryExec=" + *bundle.executable +
                "\nX-GNOME-Autostart-enabled=false\n\n[Desktop Action a]\nName=a\nExec=other\n");
  EXPECT_FALSE(agents.isRegistered(label));
}

TEST_F(AutostartEntriesTest, EntriesAreReadOnlyWhereADesktopIsInstalled) {
  AutostartEntries entries(files, home.file("autostart"), bundle, {home.file("data"), home.file("usr")});
  EXPECT_FALSE(entries.areRead());
  fs::create_directories(home.file("usr/wayland-sessions"));
  EXPECT_TRUE(entries.areRead());
  EXPECT_FALSE(agents.areRead());
  bundle.environment["XDG_CURRENT_DESKTOP"] = "XFCE";
  EXPECT_TRUE(agents.areRead());
}

}  // namespace
}  // namespace kestrune::testing
