#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include "adapters/files/Files.h"
#include "adapters/system/FileDescriptor.h"
#include "tests/rig/ResourceLimit.h"
#include "tests/rig/ScratchFolder.h"
#include "tests/rig/SignalState.h"

namespace kestrune::testing {
namespace {

namespace fs = std::filesystem;

std::error_code systemError(int number) {
  return {number, std::system_category()};
}

struct Files : ::testing::Test {
  ScratchFolder folder;
  const std::string path = folder.file("file");

  void put(const std::string& contents) const { std::ofstream(path, std::ios::binary) << contents; }
  static std::string contentsOf(const std::string& file) {
    std::ostringstream text;
    text << std::ifstream(file, std::ios::binary).rdbuf();
    return text.str();
  }
  static struct stat stateOf(const std::string& file) {
    struct stat state {};
    EXPECT_EQ(stat(file.c_str(), &state), 0) << file;
    return state;
  }
  static mode_t modeOf(const std::string& file) { return stateOf(file).st_mode & 07777; }
  std::set<std::string> names() const {
    std::set<std::string> found;
    for (const auto& each : fs::directory_iterator(folder.file("."))) found.insert(each.path().filename());
    return found;
  }
};

// --- reading

struct ReadWholeFile : Files {
  std::string contents = "before";
};

TEST_F(ReadWholeFile, ReadsEveryByte) {
  std::string bytes(100'000, '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7);
  put(bytes);
  EXPECT_EQ(readWholeFile(path, contents), std::error_code());
  EXPECT_EQ(contents, bytes);
}

TEST_F(ReadWholeFile, ReadsAnEmptyFile) {
  put("");
  EXPECT_EQ(readWholeFile(path, contents), std::error_code());
  EXPECT_EQ(contents, "");
}

TEST_F(ReadWholeFile, ReadsThroughALink) {
  put("text");
  fs::create_symlink("file", folder.file("link"));
  EXPECT_EQ(readWholeFile(folder.file("link"), contents), std::error_code());
  EXPECT_EQ(contents, "text");
}

TEST_F(ReadWholeFile, TellsWhyItCannotAndLeavesTheContentsAlone) {
  put("text");
  ASSERT_EQ(mkfifo(folder.file("pipe").c_str(), 0600), 0);
  fs::create_symlink("loop", folder.file("loop"));
  EXPECT_EQ(readWholeFile(folder.file("missing"), contents), systemError(ENOENT));
  EXPECT_EQ(readWholeFile(path + "/below", contents), systemError(ENOTDIR));
  EXPECT_EQ(readWholeFile(folder.file("."), contents), systemError(EISDIR));
  EXPECT_EQ(readWholeFile(folder.file("loop"), contents), systemError(ELOOP));
  EXPECT_EQ(readWholeFile(folder.file(std::string(300, 'x')), contents), systemError(ENAMETOOLONG));
  EXPECT_EQ(readWholeFile("", contents), systemError(ENOENT));
  // Nobody writes to it, which is not waited for.
  EXPECT_EQ(readWholeFile(folder.file("pipe"), contents), systemError(EINVAL));
  EXPECT_EQ(contents, "before");
}

// --- writing

struct WriteFileAtomically : Files {};

TEST_F(WriteFileAtomically, MakesAFileForItsOwnerAlone) {
  const mode_t before = umask(0);
  EXPECT_EQ(writeFileAtomically(path, "text"), std::error_code());
  umask(before);
  EXPECT_EQ(contentsOf(path), "text");
  EXPECT_EQ(modeOf(path), 0600U);
  EXPECT_EQ(names(), std::set<std::string>{"file"});
}

TEST_F(WriteFileAtomically, ReplacesTheWholeContents) {
  put("a long text that was there before");
  EXPECT_EQ(writeFileAtomically(path, std::string("a\0b", 3)), std::error_code());
  EXPECT_EQ(contentsOf(path), std::string("a\0b", 3));
  EXPECT_EQ(writeFileAtomically(path, ""), std::error_code());
  EXPECT_EQ(contentsOf(path), "");
  EXPECT_EQ(names(), std::set<std::string>{"file"});
}

TEST_F(WriteFileAtomically, LeavesTheOldFileToThoseWhoReadIt) {
  put("old");
  fs::create_hard_link(path, folder.file("other name"));
  std::ifstream reader(path);
  EXPECT_EQ(writeFileAtomically(path, "new"), std::error_code());
  std::string read;
  reader >> read;
  EXPECT_EQ(read, "old");
  EXPECT_EQ(contentsOf(folder.file("other name")), "old");
  EXPECT_EQ(contentsOf(path), "new");
}

TEST_F(WriteFileAtomically, ShowsAReaderTheOldFileOrTheNewOne) {
  const std::string zeros(300'000, '0');
  const std::string ones(200'000, '1');
  put(zeros);
  std::atomic<bool> done = false;
  std::thread writer([&] {
    for (int i = 0; i < 20; ++i)
      EXPECT_EQ(writeFileAtomically(path, i % 2 == 0 ? ones : zeros), std::error_code());
    done = true;
  });
  while (!done) {
    std::string contents;
    EXPECT_EQ(readWholeFile(path, contents), std::error_code());
    EXPECT_TRUE(contents == zeros || contents == ones) << contents.size() << " bytes";
  }
  writer.join();
}

/// As the kernel has it: the user with the number 12345 may read the file, its group may not.
std::string accessList() {
  struct Entry {
    std::uint16_t kind, permissions;
    std::uint32_t id;
  };
  constexpr std::uint16_t owner = 1, user = 2, group = 4, mask = 16, others = 32;
  constexpr auto nobody = static_cast<std::uint32_t>(-1);
  constexpr std::uint32_t version = 2;
  const Entry entries[] = {
      {owner, 6, nobody}, {user, 4, 12345}, {group, 0, nobody}, {mask, 4, nobody}, {others, 0, nobody}};
  std::string list(sizeof version + sizeof entries, '\0');
  std::memcpy(list.data(), &version, sizeof version);
  std::memcpy(list.data() + sizeof version, entries, sizeof entries);
  return list;
}

TEST_F(WriteFileAtomically, KeepsTheAccessListWithTheModeThatItMeans) {
  static constexpr auto attribute = "system.posix_acl_access";
  const auto listOf = [this] {
    std::string list(1000, '\0');
    const ssize_t size = getxattr(path.c_str(), attribute, list.data(), list.size());
    return list.substr(0, static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
  };
  put("old");
  const std::string list = accessList();
  const bool keepsLists = setxattr(path.c_str(), attribute, list.data(), list.size(), 0) == 0;
  ASSERT_TRUE(keepsLists || errno == ENOTSUP);
  const mode_t before = modeOf(path);
  ASSERT_EQ(writeFileAtomically(path, "new"), std::error_code());
  EXPECT_EQ(contentsOf(path), "new");
  EXPECT_EQ(listOf(), keepsLists ? list : "");
  EXPECT_EQ(modeOf(path), before);
}

TEST_F(WriteFileAtomically, HasNoneOfTheListThatAFolderHandsDown) {
  put("old");
  ASSERT_EQ(chmod(path.c_str(), 0640), 0);
  const std::string list = accessList();
  const std::string here = folder.file(".");
  ASSERT_TRUE(setxattr(here.c_str(), "system.posix_acl_default", list.data(), list.size(), 0) == 0 ||
              errno == ENOTSUP);
  ASSERT_EQ(writeFileAtomically(path, "new"), std::error_code());
  EXPECT_EQ(modeOf(path), 0640U);
  EXPECT_EQ(getxattr(path.c_str(), "system.posix_acl_access", nullptr, 0), -1);
}

TEST_F(WriteFileAtomically, KeepsTheMode) {
  for (const mode_t mode : {0600U, 0644U, 0400U, 0755U, 02640U}) {
    put("old");
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
    EXPECT_EQ(writeFileAtomically(path, "new"), std::error_code());
    EXPECT_EQ(modeOf(path), mode) << std::oct << mode;
    EXPECT_EQ(contentsOf(path), "new");
    fs::remove(path);
  }
}

TEST_F(WriteFileAtomically, KeepsTheOwner) {
  // Only the superuser can give a file away.
  const bool superuser = geteuid() == 0;
  const uid_t owner = superuser ? 12345 : geteuid();
  const gid_t group = superuser ? 23456 : getegid();
  put("old");
  ASSERT_EQ(chown(path.c_str(), owner, group), 0);
  ASSERT_EQ(chmod(path.c_str(), 0640), 0);
  EXPECT_EQ(writeFileAtomically(path, "new"), std::error_code());
  EXPECT_EQ(stateOf(path).st_uid, owner);
  EXPECT_EQ(stateOf(path).st_gid, group);
  EXPECT_EQ(modeOf(path), 0640U);
}

TEST_F(WriteFileAtomically, WritesInTheWorkingFolder) {
  const fs::path before = fs::current_path();
  fs::current_path(folder.file("."));
  EXPECT_EQ(writeFileAtomically("file", "text"), std::error_code());
  fs::current_path(before);
  EXPECT_EQ(contentsOf(path), "text");
}

TEST_F(WriteFileAtomically, ReplacesWhatALinkMeans) {
  fs::create_directory(folder.file("below"));
  put("old");
  fs::create_symlink("../file", folder.file("below/relative"));
  fs::create_symlink(path, folder.file("absolute"));
  fs::create_symlink("below/relative", folder.file("link to a link"));
  for (const std::string link : {"below/relative", "absolute", "link to a link"}) {
    EXPECT_EQ(writeFileAtomically(folder.file(link), "by " + link), std::error_code());
    EXPECT_EQ(contentsOf(path), "by " + link);
    EXPECT_TRUE(fs::is_symlink(folder.file(link)));
  }
  EXPECT_FALSE(fs::is_symlink(path));
}

TEST_F(WriteFileAtomically, MakesTheFileThatALinkLeadsTo) {
  fs::create_directory(folder.file("below"));
  fs::create_symlink("below/file", folder.file("link"));
  EXPECT_EQ(writeFileAtomically(folder.file("link"), "text"), std::error_code());
  EXPECT_TRUE(fs::is_symlink(folder.file("link")));
  EXPECT_EQ(contentsOf(folder.file("below/file")), "text");
}

TEST_F(WriteFileAtomically, FollowsAsManyLinksAsTheSystemDoes) {
  put("old");
  constexpr int most = 40;
  fs::create_symlink("file", folder.file("1"));
  for (int i = 2; i <= most + 1; ++i)
    fs::create_symlink(std::to_string(i - 1), folder.file(std::to_string(i)));
  std::string contents;
  ASSERT_EQ(readWholeFile(folder.file(std::to_string(most)), contents), std::error_code());
  EXPECT_EQ(writeFileAtomically(folder.file(std::to_string(most)), "new"), std::error_code());
  EXPECT_EQ(contentsOf(path), "new");
  ASSERT_EQ(readWholeFile(folder.file(std::to_string(most + 1)), contents), systemError(ELOOP));
  EXPECT_EQ(writeFileAtomically(folder.file(std::to_string(most + 1)), "newer"), systemError(ELOOP));
}

TEST_F(WriteFileAtomically, TellsWhyItCannot) {
  put("text");
  fs::create_directory(folder.file("folder"));
  fs::create_symlink("folder", folder.file("link to a folder"));
  fs::create_symlink("no folder/file", folder.file("link to nowhere"));
  fs::create_symlink("loop", folder.file("loop"));
  const auto before = names();
  EXPECT_EQ(writeFileAtomically(folder.file("no folder/file"), "new"), systemError(ENOENT));
  EXPECT_EQ(writeFileAtomically(folder.file("link to nowhere"), "new"), systemError(ENOENT));
  EXPECT_EQ(writeFileAtomically(path + "/below", "new"), systemError(ENOTDIR));
  EXPECT_EQ(writeFileAtomically(folder.file("folder"), "new"), systemError(EISDIR));
  EXPECT_EQ(writeFileAtomically(folder.file("link to a folder"), "new"), systemError(EISDIR));
  EXPECT_EQ(writeFileAtomically(folder.file("loop"), "new"), systemError(ELOOP));
  EXPECT_EQ(writeFileAtomically(folder.file(std::string(300, 'x')), "new"), systemError(ENAMETOOLONG));
  EXPECT_TRUE(writeFileAtomically("", "new"));
  EXPECT_EQ(names(), before);
}

TEST_F(WriteFileAtomically, LeavesTheOldFileAndNothingElseWhenTheDiskIsFull) {
  put("old");
  std::error_code failure;
  {
    const SignalState restored;
    std::signal(SIGXFSZ, SIG_IGN);
    const ResourceLimit room(RLIMIT_FSIZE, 1000);
    failure = writeFileAtomically(path, std::string(5000, 'x'));
  }
  EXPECT_EQ(failure, systemError(EFBIG));
  EXPECT_EQ(contentsOf(path), "old");
  EXPECT_EQ(names(), std::set<std::string>{"file"});
}

TEST_F(WriteFileAtomically, LeavesNoDescriptorOpen) {
  const auto count = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  };
  const auto before = count();
  EXPECT_EQ(writeFileAtomically(path, "text"), std::error_code());
  EXPECT_NE(writeFileAtomically(path + "/below", "text"), std::error_code());
  std::string contents;
  EXPECT_EQ(readWholeFile(path, contents), std::error_code());
  EXPECT_NE(readWholeFile(folder.file("."), contents), std::error_code());
  EXPECT_EQ(count(), before);
}

// --- folders

struct MakeFolders : Files {};

TEST_F(MakeFolders, MakesAllThatAreMissingForTheirOwnerAlone) {
  const mode_t before = umask(0);
  EXPECT_EQ(makeFolders(folder.file("a/b/c")), std::error_code());
  umask(before);
  for (const std::string each : {"a", "a/b", "a/b/c"}) {
    EXPECT_TRUE(fs::is_directory(folder.file(each))) << each;
    EXPECT_EQ(modeOf(folder.file(each)), 0700U) << each;
  }
}

TEST_F(MakeFolders, GivesThemTheModeThatTheUmaskLeaves) {
  const mode_t before = umask(027);
  EXPECT_EQ(makeFolders(folder.file("a/b"), 0777), std::error_code());
  umask(before);
  EXPECT_EQ(modeOf(folder.file("a")), 0750U);
  EXPECT_EQ(modeOf(folder.file("a/b")), 0750U);
}

TEST_F(MakeFolders, LeavesThoseAloneThatExist) {
  fs::create_directory(folder.file("a"));
  ASSERT_EQ(chmod(folder.file("a").c_str(), 0755), 0);
  EXPECT_EQ(makeFolders(folder.file("a")), std::error_code());
  EXPECT_EQ(makeFolders(folder.file("a/b")), std::error_code());
  EXPECT_EQ(modeOf(folder.file("a")), 0755U);
  EXPECT_EQ(makeFolders("/"), std::error_code());
}

TEST_F(MakeFolders, TakesALinkToAFolderForAFolder) {
  fs::create_directory(folder.file("a"));
  fs::create_symlink("a", folder.file("link"));
  EXPECT_EQ(makeFolders(folder.file("link/b")), std::error_code());
  EXPECT_TRUE(fs::is_directory(folder.file("a/b")));
}

TEST_F(MakeFolders, TakesASlashAtTheEnd) {
  EXPECT_EQ(makeFolders(folder.file("a/b/")), std::error_code());
  EXPECT_TRUE(fs::is_directory(folder.file("a/b")));
}

TEST_F(MakeFolders, TellsThatThereIsSomethingElseInTheirPlace) {
  put("text");
  fs::create_symlink("nowhere", folder.file("link"));
  EXPECT_TRUE(makeFolders(path));
  EXPECT_TRUE(makeFolders(path + "/below"));
  EXPECT_TRUE(makeFolders(folder.file("link")));
  EXPECT_EQ(names(), (std::set<std::string>{"file", "link"}));
}

TEST_F(MakeFolders, TellsThatTheyCannotBeMade) {
  EXPECT_EQ(makeFolders(folder.file(std::string(300, 'x'))), systemError(ENAMETOOLONG));
  EXPECT_TRUE(makeFolders("/proc/no/such/folder"));
}

}  // namespace
}  // namespace kestrune::testing
