#include <fcntl.h>
#include <sys/file.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "adapters/files/Files.h"
#include "adapters/system/System.h"
#include "tests/rig/FileTest.h"
#include "tests/rig/ForkedProgram.h"
#include "tests/rig/RefusedCall.h"
#include "tests/rig/ResourceLimit.h"
#include "tests/rig/SignalState.h"

namespace kestrune::testing {
namespace {

Failure failure(int error) {
  return {describe(error)};
}

struct Files : FileTest {
  void put(const std::string& contents) const { testing::put(path, contents); }

  SystemFileManager files{"/home/u"};
  const std::string path = folder.file("file");
};

struct ReadWholeFile : Files {};

TEST_F(ReadWholeFile, FailureLeavesTheContentsUnchanged) {
  std::string contents = "before";
  put("text");
  ASSERT_EQ(mkfifo(folder.file("pipe").c_str(), 0600), 0);
  fs::create_symlink("loop", folder.file("loop"));
  EXPECT_EQ(readWholeFile(folder.file("missing"), contents), systemError(ENOENT));
  EXPECT_EQ(readWholeFile(path + "/below", contents), systemError(ENOTDIR));
  EXPECT_EQ(readWholeFile(folder.file("."), contents), systemError(EISDIR));
  EXPECT_EQ(readWholeFile(folder.file("loop"), contents), systemError(ELOOP));
  EXPECT_EQ(readWholeFile(folder.file(std::string(300, 'x')), contents), systemError(ENAMETOOLONG));
  EXPECT_EQ(readWholeFile("", contents), systemError(ENOENT));
  // The FIFO has no writer. Opening it must not block.
  EXPECT_EQ(readWholeFile(folder.file("pipe"), contents), systemError(EINVAL));
  EXPECT_EQ(contents, "before");
}

struct WriteFileAtomically : Files {};

/// Returns a POSIX ACL in the kernel's format: user 12345 may read, the file's group may not.
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

TEST_F(WriteFileAtomically, KeepsACLAndMode) {
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
  ASSERT_TRUE(files.writeAtomically(path, "new"));
  EXPECT_EQ(contentsOf(path), "new");
  EXPECT_EQ(listOf(), keepsLists ? list : "");
  EXPECT_EQ(modeOf(path), before);
}

TEST_F(WriteFileAtomically, DefaultACLOfTheFolderIsNotInherited) {
  put("old");
  ASSERT_EQ(chmod(path.c_str(), 0640), 0);
  const std::string list = accessList();
  const std::string here = folder.file(".");
  ASSERT_TRUE(setxattr(here.c_str(), "system.posix_acl_default", list.data(), list.size(), 0) == 0 ||
              errno == ENOTSUP);
  ASSERT_TRUE(files.writeAtomically(path, "new"));
  EXPECT_EQ(modeOf(path), 0640U);
  EXPECT_EQ(getxattr(path.c_str(), "system.posix_acl_access", nullptr, 0), -1);
}

TEST_F(WriteFileAtomically, KeepsTheMode) {
  for (const mode_t mode : {0600U, 0644U, 0400U, 0755U, 02640U}) {
    put("old");
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
    EXPECT_TRUE(files.writeAtomically(path, "new"));
    EXPECT_EQ(modeOf(path), mode) << std::oct << mode;
    EXPECT_EQ(contentsOf(path), "new");
    fs::remove(path);
  }
}

TEST_F(WriteFileAtomically, KeepsTheOwner) {
  // Only root can give the file to another user. Without root, this user remains the owner.
  const bool superuser = geteuid() == 0;
  const uid_t owner = superuser ? 12345 : geteuid();
  const gid_t group = superuser ? 23456 : getegid();
  put("old");
  ASSERT_EQ(chown(path.c_str(), owner, group), 0);
  ASSERT_EQ(chmod(path.c_str(), 0640), 0);
  EXPECT_TRUE(files.writeAtomically(path, "new"));
  struct stat found {};
  ASSERT_EQ(stat(path.c_str(), &found), 0);
  EXPECT_EQ(found.st_uid, owner);
  EXPECT_EQ(found.st_gid, group);
  EXPECT_EQ(modeOf(path), 0640U);
}

TEST_F(WriteFileAtomically, TargetOfALinkIsReplacedOrCreated) {
  fs::create_directory(folder.file("below"));
  put("old");
  fs::create_symlink("../file", folder.file("below/relative"));
  fs::create_symlink(path, folder.file("absolute"));
  fs::create_symlink("below/relative", folder.file("link to a link"));
  for (const std::string link : {"below/relative", "absolute", "link to a link"}) {
    EXPECT_TRUE(files.writeAtomically(folder.file(link), "by " + link));
    EXPECT_EQ(contentsOf(path), "by " + link);
    EXPECT_TRUE(fs::is_symlink(folder.file(link)));
    fs::remove(path);  // in the next iteration, `link` is a dangling link
  }
}

TEST_F(WriteFileAtomically, FailureHasTheErrno) {
  put("text");
  fs::create_directory(folder.file("folder"));
  fs::create_symlink("folder", folder.file("link to a folder"));
  fs::create_symlink("no folder/file", folder.file("link to nowhere"));
  fs::create_symlink("loop", folder.file("loop"));
  const auto before = names();
  EXPECT_EQ(files.writeAtomically(folder.file("no folder/file"), "new"), failure(ENOENT));
  EXPECT_EQ(files.writeAtomically(folder.file("link to nowhere"), "new"), failure(ENOENT));
  EXPECT_EQ(files.writeAtomically(path + "/below", "new"), failure(ENOTDIR));
  EXPECT_EQ(files.writeAtomically(folder.file("folder"), "new"), failure(EISDIR));
  EXPECT_EQ(files.writeAtomically(folder.file("link to a folder"), "new"), failure(EISDIR));
  EXPECT_EQ(files.writeAtomically(folder.file("loop"), "new"), failure(ELOOP));
  EXPECT_EQ(files.writeAtomically(folder.file(std::string(300, 'x')), "new"), failure(ENAMETOOLONG));
  EXPECT_FALSE(files.writeAtomically("", "new"));
  EXPECT_EQ(names(), before);
}

TEST_F(WriteFileAtomically, FullDiskLeavesOnlyTheOldFile) {
  put("old");
  {
    const SignalState restored;
    std::signal(SIGXFSZ, SIG_IGN);
    const ResourceLimit room(RLIMIT_FSIZE, 1000);
    EXPECT_EQ(files.writeAtomically(path, std::string(5000, 'x')), failure(EFBIG));
  }
  EXPECT_EQ(contentsOf(path), "old");
  EXPECT_EQ(names(), Names{"file"});
}

TEST_F(WriteFileAtomically, IsPrivateIfGroupOrACLCannotBeKept) {
  for (const long call : {SYS_fchown, SYS_getxattr}) {
    testing::put(path, "old", 0664);
    ForkedProgram program([&](const ForkedProgram::Say& say) {
      refuseCall(static_cast<int>(call), EPERM);
      say(files.writeAtomically(path, "new") ? "saved" : "not saved");
    });
    EXPECT_EQ(program.line(), "saved");
    EXPECT_EQ(modeOf(path), 0600U) << call;
  }
}

struct MakeFolders : Files {};

TEST_F(MakeFolders, ExistingFoldersStay) {
  fs::create_directory(folder.file("a"));
  ASSERT_EQ(chmod(folder.file("a").c_str(), 0755), 0);
  EXPECT_EQ(makeFolders(folder.file("a")), std::error_code());
  EXPECT_EQ(makeFolders(folder.file("a/b")), std::error_code());
  EXPECT_EQ(modeOf(folder.file("a")), 0755U);
  EXPECT_EQ(makeFolders("/"), std::error_code());
}

TEST_F(MakeFolders, LinkToAFolderAndTrailingSlashWork) {
  fs::create_directory(folder.file("a"));
  fs::create_symlink("a", folder.file("link"));
  EXPECT_EQ(makeFolders(folder.file("link/b")), std::error_code());
  EXPECT_TRUE(fs::is_directory(folder.file("a/b")));
  EXPECT_EQ(makeFolders(folder.file("a/c/")), std::error_code());
  EXPECT_TRUE(fs::is_directory(folder.file("a/c")));
}

TEST_F(MakeFolders, FailureIsReturned) {
  put("text");
  fs::create_symlink("nowhere", folder.file("link"));
  EXPECT_EQ(makeFolders(path), std::errc::not_a_directory);
  EXPECT_EQ(makeFolders(path + "/below"), std::errc::not_a_directory);
  EXPECT_TRUE(makeFolders(folder.file("link")));
  EXPECT_EQ(names(), (Names{"file", "link"}));
  EXPECT_EQ(makeFolders(folder.file(std::string(300, 'x'))), systemError(ENAMETOOLONG));
  EXPECT_TRUE(makeFolders("/proc/no/such/folder"));
}

// --- temporary files: their mode, and the removal of those that a killed process has left

struct NewFiles : FileTest {
  SystemFileManager files{"/home/u"};
  const std::string path = folder.file("file");
  const std::string abandoned = folder.file(".kestrune-new-AbC123");
};

TEST_F(NewFiles, ModeIs0600WhateverTheUmask) {
  for (const mode_t mask : {0U, 0077U, 0777U}) {
    const mode_t before = umask(mask);
    EXPECT_TRUE(files.writeAtomically(path, "text"));
    umask(before);
    EXPECT_EQ(modeOf(path), 0600U) << std::oct << mask;
    fs::remove(path);
  }
}

TEST_F(NewFiles, TemporaryFileHasMode0600) {
  put(path, "old", 0644);
  ForkedProgram program([this](const ForkedProgram::Say& say) {
    answerRenames(SECCOMP_RET_KILL_PROCESS);
    say(files.writeAtomically(path, "new") ? "saved" : "not saved");
  });
  EXPECT_EQ(program.line(), "end");
  auto found = names();
  ASSERT_EQ(found.erase("file"), 1U);
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(modeOf(folder.file(*found.begin())), 0600U);
  EXPECT_EQ(contentsOf(path), "old");
  EXPECT_TRUE(files.writeAtomically(path, "new"));
  EXPECT_EQ(modeOf(path), 0644U);
  EXPECT_EQ(names(), Names{"file"});
}

TEST_F(NewFiles, PrivateFileReplacesLinksToo) {
  put(path, "old", 0644);
  put(folder.file("victim"), "theirs");
  fs::create_symlink("victim", folder.file("link"));
  for (const std::string& each : {path, folder.file("link"), folder.file("none")}) {
    EXPECT_TRUE(files.writePrivately(each, "text"));
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(each)));
    EXPECT_EQ(contentsOf(each), "text");
    EXPECT_EQ(modeOf(each), 0600U);
  }
  EXPECT_EQ(contentsOf(folder.file("victim")), "theirs");
  fs::create_directory(folder.file("folder"));
  EXPECT_EQ(files.writePrivately(folder.file("folder"), "text"), failure(EISDIR));
  EXPECT_EQ(names(), (Names{"file", "folder", "link", "none", "victim"}));
}

TEST_F(NewFiles, NextSaveRemovesAbandonedFiles) {
  put(abandoned, "left behind");
  EXPECT_TRUE(files.writeAtomically(path, "text"));
  EXPECT_EQ(names(), Names{"file"});
  put(abandoned, "left behind");
  EXPECT_TRUE(files.writePrivately(folder.file("other"), "text"));
  EXPECT_EQ(names(), (Names{"file", "other"}));
}

TEST_F(NewFiles, FilesOfOthersAreNotRemoved) {
  const Names others{".kestrune-new-", ".kestrune-new-12345", ".kestrune-new-1234567", "kestrune-new-AbC123",
                     "..env.AbC123",   ".file.AbC123",        ".kestrune-old-AbC123"};
  for (const auto& name : others) put(folder.file(name), "theirs");
  fs::create_directory(folder.file(".kestrune-new-folder"));
  fs::create_symlink("file", folder.file(".kestrune-new-a-link"));
  ASSERT_EQ(mkfifo(folder.file(".kestrune-new-a-pipe").c_str(), 0600), 0);
  // A file of another user must stay. Without root, chown fails: this user remains the owner, and the file is
  // removed.
  put(abandoned, "theirs");
  const bool isTheirs = chown(abandoned.c_str(), 12345, 12345) == 0;
  EXPECT_TRUE(files.writeAtomically(path, "text"));
  Names expected = others;
  expected.insert({"file", ".kestrune-new-folder", ".kestrune-new-a-link", ".kestrune-new-a-pipe"});
  if (isTheirs) expected.insert(".kestrune-new-AbC123");
  EXPECT_EQ(names(), expected);
}

TEST_F(NewFiles, LockedFilesAreNotRemoved) {
  put(abandoned, "half-wri");
  ForkedProgram writer([this](const ForkedProgram::Say& say) {
    const FileDescriptor file(open(abandoned.c_str(), O_WRONLY));
    say(flock(file.get(), LOCK_EX) == 0 ? "locked" : "not locked");
    pause();
  });
  ASSERT_EQ(writer.line(), "locked");
  EXPECT_TRUE(files.writeAtomically(path, "text"));
  EXPECT_EQ(contentsOf(abandoned), "half-wri");
  writer.end(SIGKILL);
  EXPECT_TRUE(files.writeAtomically(path, "text"));
  EXPECT_EQ(names(), Names{"file"});
}

TEST_F(NewFiles, ConcurrentSavesAllSucceed) {
  std::vector<std::unique_ptr<ForkedProgram>> clients;
  for (int i = 0; i < 3; ++i) {
    clients.push_back(std::make_unique<ForkedProgram>([this](const ForkedProgram::Say& say) {
      skipFlushes();
      for (int save = 0; save < 50; ++save) {
        if (const auto saved = files.writeAtomically(path, "text"); !saved) return say(saved.reason());
      }
      say("saved");
    }));
  }
  for (const auto& client : clients) EXPECT_EQ(client->line(), "saved");
  EXPECT_EQ(names(), Names{"file"});
}

}  // namespace
}  // namespace kestrune::testing
