#include <gtest/gtest.h>

#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>

#include "adapters/files/Files.h"
#include "tests/rig/ForkedProgram.h"
#include "tests/rig/RefusedCall.h"
#include "tests/rig/ScratchFolder.h"

// The new file that takes the place of an old one: its mode, and what is left of it after a kill.

namespace kestrune::testing {
namespace {

namespace fs = std::filesystem;

struct NewFiles : ::testing::Test {
  ScratchFolder folder;
  const std::string path = folder.file("file");
  const std::string abandoned = folder.file(".kestrune-new-AbC123");

  static void put(const std::string& file, const std::string& contents) { std::ofstream(file) << contents; }
  static std::string contentsOf(const std::string& file) {
    std::ostringstream text;
    text << std::ifstream(file, std::ios::binary).rdbuf();
    return text.str();
  }
  static mode_t modeOf(const std::string& file) {
    struct stat state {};
    EXPECT_EQ(lstat(file.c_str(), &state), 0) << file;
    return state.st_mode & 07777;
  }
  std::set<std::string> names() const {
    std::set<std::string> found;
    for (const auto& each : fs::directory_iterator(folder.file("."))) found.insert(each.path().filename());
    return found;
  }
};

TEST_F(NewFiles, AreForTheirOwnerWhateverTheUmask) {
  for (const mode_t mask : {0U, 0077U, 0777U}) {
    const mode_t before = umask(mask);
    EXPECT_EQ(writeFileAtomically(path, "text"), std::error_code());
    umask(before);
    EXPECT_EQ(modeOf(path), 0600U) << std::oct << mask;
    fs::remove(path);
  }
}

TEST_F(NewFiles, AreForTheirOwnerUntilTheyReplaceAFileForEverybody) {
  put(path, "old");
  ASSERT_EQ(chmod(path.c_str(), 0644), 0);
  ForkedProgram program([this](const ForkedProgram::Say& say) {
    dieAtRename();
    say(writeFileAtomically(path, "new").message());
  });
  EXPECT_EQ(program.line(), "end");
  auto found = names();
  ASSERT_EQ(found.erase("file"), 1U);
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(modeOf(folder.file(*found.begin())), 0600U);
  EXPECT_EQ(contentsOf(path), "old");
  EXPECT_EQ(writeFileAtomically(path, "new"), std::error_code());
  EXPECT_EQ(modeOf(path), 0644U);
  EXPECT_EQ(names(), std::set<std::string>{"file"});
}

TEST_F(NewFiles, ArePrivateInPlaceOfAnything) {
  put(path, "old");
  ASSERT_EQ(chmod(path.c_str(), 0644), 0);
  put(folder.file("victim"), "theirs");
  fs::create_symlink("victim", folder.file("link"));
  for (const std::string& each : {path, folder.file("link"), folder.file("none")}) {
    EXPECT_EQ(writePrivateFile(each, "text"), std::error_code());
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(each)));
    EXPECT_EQ(contentsOf(each), "text");
    EXPECT_EQ(modeOf(each), 0600U);
  }
  EXPECT_EQ(contentsOf(folder.file("victim")), "theirs");
  fs::create_directory(folder.file("folder"));
  EXPECT_EQ(writePrivateFile(folder.file("folder"), "text"), std::error_code(EISDIR, std::system_category()));
  EXPECT_EQ(names(), (std::set<std::string>{"file", "folder", "link", "none", "victim"}));
}

TEST_F(NewFiles, OfKilledProcessesAreRemovedByTheNextSaveInTheFolder) {
  put(abandoned, "left behind");
  EXPECT_EQ(writeFileAtomically(path, "text"), std::error_code());
  EXPECT_EQ(names(), std::set<std::string>{"file"});
  put(abandoned, "left behind");
  EXPECT_EQ(writePrivateFile(folder.file("other"), "text"), std::error_code());
  EXPECT_EQ(names(), (std::set<std::string>{"file", "other"}));
}

TEST_F(NewFiles, OfNobodyElseAreRemoved) {
  const std::set<std::string> others{".kestrune-new-",      ".kestrune-new-12345", ".kestrune-new-1234567",
                                     "kestrune-new-AbC123", "..env.AbC123",        ".file.AbC123",
                                     ".kestrune-old-AbC123"};
  for (const auto& name : others) put(folder.file(name), "theirs");
  fs::create_directory(folder.file(".kestrune-new-folder"));
  fs::create_symlink("file", folder.file(".kestrune-new-a-link"));
  ASSERT_EQ(mkfifo(folder.file(".kestrune-new-a-pipe").c_str(), 0600), 0);
  // Only the superuser can give a file away.
  put(abandoned, "theirs");
  const bool isTheirs = chown(abandoned.c_str(), 12345, 12345) == 0;
  EXPECT_EQ(writeFileAtomically(path, "text"), std::error_code());
  std::set<std::string> expected = others;
  expected.insert({"file", ".kestrune-new-folder", ".kestrune-new-a-link", ".kestrune-new-a-pipe"});
  if (isTheirs) expected.insert(".kestrune-new-AbC123");
  EXPECT_EQ(names(), expected);
}

TEST_F(NewFiles, ThatAreBeingWrittenAreLeftToTheirProcess) {
  put(abandoned, "half-wri");
  ForkedProgram writer([this](const ForkedProgram::Say& say) {
    const FileDescriptor file(open(abandoned.c_str(), O_WRONLY));
    say(flock(file.get(), LOCK_EX) == 0 ? "locked" : "not locked");
    pause();
  });
  ASSERT_EQ(writer.line(), "locked");
  EXPECT_EQ(writeFileAtomically(path, "text"), std::error_code());
  EXPECT_EQ(contentsOf(abandoned), "half-wri");
  writer.end(SIGKILL);
  EXPECT_EQ(writeFileAtomically(path, "text"), std::error_code());
  EXPECT_EQ(names(), std::set<std::string>{"file"});
}

TEST_F(NewFiles, OfClientsThatSaveAtTheSameTimeAllReplaceTheOld) {
  std::vector<std::unique_ptr<ForkedProgram>> clients;
  for (int i = 0; i < 3; ++i) {
    clients.push_back(std::make_unique<ForkedProgram>([this](const ForkedProgram::Say& say) {
      skipFlushes();
      for (int save = 0; save < 200; ++save) {
        if (const auto failure = writeFileAtomically(path, "text")) return say(failure.message());
      }
      say("saved");
    }));
  }
  for (const auto& client : clients) EXPECT_EQ(client->line(), "saved");
  EXPECT_EQ(names(), std::set<std::string>{"file"});
}

}  // namespace
}  // namespace kestrune::testing
