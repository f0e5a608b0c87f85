#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <random>
#include <thread>

#include "adapters/files/Files.h"
#include "tests/rig/FileTest.h"
#include "tests/rig/ForkedProgram.h"
#include "tests/rig/RefusedCall.h"

namespace {

/// If set, called with the descriptor before each fsync.
std::function<void(int)> beforeFsync;

}  // namespace

// Replaces fsync(2) of the C library in this program, to observe the order of fsync and rename.
extern "C" int fsync(int descriptor) {
  if (beforeFsync) beforeFsync(descriptor);
  return static_cast<int>(syscall(SYS_fsync, descriptor));
}

namespace kestrune::testing {
namespace {

bool isFolder(int descriptor) {
  struct stat state {};
  return fstat(descriptor, &state) == 0 && S_ISDIR(state.st_mode);
}

struct FileManager : FileTest {
  void put(const std::string& text, mode_t mode = 0600) const { testing::put(path, text, mode); }
  void TearDown() override { beforeFsync = nullptr; }

  SystemFileManager files{"/home/u"};
  const std::string path = folder.file(".env");
};

TEST_F(FileManager, TellsATemporaryFailureFromAnUnreadableFile) {
  put("text");
  const auto expect = [this](ReadOutcome outcome, int error) {
    ForkedProgram program([&](const ForkedProgram::Say& say) {
      refuseCall(SYS_openat, error);
      say(files.contents(path).outcome == outcome ? "right" : "wrong");
    });
    EXPECT_EQ(program.line(), "right") << error;
  };
  for (const int error : {EMFILE, ENFILE, ENOMEM, EIO, ESTALE, EAGAIN, ETIMEDOUT, EHOSTDOWN, EHOSTUNREACH})
    expect(ReadOutcome::temporaryFailure, error);
  for (const int error : {EACCES, ENOENT, ELOOP, ENXIO}) expect(ReadOutcome::unreadable, error);
}

TEST_F(FileManager, NewFoldersHaveTheDefaultMode) {
  const mode_t before = umask(022);
  EXPECT_TRUE(files.createDirectory(folder.file("a/b")));
  umask(before);
  EXPECT_EQ(modeOf(folder.file("a")), 0755U);
  EXPECT_EQ(modeOf(folder.file("a/b")), 0755U);
}

TEST_F(FileManager, FileExistsFollowsLinks) {
  put("text");
  fs::create_directory(folder.file("folder"));
  fs::create_symlink(path, folder.file("link"));
  for (const char* const name : {".env", "folder", "link"}) EXPECT_TRUE(files.fileExists(folder.file(name)));
  EXPECT_FALSE(files.fileExists(path + "/inside"));
  fs::remove(path);
  EXPECT_FALSE(files.fileExists(folder.file("link")));
}

TEST_F(FileManager, PipesAndDevicesAreNotReplaced) {
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(files.replaceUnreadable(path, "new"), Failure{"Invalid argument"});
  EXPECT_EQ(files.writeAtomically(path, "new"), Failure{"Invalid argument"});
  EXPECT_TRUE(fs::is_fifo(path));
  EXPECT_EQ(files.contents(path).outcome, ReadOutcome::unreadable);
  EXPECT_EQ(files.contents(folder.file(".")).outcome, ReadOutcome::unreadable);
  const std::string link = folder.file("link");
  fs::create_symlink("/dev/zero", link);
  EXPECT_FALSE(files.writeAtomically(link, "new"));
  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_TRUE(fs::is_character_file("/dev/zero"));
}

TEST_F(FileManager, LinkToDevNullIsReplaced) {
  fs::create_symlink("/dev/null", folder.file("nowhere"));
  fs::create_symlink("nowhere", path);
  EXPECT_TRUE(files.writeAtomically(path, "new"));
  EXPECT_FALSE(fs::is_symlink(path));
  EXPECT_EQ(contentsOf(path), "new");
  EXPECT_TRUE(fs::is_symlink(folder.file("nowhere")));
  EXPECT_TRUE(fs::is_character_file("/dev/null"));
}

TEST_F(FileManager, ReadersSeeTheOldOrTheNewFile) {
  const std::string texts[] = {std::string(10'000, 'a'), std::string(15'000, 'b')};
  put(texts[0]);
  std::atomic<int> readings = 0, wrong = 0;
  std::thread reader([&] {
    for (; readings < 200; ++readings) {
      const auto found = files.contents(path);
      if (found.bytes != texts[0] && found.bytes != texts[1]) ++wrong;
    }
  });
  for (int save = 0; readings < 200; ++save) EXPECT_TRUE(files.writeAtomically(path, texts[save % 2]));
  reader.join();
  EXPECT_EQ(wrong, 0);
}

TEST_F(FileManager, FileIsFlushedBeforeTheRenameAndTheFolderAfterIt) {
  std::vector<std::string> flushed;
  beforeFsync = [&](int descriptor) {
    const std::string file = "/proc/self/fd/" + std::to_string(descriptor);
    flushed.push_back((isFolder(descriptor) ? fs::read_symlink(file).string() : contentsOf(file)) +
                      " while .env is " + contentsOf(path));
  };
  const std::string folderAfterRename = fs::path(path).parent_path().string() + " while .env is new";
  put("old");
  EXPECT_TRUE(files.writePrivately(path, "new"));
  EXPECT_EQ(flushed, (std::vector<std::string>{"new while .env is old", folderAfterRename}));
  put("old");
  flushed.clear();
  EXPECT_TRUE(files.writeAtomically(path, "new"));
  EXPECT_EQ(flushed,
            (std::vector<std::string>{"new while .env is old", "new while .env is new", folderAfterRename}))
      << "the second fsync is for owner and mode";
}

TEST_F(FileManager, KilledSaveLeavesTheOldOrTheNewFile) {
  const std::string old(20'000, 'o');
  const std::string replacement(30'000, 'n');
  put(old, 0644);
  std::mt19937 random(20);
  int saves = 0;
  while (saves < 300) {
    ForkedProgram program([&](const ForkedProgram::Say& say) {
      skipFlushes();
      for (;;) {
        if (!files.writeAtomically(path, old) || !files.writeAtomically(path, replacement)) return;
        say("saved twice");
      }
    });
    const int length = static_cast<int>(random() % 20);
    for (int save = 0; save < length; ++save) ASSERT_EQ(program.line(), "saved twice");
    program.end(SIGKILL);
    saves += 2 * length + 1;
    const auto found = files.contents(path);
    ASSERT_TRUE(found.bytes == old || found.bytes == replacement) << found.bytes.size() << found.problem;
    ASSERT_LE(names().size(), 2U) << "what one kill leaves behind is gone with the next save";
    for (const auto& name : names())
      ASSERT_TRUE(name == ".env" || modeOf(folder.file(name)) == 0600U) << name;
    chmod(path.c_str(), 0644);
  }
  EXPECT_TRUE(files.writeAtomically(path, "last"));
  EXPECT_EQ(names(), Names{".env"});
}

// --- replaceUnreadable keeps the old file under another name: by a hard link, a copy or RENAME_EXCHANGE

struct UnreadableFile : FileManager {
  /// If this process runs as root, gives the files to the user nobody and switches to this user. Root could
  /// read every file.
  void becomeOrdinaryUser() const {
    constexpr uid_t nobody = 65534;
    if (geteuid() != 0) return;
    const bool done = chown(folder.file(".").c_str(), nobody, nobody) == 0 &&
                      (!fs::exists(path) || chown(path.c_str(), nobody, nobody) == 0) &&
                      setresgid(nobody, nobody, nobody) == 0 && setresuid(nobody, nobody, nobody) == 0;
    if (!done) throw std::runtime_error("no other user");
  }
  static void refuseHardLinksAndExchange(int errorOfExchange) {
    refuseHardLinks(EPERM);
    refuseCall(SYS_renameat2, errorOfExchange);
  }
  /// Calls `prepare` and then `replaceUnreadable` in a process of its own. Returns the error's message, or
  /// "replaced".
  std::string replaceAfter(const std::function<void()>& prepare) {
    ForkedProgram program([&](const ForkedProgram::Say& say) {
      becomeOrdinaryUser();
      prepare();
      const auto done = files.replaceUnreadable(path, "new");
      say(done ? "replaced" : done.reason());
    });
    return program.line();
  }

  /// Expects the new file with the old mode, and `original` under the other name with the mode `keptMode`.
  void expectReplaced(mode_t keptMode) const {
    EXPECT_EQ(contentsOf(kept), original);
    EXPECT_EQ(modeOf(kept), keptMode);
    EXPECT_EQ(contentsOf(path), "new");
    EXPECT_EQ(modeOf(path), 0640U);
    EXPECT_EQ(names(), (Names{".env", ".env.unreadable"}));
  }

  const std::string original = "what \xFF was";
  const std::string kept = path + ".unreadable";
};

TEST_F(UnreadableFile, OldFileIsKept) {
  put(original, 0640);
  EXPECT_TRUE(files.replaceUnreadable(path, "new"));
  expectReplaced(0640);
}

TEST_F(UnreadableFile, EachOldFileGetsAFreeName) {
  fs::create_symlink("nowhere", kept + "-2");
  for (const char* const text : {"first", "third"}) {
    put(text);
    EXPECT_EQ(*files.replaceUnreadable(path, "new"), kept + (*text == 'f' ? "" : "-3"));
  }
  EXPECT_EQ(contentsOf(kept), "first");
  EXPECT_TRUE(fs::is_symlink(kept + "-2"));
  EXPECT_EQ(contentsOf(kept + "-3"), "third");
}

TEST_F(UnreadableFile, LinkStaysAndItsTargetIsKept) {
  const std::string target = folder.file("target");
  std::ofstream(target) << "text";
  fs::create_symlink("target", path);
  EXPECT_EQ(*files.replaceUnreadable(path, "new"), target + ".unreadable");
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

TEST_F(UnreadableFile, ReadableFileIsCopiedWithoutHardLinks) {
  put(original, 0640);
  EXPECT_EQ(replaceAfter([] { refuseHardLinksAndExchange(EINVAL); }), "replaced");
  expectReplaced(0600);
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
    EXPECT_EQ(replaceAfter([error] { refuseHardLinksAndExchange(error); }), "Operation not permitted");
    EXPECT_EQ(modeOf(path), 0000U);
    EXPECT_EQ(names(), Names{".env"});
    chmod(path.c_str(), 0600);
    EXPECT_EQ(contentsOf(path), "text");
  }
}

TEST_F(UnreadableFile, NothingChangesWhenTheNewFileCannotBeWritten) {
  put(original);
  EXPECT_EQ(replaceAfter([] { refuseCall(SYS_fsync, ENOSPC); }), "No space left on device");
  EXPECT_EQ(contentsOf(path), original);
  EXPECT_EQ(names(), Names{".env"});
}

TEST_F(UnreadableFile, FailedRenameLeavesNoOtherFile) {
  const auto refuseRenames = [] { answerRenames(SECCOMP_RET_ERRNO | EBUSY); };
  put(original);
  EXPECT_EQ(replaceAfter(refuseRenames), "Device or resource busy");
  EXPECT_EQ(names(), Names{".env"});
  EXPECT_EQ(replaceAfter([&] {
              refuseHardLinks(EPERM);
              beforeFsync = [&](int descriptor) {
                if (isFolder(descriptor)) refuseRenames();  // the copy has been renamed to `kept`
              };
            }),
            "Device or resource busy");
  EXPECT_EQ(names(), Names{".env"});
  EXPECT_EQ(contentsOf(path), original);
}

TEST_F(UnreadableFile, OldFileIsKeptIfRenameFailsAfterItWasDone) {
  put(original);
  const auto renameTheNewFile = [this](int descriptor) {
    if (!isFolder(descriptor)) return;  // the copy has not been renamed to `kept` yet
    for (const auto& name : names())
      if (name.starts_with(".kestrune-new-")) fs::rename(folder.file(name), path);
  };
  EXPECT_EQ(replaceAfter([&] {
              refuseHardLinks(EPERM);
              beforeFsync = renameTheNewFile;
            }),
            "No such file or directory");
  EXPECT_EQ(contentsOf(path), "new");
  EXPECT_EQ(contentsOf(kept), original);
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
