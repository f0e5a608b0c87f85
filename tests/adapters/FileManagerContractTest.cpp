#include "adapters/files/Files.h"
#include "tests/rig/FakePlatform.h"
#include "tests/rig/FileTest.h"

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
}

TYPED_TEST(FileManagerContract, NamesTheUnreadableFileThatItKept) {
  using Kept = Result<std::string>;
  const std::string path = this->path("a");
  EXPECT_EQ(this->files.replaceUnreadable(path, "first"), Kept(""));
  EXPECT_EQ(this->files.replaceUnreadable(path, "second"), Kept(path + ".unreadable"));
  expectRead(this->files.contents(path), "second");
  expectRead(this->files.contents(path + ".unreadable"), "first");
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

TYPED_TEST(FileManagerContract, RemovesFiles) {
  this->files.writeAtomically(this->path("a"), "text");
  this->files.removeItem(this->path("a"));
  EXPECT_FALSE(this->files.fileExists(this->path("a")));
  this->files.removeItem(this->path("a"));
}

TYPED_TEST(FileManagerContract, CreatesFoldersThatMayExist) {
  EXPECT_TRUE(this->files.createDirectory(this->path("b/c")));
  EXPECT_TRUE(this->files.createDirectory(this->path("b/c")));
  EXPECT_TRUE(this->files.writeAtomically(this->path("b/c/d"), "text"));
  expectRead(this->files.contents(this->path("b/c/d")), "text");
}

}  // namespace
}  // namespace kestrune::testing
