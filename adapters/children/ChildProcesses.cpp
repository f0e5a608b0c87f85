#include "adapters/children/ChildProcesses.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "adapters/children/Spawn.h"
#include "adapters/loop/EventLoop.h"
#include "adapters/system/System.h"
#include "text/Text.h"

namespace kestrune {

namespace {

constexpr std::size_t outputLimit = std::size_t{16} << 20;  // bytes from both pipes together
// `makeRoom` ensures that a child can write this many bytes to each pipe without blocking.
constexpr std::size_t leastRoom = 65536;

// Once `reserveForThisThread` has been called, a launch whose fork fails with EAGAIN is tried again for 1 s.
constexpr int reservedAttempts = 20;
constexpr std::chrono::milliseconds attemptInterval{50};
constexpr std::chrono::milliseconds startPatience{200};  // longest wait of `reserveForThisThread`

/// The pipe for the standard output or standard error of a child. Used by one thread at a time.
struct OutputPipe {
  FileDescriptor readEnd;  ///< non-blocking; closed at end of file
  /// Stays open because `makeRoom` polls it: if it is not writable, the pipe is full. `readOutput` closes it
  /// before `drain` is called, because a pipe has no end of file while any write end is open.
  FileDescriptor writeEnd;
  std::string bytes{};  ///< what has been read so far

  /// Creates the pipe. Returns false and sets `errno` on failure.
  bool open() {
    int descriptors[2];
    if (pipe2(descriptors, O_CLOEXEC) != 0) return false;
    readEnd.reset(descriptors[0]);
    writeEnd.reset(descriptors[1]);
    return fcntl(readEnd.get(), F_SETFL, O_NONBLOCK) == 0;
  }

  /// Reads from the pipe if it is full although the child has written less than 64 KiB in total. This happens
  /// for two reasons. If the pipes of the user exceed pipe-user-pages-soft, a new pipe has only one or two
  /// pages. And a small write that does not fit into the rest of a page starts a new page, so that this rest
  /// stays unused.
  void makeRoom() {
    static const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    pollfd writable{writeEnd.get(), POLLOUT, 0};
    if (!writeEnd || poll(&writable, 1, 0) != 0) return;
    int queued = 0;
    ioctl(readEnd.get(), FIONREAD, &queued);
    const std::size_t written = bytes.size() + static_cast<std::size_t>(queued);
    if (written >= leastRoom) return;
    // Read at least a page: reading less might free no space in the pipe.
    std::string some(std::max(page, leastRoom - written), '\0');
    const ssize_t count = read(readEnd.get(), some.data(), some.size());
    if (count > 0) bytes.append(some, 0, static_cast<std::size_t>(count));
  }

  /// Reads until the pipe is empty or at end of file. Keeps at most `outputLimit` + 1 bytes, and discards the
  /// rest. Once `bytes` has this size, also stops after the deadline, a time of CLOCK_MONOTONIC.
  void drain(Seconds deadline) {
    char buffer[8192];
    while (readEnd) {
      const ssize_t count = read(readEnd.get(), buffer, sizeof buffer);
      if (count < 0 && errno == EINTR) continue;
      if (count < 0 && errno == EAGAIN) return;
      if (count <= 0) return readEnd.reset();
      const std::size_t room = outputLimit + 1 - bytes.size();
      bytes.append(buffer, std::min(static_cast<std::size_t>(count), room));
      // If the child writes faster than this loop reads, the pipe is never empty. So stop after the deadline,
      // but only if `bytes` exceeds the limit: further bytes would be cut off anyway.
      if (bytes.size() > outputLimit && timeOf(CLOCK_MONOTONIC) >= deadline) return;
    }
  }
};

/// The pipe for the standard output, and the pipe for the standard error.
using OutputPipes = std::array<OutputPipe, 2>;

}  // namespace

/// The children that have not been reaped. `mutex` guards the members below it.
struct ChildProcesses::Register {
  TakePipe leftover;
  std::mutex mutex;
  // Key: PID. Value: whether the child is abandoned: it has no Process, and `reapAbandoned` reaps it.
  std::map<pid_t, bool> unreaped;
  std::optional<std::thread::id> onlyThread;  // absent: any thread may launch children
  int starting = 0;                           // calls of `spawn` in progress; they do not hold the lock
  std::condition_variable noneStarting;       // notified when `starting` becomes 0

  void reapAbandoned() {
    std::erase_if(unreaped,
                  [](const auto& each) { return each.second && waitpid(each.first, nullptr, WNOHANG) != 0; });
  }
};

class ChildProcesses::Child final : public Process {
 public:
  Child(std::shared_ptr<Register> givenRegister, pid_t givenPid, OutputPipes givenPipes)
      : siblings(std::move(givenRegister)), pid(givenPid), pipes(std::move(givenPipes)) {}

  ~Child() override {
    leavePipes();
    const std::lock_guard lock(siblings->mutex);
    if (reaped) return;
    siblings->unreaped[pid] = true;
    siblings->reapAbandoned();
  }

  bool isRunning() override {
    if (reaped || reap()) return false;
    for (auto& each : pipes) each.makeRoom();
    return true;
  }

  void terminate() override { signal(SIGTERM); }
  void interrupt() override { signal(SIGINT); }

  // Sends the signal even if the child is reaped, because descendants may remain in its process group. While
  // one remains, the kernel does not reuse the ID of the group. When none remains, kill(2) fails with ESRCH
  // until the kernel reuses the ID. So call this while the child runs, or right after it is reaped.
  void terminateGroup() override { kill(-pid, SIGTERM); }

  int terminationStatus() const override {
    return WIFEXITED(status) ? WEXITSTATUS(status) : WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
  }

  std::string readOutput(Seconds patience) override {
    const Seconds deadline = timeOf(CLOCK_MONOTONIC) + patience;
    for (auto& each : pipes) each.writeEnd.reset();
    auto& [out, err] = pipes;
    for (;;) {
      for (auto& each : pipes) each.drain(deadline);
      const auto left =
          std::chrono::ceil<std::chrono::milliseconds>(deadline - timeOf(CLOCK_MONOTONIC)).count();
      if ((!out.readEnd && !err.readEnd) || left <= 0) break;
      pollfd waiting[] = {{out.readEnd.get(), POLLIN, 0}, {err.readEnd.get(), POLLIN, 0}};
      poll(waiting, std::size(waiting), static_cast<int>(left));
    }
    leavePipes();
    std::string output = std::move(out.bytes) + err.bytes;
    output.resize(withinBytes(output, outputLimit).size());
    return output;
  }

 private:
  bool reap() {
    // Hold the lock from waitpid until the PID is removed from `siblings`. Because another process may get
    // the PID after waitpid, `reserveForThisThread` might otherwise kill that process.
    const std::lock_guard lock(siblings->mutex);
    if (waitpid(pid, &status, WNOHANG) == 0) return false;
    siblings->unreaped.erase(pid);
    return reaped = true;
  }

  void signal(int number) {
    if (!reaped) kill(pid, number);
  }

  void leavePipes() {
    for (auto& each : pipes) {
      if (each.readEnd) siblings->leftover(std::move(each.readEnd));
    }
  }

  const std::shared_ptr<Register> siblings;
  const pid_t pid;
  OutputPipes pipes;
  int status = -1;
  bool reaped = false;
};

ChildProcesses::ChildProcesses(TakePipe leftover) : children(std::make_shared<Register>()) {
  children->leftover = std::move(leftover);
  for (auto& each : spare) each.reset(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

Result<std::unique_ptr<Process>> ChildProcesses::launch(const std::string& executable,
                                                        const std::vector<std::string>& arguments,
                                                        int input) {
  std::unique_lock lock(children->mutex);
  children->reapAbandoned();
  const auto self = std::this_thread::get_id();
  if (children->onlyThread.value_or(self) != self) return Failure{describe(ECANCELED)};
  OutputPipes pipes;
  auto& [output, error] = pipes;
  if (!output.open() || !error.open()) return Failure{describe(errno)};
  pid_t pid = 0;
  int failure = 0;
  for (int attempt = 1;; ++attempt) {
    ++children->starting;
    // Unlock: exec may hang on a network file system, and `reserveForThisThread` needs the lock.
    lock.unlock();
    failure = spawn({executable, arguments, input, output.writeEnd.get(), error.writeEnd.get()}, pid);
    lock.lock();
    if (--children->starting == 0) children->noneStarting.notify_all();
    // At the limit of processes (RLIMIT_NPROC), fork fails with EAGAIN. A later attempt usually succeeds: a
    // killed child counts only until this loop reaps it, and other processes of the user may end meanwhile.
    if (failure != EAGAIN || children->onlyThread != self || attempt == reservedAttempts) break;
    lock.unlock();
    std::this_thread::sleep_for(attemptInterval);
    lock.lock();
    children->reapAbandoned();
  }
  if (failure != 0) return Failure{describe(failure)};
  if (children->onlyThread.value_or(self) != self) {  // reserved during the spawn
    kill(-pid, SIGKILL);
    children->unreaped[pid] = true;
    return Failure{describe(ECANCELED)};
  }
  children->unreaped[pid] = false;
  return std::make_unique<Child>(children, pid, std::move(pipes));
}

void ChildProcesses::reserveForThisThread() {
  std::unique_lock lock(children->mutex);
  children->onlyThread = std::this_thread::get_id();
  children->reapAbandoned();
  // Close the spare descriptors, because the next launch needs free descriptors for its pipes.
  for (auto& each : spare) each.reset();
  for (const auto& each : children->unreaped) kill(-each.first, SIGKILL);
  // A thread that is in `spawn` now kills its child afterwards. Wait for that, but at most 200 ms, because
  // exec may hang.
  children->noneStarting.wait_for(lock, startPatience, [this] { return children->starting == 0; });
}

}  // namespace kestrune
