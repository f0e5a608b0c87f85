#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <bitset>
#include <filesystem>

#include "adapters/system/FileDescriptor.h"
#include "tests/adapters/RealChildren.h"
#include "tests/rig/ScopedVariable.h"

namespace kestrune::testing {
namespace {

using ::testing::ExitedWithCode;

struct ChildInheritance : ::testing::Test, RealChildren {
  std::string outputOf(const std::string& program, const Arguments& arguments) {
    const auto launched = processes.launch(program, arguments);
    std::string output = (*launched)->readOutput(patience);
    EXPECT_TRUE(ends(**launched));
    return output;
  }
  std::string outputOf(const Arguments& arguments) { return outputOf(TEST_CHILD, arguments); }

  using Signals = std::bitset<64>;
  inline static const Signals none;

  /// The signals of that kind that the kernel knows of the child, the first at 0.
  Signals signals(const std::string& kind) {
    const std::string all = outputOf({"signals"});
    Signals found = std::stoull(all.substr(all.find(kind + ":\t") + kind.size() + 2), nullptr, 16);
    // Between the ordinary and the real-time signals lie those that the C library keeps to itself.
    for (int own = 32; own < SIGRTMIN; ++own) found.reset(static_cast<std::size_t>(own - 1));
    return found;
  }
};

TEST_F(ChildInheritance, HoldsNoDescriptorButTheStandardOnes) {
  const FileDescriptor low(open("/dev/null", O_RDWR));
  const FileDescriptor high(fcntl(low.get(), F_DUPFD, 900));
  ASSERT_EQ(fcntl(low.get(), F_GETFD), 0) << "must be one that a child inherits";
  ASSERT_EQ(fcntl(high.get(), F_GETFD), 0) << "must be one that a child inherits";
  EXPECT_EQ(outputOf({"descriptors"}), "0 1 2 ");
}

TEST_F(ChildInheritance, HoldsNoPipeOfASibling) {
  const auto sibling = launchUpTo({});
  EXPECT_EQ(outputOf({"descriptors"}), "0 1 2 ");
  sibling->terminate();
  EXPECT_TRUE(ends(*sibling));
}

TEST_F(ChildInheritance, WritesToItsPipesAlsoWhenThisProcessHasNoStandardDescriptors) {
  const auto withoutAny = [] {
    RealChildren children;
    const int report = dup(STDERR_FILENO);
    for (const int each : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) close(each);
    const auto child = children.launch({"err", "b", "out", "a"});
    _exit(child->readOutput(patience) == "ab" && children.ends(*child) && report > 0 ? 0 : 1);
  };
  EXPECT_EXIT(withoutAny(), ExitedWithCode(0), "");
}

TEST_F(ChildInheritance, BlocksNoSignal) {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
  EXPECT_EQ(signals("SigBlk"), none);
}

TEST_F(ChildInheritance, IgnoresNoSignal) {
  for (const int each : {SIGPIPE, SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2})
    std::signal(each, SIG_IGN);
  EXPECT_EQ(signals("SigIgn"), none);
}

TEST_F(ChildInheritance, LeadsASessionAndAGroupOfItsOwn) {
  const std::string ids = outputOf({"ids"});
  const pid_t pid = numberBehind(ids, "pid");
  EXPECT_GT(pid, 0);
  EXPECT_EQ(numberBehind(ids, "pgid"), pid);
  EXPECT_EQ(numberBehind(ids, "sid"), pid);
}

TEST_F(ChildInheritance, HasTheEnvironmentOfThisProcessAsItIsAtTheLaunch) {
  const ScopedVariable variable("KESTRUNE_TEST_VARIABLE", "a value, 值");
  EXPECT_EQ(outputOf("/bin/sh", {"-c", "printf '%s' \"$KESTRUNE_TEST_VARIABLE\""}), "a value, 值");
}

TEST_F(ChildInheritance, WorksWhereThisProcessWorks) {
  const std::filesystem::path before = std::filesystem::current_path();
  const std::string here = std::filesystem::canonical(folder.file("."));
  std::filesystem::current_path(here);
  EXPECT_EQ(outputOf("/bin/sh", {"-c", "pwd -P"}), here + "\n");
  std::filesystem::current_path(before);
}

TEST_F(ChildInheritance, ReadsTheStandardInputOfThisProcess) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const FileDescriptor near(ends[1]);
  const FileDescriptor before(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3));
  dup2(ends[0], STDIN_FILENO);
  close(ends[0]);
  ASSERT_EQ(write(near.get(), "a line\n", 7), 7);
  EXPECT_EQ(outputOf({"copy-input"}), "a line\n");
  dup2(before.get(), STDIN_FILENO);
}

}  // namespace
}  // namespace kestrune::testing
