#include "platform/posix/ChildProcesses.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/posix/FileDescriptor.h"
#include "platform/posix/Spawn.h"

namespace kestrune {

namespace {

constexpr std::size_t outputLimit = std::size_t{16} << 20;  // bytes, both pipes together

// For a second in all, where the reserved launch finds no process to spare.
constexpr int reservedAttempts = 20;
constexpr std::chrono::milliseconds attemptInterval{50};

using std::chrono::steady_clock;

std::string describe(int error) {
  return std::system_category().message(error);
}

/// The ends of a pipe: first the one to read, which does not block, then the one to write.
using Pipe = std::array<FileDescriptor, 2>;

int makePipe(Pipe& ends) {
  int descriptors[2];
  if (pipe2(descriptors, O_CLOEXEC) != 0) return errno;
  ends = {FileDescriptor(descriptors[0]), FileDescriptor(descriptors[1])};
  return fcntl(descriptors[0], F_SETFL, O_NONBLOCK) == 0 ? 0 : errno;
}

/// Without the beginning of a character at the end of `bytes` that was cut there.
void dropCutCharacter(std::string& bytes) {
  std::size_t lead = bytes.size();
  while (lead > 0 && bytes.size() - lead < 3 && (static_cast<unsigned char>(bytes[lead - 1]) & 0xC0) == 0x80)
    --lead;
  if (lead == 0) return;
  const auto first = static_cast<unsigned char>(bytes[lead - 1]);
  const std::size_t expected = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : first >= 0xC0 ? 2 : 1;
  if (expected > bytes.size() - (lead - 1)) bytes.resize(lead - 1);
}

/// One of a child's outputs, while it is read.
struct Source {
  FileDescriptor& descriptor;
  std::string bytes{};
  bool cut = false;

  /// Takes all that is there, of which it keeps `room` bytes at most.
  void drain(std::size_t room, std::vector<char>& buffer, steady_clock::time_point deadline) {
    for (;;) {
      const ssize_t count = read(descriptor.get(), buffer.data(), buffer.size());
      if (count < 0 && errno == EINTR) continue;
      if (count < 0 && errno == EAGAIN) return;
      if (count <= 0) return descriptor.reset();
      const auto kept = std::min(static_cast<std::size_t>(count), room);
      bytes.append(buffer.data(), kept);
      room -= kept;
      if (kept < static_cast<std::size_t>(count)) cut = true;
      // A descendant may write faster than this reads.
      if (cut && steady_clock::now() >= deadline) return;
    }
  }
};

}  // namespace

/// The children that have not been reaped, and who may have more.
struct ChildProcesses::Register {
  std::mutex mutex;
  std::vector<pid_t> running;    // their owners reap them
  std::vector<pid_t> abandoned;  // nobody else will
  std::optional<std::thread::id> onlyThread;

  void reapAbandoned() {
    std::erase_if(abandoned, [](pid_t pid) { return waitpid(pid, nullptr, WNOHANG) != 0; });
  }
};

class ChildProcesses::Child final : public Process {
 public:
  Child(std::shared_ptr<Register> givenRegister, pid_t givenPid, FileDescriptor givenOutput,
        FileDescriptor givenError)
      : siblings(std::move(givenRegister)),
        pid(givenPid),
        output(std::move(givenOutput)),
        error(std::move(givenError)) {}

  ~Child() override {
    const std::lock_guard lock(siblings->mutex);
    if (reaped) return;
    std::erase(siblings->running, pid);
    siblings->abandoned.push_back(pid);
    siblings->reapAbandoned();
  }

  bool isRunning() override {
    if (reaped) return false;
    // Under the lock: once reaped, the number may belong to a stranger, who must not be signalled.
    const std::lock_guard lock(siblings->mutex);
    const pid_t result = waitpid(pid, &status, WNOHANG);
    if (result == 0 || (result < 0 && errno == EINTR)) return true;
    if (result < 0) status = -1;
    reaped = true;
    std::erase(siblings->running, pid);
    return false;
  }

  void terminate() override { signal(SIGTERM); }
  void interrupt() override { signal(SIGINT); }

  // A group keeps its number for as long as it has members, also when its leader has been reaped.
  void terminateGroup() override { kill(-pid, SIGTERM); }

  int terminationStatus() const override {
    return WIFEXITED(status) ? WEXITSTATUS(status) : WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
  }

  std::string readOutput(Seconds patience) override {
    const auto deadline = steady_clock::now() + std::chrono::duration_cast<steady_clock::duration>(patience);
    std::vector<char> buffer(65536);
    Source out{output};
    Source err{error};
    for (;;) {
      if (output) out.drain(outputLimit - out.bytes.size(), buffer, deadline);
      if (error) err.drain(outputLimit - err.bytes.size(), buffer, deadline);
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - steady_clock::now()).count();
      if ((!output && !error) || left <= 0) break;
      std::array<pollfd, 2> waiting{{{output.get(), POLLIN, 0}, {error.get(), POLLIN, 0}}};
      poll(waiting.data(), waiting.size(), static_cast<int>(left));
    }
    output.reset();
    error.reset();
    if (out.cut) dropCutCharacter(out.bytes);
    if (const auto room = outputLimit - out.bytes.size(); err.bytes.size() > room) {
      err.bytes.resize(room);
      err.cut = true;
    }
    if (err.cut) dropCutCharacter(err.bytes);
    return std::move(out.bytes) + err.bytes;
  }

 private:
  void signal(int number) {
    if (!reaped) kill(pid, number);
  }

  const std::shared_ptr<Register> siblings;
  const pid_t pid;
  FileDescriptor output;
  FileDescriptor error;
  int status = -1;
  bool reaped = false;
};

ChildProcesses::ChildProcesses() : children(std::make_shared<Register>()) {
  for (auto& each : spare) each.reset(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

LaunchResult ChildProcesses::launch(const std::string& executable,
                                    const std::vector<std::string>& arguments) {
  return launch(executable, arguments, STDIN_FILENO);
}

LaunchResult ChildProcesses::launch(const std::string& executable, const std::vector<std::string>& arguments,
                                    int input) {
  std::unique_lock lock(children->mutex);
  children->reapAbandoned();
  if (children->onlyThread && *children->onlyThread != std::this_thread::get_id()) {
    return {nullptr, describe(ECANCELED), true};
  }
  Pipe output;
  Pipe error;
  if (const int failure = makePipe(output)) return {nullptr, describe(failure)};
  if (const int failure = makePipe(error)) return {nullptr, describe(failure)};
  const SpawnOptions options{.executable = executable,
                             .arguments = arguments,
                             .input = input,
                             .output = output[1].get(),
                             .error = error[1].get()};
  pid_t pid = 0;
  int failure = spawn(options, pid);
  // What the reservation ended counts as a process until its owner has reaped it, and the end of a session
  // frees more.
  for (int attempt = 1; failure == EAGAIN && children->onlyThread && attempt < reservedAttempts; ++attempt) {
    lock.unlock();
    std::this_thread::sleep_for(attemptInterval);
    lock.lock();
    children->reapAbandoned();
    failure = spawn(options, pid);
  }
  if (failure != 0) return {nullptr, describe(failure)};
  children->running.push_back(pid);
  return {std::make_unique<Child>(children, pid, std::move(output[0]), std::move(error[0])), {}};
}

void ChildProcesses::reserveForThisThread() {
  const std::lock_guard lock(children->mutex);
  children->onlyThread = std::this_thread::get_id();
  children->reapAbandoned();
  // What ends the backend must not fail for want of descriptors.
  for (auto& each : spare) each.reset();
  for (const auto* const pids : {&children->running, &children->abandoned}) {
    for (const pid_t pid : *pids) kill(-pid, SIGKILL);
  }
}

}  // namespace kestrune
