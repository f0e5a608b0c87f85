#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <random>

#include "adapters/files/Files.h"
#include "tests/rig/FileTest.h"
#include "tests/rig/ForkedProgram.h"
#include "tests/rig/RefusedCall.h"

// SystemFileManager::replaceUnreadable keeps the old file: by a hard link, or by RENAME_EXCHANGE.

namespace kestrune::testing {
namespace {

struct UnreadableFile : FileTest {
  void put(const std::string& text, mode_t mode = 0600) const { testing::put(path, text, mode); }

  /// If this process is root, which may read every file, makes it an ordinary user who owns the files.
  void becomeOrdinaryUser() const {
    constexpr uid_t nobody = 65534;
    if (geteuid() != 0) return;
    const bool done = chown(folder.file(".").c_str(), nobody, nobody) == 0 &&
                      (!fs::exists(path) || chown(path.c_str(), nobody, nobody) == 0) &&
                      setresgid(nobody, nobody, nobody) == 0 && setresuid(nobody, nobody, nobody) == 0;
    if (!done) throw std::runtime_error("no other user");
  }
  /// Calls `prepare` and then `replaceUnreadable` in a process of its own. Returns the error's message, or
  /// "replaced".
  std::string replaceAfter(const std::function<void()>& prepare) {
    ForkedProgram program([&](const ForkedProgram::Say& say) {
      becomeOrdinaryUser();
      prepare();
      const Result<> done = files.replaceUnreadable(path, "new");
      say(done ? "replaced" : done.reason());
    });
    return program.line();
  }

  SystemFileManager files{"/home/u"};
  const std::string path = folder.file(".env");
  const std::string kept = path + ".unreadable";
};

TEST_F(UnreadableFile, OldFileIsKept) {
  put("what \xFF was", 0640);
  EXPECT_TRUE(files.replaceUnreadable(path, "new"));
  EXPECT_EQ(contentsOf(kept), "what \xFF was");
  EXPECT_EQ(modeOf(kept), 0640U);
  EXPECT_EQ(contentsOf(path), "new");
  EXPECT_EQ(modeOf(path), 0640U);
  EXPECT_EQ(names(), (Names{".env", ".env.unreadable"}));
}

TEST_F(UnreadableFile, EachOldFileGetsAFreeName) {
  fs::create_symlink("nowhere", kept + "-2");
  for (const char* const text : {"first", "third"}) {
    put(text);
    EXPECT_TRUE(files.replaceUnreadable(path, "new"));
  }
  EXPECT_EQ(contentsOf(kept), "first");
  EXPECT_TRUE(fs::is_symlink(kept + "-2"));
  EXPECT_EQ(contentsOf(kept + "-3"), "third");
}

TEST_F(UnreadableFile, LinkStaysAndItsTargetIsKept) {
  const std::string target = folder.file("target");
  std::ofstream(target) << "text";
  fs::create_symlink("target", path);
  EXPECT_TRUE(files.replaceUnreadable(path, "new"));
  EXPECT_TRUE(fs::is_symlink(path));
  EXPECT_EQ(contentsOf(target), "new");
  EXPECT_EQ(contentsOf(target + ".unreadable"), "text");
}

TEST_F(UnreadableFile, NewFileIsReadableForItsOwner) {
  put("text", 0000);
  EXPECT_TRUE(files.replaceUnreadable(path, "new"));
  EXPECT_EQ(modeOf(path), 0400U);
  EXPECT_EQ(modeOf(kept), 0000U);
  put("text", 0240);
  EXPECT_TRUE(files.replaceUnreadable(path, "new"));
  EXPECT_EQ(modeOf(path), 0640U);
}

TEST_F(UnreadableFile, FileIsExchangedWithoutHardLinks) {
  put("text", 0040);
  EXPECT_EQ(replaceAfter([] { refuseHardLinks(EPERM); }), "replaced");
  EXPECT_EQ(modeOf(kept), 0040U);
  EXPECT_EQ(modeOf(path), 0440U);
  EXPECT_EQ(names(), (Names{".env", ".env.unreadable"}));
  chmod(kept.c_str(), 0400);
  EXPECT_EQ(contentsOf(kept), "text");
  EXPECT_EQ(contentsOf(path), "new");
}

TEST_F(UnreadableFile, NothingChangesWithoutHardLinkAndExchange) {
  for (const int error : {EINVAL, ENOSYS}) {
    put("text", 0000);
    EXPECT_EQ(replaceAfter([error] {
                refuseHardLinks(EPERM);
                refuseCall(SYS_renameat2, error);
              }),
              "Operation not permitted");
    EXPECT_EQ(modeOf(path), 0000U);
    EXPECT_EQ(names(), Names{".env"});
    chmod(path.c_str(), 0600);
    EXPECT_EQ(contentsOf(path), "text");
  }
}

TEST_F(UnreadableFile, NothingChangesWhenTheNewFileCannotBeWritten) {
  put("what \xFF was");
  EXPECT_EQ(replaceAfter([] { refuseCall(SYS_fsync, ENOSPC); }), "No space left on device");
  EXPECT_EQ(contentsOf(path), "what \xFF was");
  EXPECT_EQ(names(), Names{".env"});
}

TEST_F(UnreadableFile, KilledReplacementAlwaysLeavesAFile) {
  put("");
  std::mt19937 random(20);
  for (int round = 0; round < 40; ++round) {
    ForkedProgram program([this](const ForkedProgram::Say& say) {
      becomeOrdinaryUser();
      // Refuse hard links, as the kernel does for another user's file if fs.protected_hardlinks is set.
      refuseHardLinks(EPERM);
      skipFlushes();
      for (;;) {
        chmod(path.c_str(), 0000);
        if (const auto done = files.replaceUnreadable(path, "new"); !done) return say(done.reason());
        unlink(kept.c_str());
        say("saved");
      }
    });
    const auto length = random() % 10;
    for (std::size_t save = 0; save < length; ++save) {
      while (program.isSilent()) ASSERT_EQ(access(path.c_str(), F_OK), 0) << "round " << round;
      ASSERT_EQ(program.line(), "saved");
    }
    program.end(SIGKILL);
    ASSERT_EQ(access(path.c_str(), F_OK), 0) << "round " << round;
    for (const auto& name : names()) {
      const bool isNew = name.starts_with(".kestrune-new-");
      ASSERT_TRUE(!isNew || modeOf(folder.file(name)) == 0600U) << name;
    }
    fs::remove(kept);
  }
  EXPECT_EQ(replaceAfter([] { refuseHardLinks(EPERM); }), "replaced");
  EXPECT_EQ(names(), (Names{".env", ".env.unreadable"}));
}

}  // namespace
}  // namespace kestrune::testing
