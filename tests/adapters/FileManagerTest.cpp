#include <sys/stat.h>

#include <atomic>
#include <random>
#include <thread>

#include "adapters/files/Files.h"
#include "tests/rig/FakePlatform.h"
#include "tests/rig/FileTest.h"
#include "tests/rig/ForkedProgram.h"
#include "tests/rig/Namespaces.h"
#include "tests/rig/RefusedCall.h"

namespace kestrune::testing {
namespace {

struct FakeFiles {
  CallLog log;
  FakeFileManager files{log};
  std::string path(const std::string& name) const { return "/home/u/" + name; }
};

struct SystemFiles {
  ScratchFolder folder;
  SystemFileManager files{"/home/u"};
  std::string path(const std::string& name) const { return folder.file(name); }
};

void expectRead(const FileContents& found, const std::string& bytes) {
  EXPECT_EQ(found.outcome, ReadOutcome::read);
  EXPECT_TRUE(found.bytes == bytes) << found.bytes.size() << " bytes";
  EXPECT_EQ(found.problem, "");
}

template <typename Files>
struct FileManagerContract : ::testing::Test, Files {};
using FileManagers = ::testing::Types<FakeFiles, SystemFiles>;
TYPED_TEST_SUITE(FileManagerContract, FileManagers);

TYPED_TEST(FileManagerContract, MissingFileIsUnreadable) {
  EXPECT_EQ(this->files.homeDirectoryPath(), "/home/u");
  EXPECT_FALSE(this->files.fileExists(this->path("a")));
  const FileContents found = this->files.contents(this->path("a"));
  EXPECT_EQ(found.outcome, ReadOutcome::unreadable);
  EXPECT_NE(found.problem, "");
}

TYPED_TEST(FileManagerContract, ReadsTheLastWrite) {
  const std::string bytes("\0\xFF\r\nb", 5);
  for (const std::string& each : {std::string("first"), std::string(), bytes}) {
    EXPECT_TRUE(this->files.writeAtomically(this->path("a"), each));
    EXPECT_TRUE(this->files.fileExists(this->path("a")));
    expectRead(this->files.contents(this->path("a")), each);
  }
  EXPECT_TRUE(this->files.writePrivately(this->path("a"), "private"));
  expectRead(this->files.contents(this->path("a")), "private");
  EXPECT_TRUE(this->files.replaceUnreadable(this->path("a"), "readable"));
  expectRead(this->files.contents(this->path("a")), "readable");
  EXPECT_TRUE(this->files.replaceUnreadable(this->path("b"), "new"));
  expectRead(this->files.contents(this->path("b")), "new");
}

TYPED_TEST(FileManagerContract, TooLargeFileIsNotRead) {
  const std::string largest(FileManager::sizeLimit, 'x');
  EXPECT_TRUE(this->files.writeAtomically(this->path("a"), largest));
  expectRead(this->files.contents(this->path("a")), largest);
  EXPECT_TRUE(this->files.writeAtomically(this->path("a"), largest + "x"));
  const FileContents found = this->files.contents(this->path("a"));
  EXPECT_EQ(found.outcome, ReadOutcome::tooLarge);
  EXPECT_EQ(found.bytes, "");
  EXPECT_NE(found.problem, "");
}

TYPED_TEST(FileManagerContract, RemovingAMissingFileFails) {
  this->files.writeAtomically(this->path("a"), "text");
  EXPECT_TRUE(this->files.removeItem(this->path("a")));
  EXPECT_FALSE(this->files.fileExists(this->path("a")));
  EXPECT_NE(this->files.removeItem(this->path("a")).reason(), "");
}

TYPED_TEST(FileManagerContract, CreatesFoldersThatMayExist) {
  EXPECT_TRUE(this->files.createDirectory(this->path("b/c")));
  EXPECT_TRUE(this->files.createDirectory(this->path("b/c")));
  EXPECT_TRUE(this->files.writeAtomically(this->path("b/c/d"), "text"));
  expectRead(this->files.contents(this->path("b/c/d")), "text");
}

struct FileManager : FileTest {
  void put(const std::string& text, mode_t mode = 0600) const { testing::put(path, text, mode); }

  SystemFileManager files{"/home/u"};
  const std::string path = folder.file(".env");
};

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

TEST_F(FileManager, ReadersSeeTheOldOrTheNewFile) {
  const std::string texts[] = {std::string(10'000, 'a'), std::string(15'000, 'b')};
  put(texts[0]);
  std::atomic<bool> done = false;
  std::atomic<int> wrong = 0;
  std::atomic<int> readings = 0;
  std::vector<std::thread> readers;
  for (int reader = 0; reader < 8; ++reader) {
    readers.emplace_back([&] {
      while (!done) {
        const auto found = files.contents(path);
        if (found.bytes != texts[0] && found.bytes != texts[1]) ++wrong;
        ++readings;
      }
    });
  }
  for (int save = 0; readings < 2000; ++save) {
    EXPECT_TRUE(files.writeAtomically(path, texts[save % 2]));
  }
  done = true;
  for (auto& reader : readers) reader.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace kestrune::testing
