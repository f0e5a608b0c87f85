#include "adapters/loop/EventLoop.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <span>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "adapters/system/System.h"

namespace kestrune {

namespace {

constexpr std::array endingSignals{SIGTERM, SIGINT, SIGHUP, SIGQUIT};
constexpr std::uint64_t exactly = 1;  // microseconds that a timer may be late; with 0, sd-event allows 250 ms

constexpr int attempts = 20;  // to start a thread
constexpr std::chrono::milliseconds attemptInterval{50};
constexpr std::size_t threadNameLimit = 15;  // bytes: TASK_COMM_LEN of the kernel, less the NUL

/// Ends the process if `result` is a negative errno: the client cannot run without the call that has failed.
void require(int result, const char* what) {
  if (result >= 0) return;
  std::fprintf(stderr, "KestruneMenuClient: %s: %s\n", what, std::strerror(-result));
  std::_Exit(EXIT_FAILURE);
}

/// Blocks or unblocks signals in this thread. `how`: as for pthread_sigmask(3).
void changeSignalMask(int how, std::span<const int> signals) {
  sigset_t set;
  sigemptyset(&set);
  for (const int each : signals) sigaddset(&set, each);
  pthread_sigmask(how, &set, nullptr);
}

using Handler = std::function<void()>;

/// The sd-event callback of every event source. It calls the handler, which the source owns.
constexpr auto callHandler = [](sd_event_source* source, auto...) {
  // Call a copy: the handler may destroy the event source, which owns the handler.
  const Handler handler = *static_cast<Handler*>(sd_event_source_get_userdata(source));
  handler();
  return 0;
};

EventSource withHandler(sd_event_source* source, Handler handler) {
  sd_event_source_set_userdata(source, new Handler(std::move(handler)));
  sd_event_source_set_destroy_callback(source, [](void* data) { delete static_cast<Handler*>(data); });
  return EventSource(source);
}

/// A serial queue with its own thread. A job of this queue may destroy the queue.
class SerialQueue final : public DispatchQueue {
 public:
  /// Starts the thread. If there are too many processes and threads (EAGAIN), tries again for one second: at
  /// login, many processes start at once, and some of them end soon. If every attempt fails, prints an error
  /// on standard error and ends the process.
  explicit SerialQueue(const std::string& label) {
    for (int attempt = 1;; ++attempt) {
      try {
        // Detach the thread, so that the end of the process need not wait for it: a job may take long.
        std::thread([shared = state, threadName = label.substr(0, threadNameLimit)] {
          pthread_setname_np(pthread_self(), threadName.c_str());
          while (const Job job = shared->take()) job();
        }).detach();
        return;
      } catch (const std::system_error& failure) {
        if (attempt == attempts) require(-failure.code().value(), "cannot start a thread for commands");
        std::this_thread::sleep_for(attemptInterval);
      }
    }
  }

  ~SerialQueue() override { close(); }

  void async(Job job) override {
    const std::lock_guard lock(state->mutex);
    if (state->closed) return;
    state->jobs.push_back(std::move(job));
    state->changed.notify_one();
  }

  void close() override {
    std::deque<Job> dropped;  // destroyed after the lock is released: a job's destructor may call this queue
    const std::lock_guard lock(state->mutex);
    state->closed = true;
    dropped.swap(state->jobs);
    state->changed.notify_one();
  }

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<Job> jobs;
    bool closed = false;

    /// Waits for the next job. Returns null when the queue is closed.
    Job take() {
      std::unique_lock lock(mutex);
      changed.wait(lock, [this] { return closed || !jobs.empty(); });
      if (closed) return nullptr;
      Job job = std::move(jobs.front());
      jobs.pop_front();
      return job;
    }
  };

  // shared with the queue's thread, which may outlive the queue
  const std::shared_ptr<State> state = std::make_shared<State>();
};

}  // namespace

/// A queue whose jobs run on the main thread. Any thread may post a job; an eventfd then wakes the loop.
class EventLoop::LoopQueue final : public MainQueue {
 public:
  explicit LoopQueue(EventLoop& givenLoop) : loop(givenLoop), wakeUp(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    require(wakeUp.get() < 0 ? -errno : 0, "cannot create an eventfd");
    // Edge-triggered: each write wakes the loop again, although the count of the eventfd is never read.
    source = loop.onDescriptor(wakeUp.get(), EPOLLIN | EPOLLET, [this] { runJobs(); });
  }

  ~LoopQueue() override { close(); }

  void async(Job job) override { asyncAfter(Seconds{0}, std::move(job)); }

  void asyncAfter(Seconds delay, Job job) override {
    const std::lock_guard lock(mutex);
    if (closed) return;
    const Seconds due = timeOf(CLOCK_MONOTONIC) + std::max(delay, Seconds{0});
    const auto place = jobs.emplace(due, std::move(job));
    if (place == jobs.begin()) eventfd_write(wakeUp.get(), 1);
  }

  void close() override {
    // `dropped` is destroyed after the lock is released: the destructor of a job may post another job.
    std::multimap<Seconds, Job> dropped;
    const std::lock_guard lock(mutex);
    closed = true;
    dropped.swap(jobs);
  }

 private:
  /// Runs the jobs that are due now. A job that is posted meanwhile waits for the next turn of the loop, so
  /// that the other event sources get their turn.
  void runJobs() {
    const Seconds present = timeOf(CLOCK_MONOTONIC);
    while (const Job job = takeDue(present)) job();
    const std::lock_guard lock(mutex);
    if (jobs.empty()) return alarm.reset();
    alarm = loop.at(CLOCK_MONOTONIC, jobs.begin()->first, [this] { runJobs(); });
  }

  /// Takes the first job if it is due. Returns null if it is not, or if the loop is to end.
  Job takeDue(Seconds present) {
    const std::lock_guard lock(mutex);
    if (loop.terminating || jobs.empty() || jobs.begin()->first > present) return nullptr;
    return std::move(jobs.extract(jobs.begin()).mapped());
  }

  EventLoop& loop;
  const FileDescriptor wakeUp;
  EventSource source;
  EventSource alarm;  // fires when the first delayed job is due
  std::mutex mutex;
  std::multimap<Seconds, Job> jobs;  // key: due time on CLOCK_MONOTONIC; guarded by mutex
  bool closed = false;               // guarded by mutex
};

/// A repeating timer on CLOCK_BOOTTIME, which also counts the time in suspend.
class EventLoop::LoopTimer final : public Timer {
 public:
  LoopTimer(EventLoop& givenLoop, Seconds givenInterval, const std::function<void()>& action)
      : loop(givenLoop), interval(givenInterval) {
    wait(action);
  }

  void invalidate() override { source.reset(); }

 private:
  void wait(const std::function<void()>& action) {
    const Seconds present = timeOf(CLOCK_BOOTTIME);
    due += interval;
    if (due <= present) due = present + interval;
    source = loop.at(CLOCK_BOOTTIME, due, [this, action] {
      // `callHandler` runs a copy of this handler: `wait` destroys the original, `action` perhaps the timer.
      wait(action);
      action();
    });
  }

  EventLoop& loop;
  const Seconds interval;
  Seconds due = timeOf(CLOCK_BOOTTIME);  // when the next tick is due; at first, the time of the start
  EventSource source;
};

EventLoop::EventLoop() {
  // Open /dev/null for each closed standard stream. Otherwise, the next opened file would get the stream's
  // number, and every child would inherit that file.
  for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
    if (fcntl(stream, F_GETFD) < 0) static_cast<void>(!open("/dev/null", O_RDWR));
  }
  // Block these signals before any thread starts: threads inherit the mask. If a thread did not block them,
  // the kernel could deliver a signal to that thread, and the loop would miss the signal.
  changeSignalMask(SIG_BLOCK, endingSignals);
  changeSignalMask(SIG_BLOCK, std::array{SIGCHLD, SIGCONT, SIGWINCH});  // the last two are for the terminal
  // Ignore these signals: by default they end the process, and the backend would not be stopped. With SIGXFSZ
  // ignored, a write beyond RLIMIT_FSIZE fails with EFBIG.
  for (const int each : {SIGPIPE, SIGUSR1, SIGUSR2, SIGXFSZ}) std::signal(each, SIG_IGN);
  // Some parents leave SIGCHLD ignored: the kernel would then discard the exit status of our children.
  std::signal(SIGCHLD, SIG_DFL);

  require(sd_event_new(&loop), "cannot create the event loop");
  queue = std::make_unique<LoopQueue>(*this);
  signals.push_back(onSignal(SIGCHLD, [this] { reapEnded(); }));
  for (const int each : endingSignals) {
    struct sigaction inherited {};
    sigaction(each, nullptr, &inherited);
    // Leave an ignored signal ignored, except SIGTERM: nohup(1) ignores SIGHUP, and a shell without job
    // control ignores SIGINT and SIGQUIT for a background job. Add no event source for such a signal:
    // signalfd(2) reports a blocked signal even if it is ignored.
    if (each != SIGTERM && inherited.sa_handler == SIG_IGN) continue;
    signals.push_back(onSignal(each, [this] { terminate(); }));
  }
}

void EventLoop::runUntil(const std::function<bool()>& done) {
  while (!done() && !terminating) require(sd_event_run(loop, UINT64_MAX), "cannot run the event loop");
}

EventSource EventLoop::onSignal(int signalNumber, std::function<void()> handler) {
  changeSignalMask(SIG_BLOCK, std::array{signalNumber});
  sd_event_source* made = nullptr;
  require(sd_event_add_signal(loop, &made, signalNumber, callHandler, nullptr), "cannot watch a signal");
  return withHandler(made, std::move(handler));
}

EventSource EventLoop::at(clockid_t clock, Seconds due, std::function<void()> handler) {
  const auto microseconds = static_cast<std::uint64_t>(std::ceil(std::max(due.count(), 0.0) * 1e6));
  sd_event_source* made = nullptr;
  require(sd_event_add_time(loop, &made, clock, microseconds, exactly, callHandler, nullptr),
          "cannot add a timer");
  return withHandler(made, std::move(handler));
}

EventSource EventLoop::onDescriptor(int descriptor, unsigned events, std::function<void()> handler) {
  sd_event_source* made = nullptr;
  const int result = sd_event_add_io(loop, &made, descriptor, events, callHandler, nullptr);
  if (result == -EPERM) return nullptr;
  require(result, "cannot watch a file descriptor");
  return withHandler(made, std::move(handler));
}

void EventLoop::unblockEndingSignals() {
  changeSignalMask(SIG_UNBLOCK, endingSignals);
}

/// Reaps only the children that were given to `reap`; other code reaps all other children. Runs at each
/// SIGCHLD. Uses no pidfds: each is a descriptor, and the process may have no free descriptor.
void EventLoop::reapEnded() {
  std::erase_if(children, [](pid_t each) { return waitpid(each, nullptr, WNOHANG) != 0; });
}

void EventLoop::reapInherited() {
  std::string inherited;
  readWholeFile("/proc/self/task/" + std::to_string(getpid()) + "/children", inherited);
  char* rest = inherited.data();
  while (const auto child = std::strtol(rest, &rest, 10)) reap(static_cast<pid_t>(child));
}

void EventLoop::signalChild(pid_t child, int signalNumber) {
  if (children.contains(child)) kill(child, signalNumber);
}

int EventLoop::run(ApplicationDelegate& delegate) {
  if (terminating) return 0;
  delegate.applicationDidFinishLaunching();
  runUntil([] { return false; });
  if (beforeTermination) beforeTermination();
  delegate.applicationWillTerminate();
  return 0;
}

std::unique_ptr<DispatchQueue> EventLoop::makeSerialQueue(std::string label, QualityOfService,
                                                          QueueTarget target) {
  if (target == QueueTarget::ownThread) return std::make_unique<SerialQueue>(label);
  return std::make_unique<LoopQueue>(*this);
}

std::unique_ptr<Timer> EventLoop::scheduleRepeating(Seconds interval, std::function<void()> action) {
#ifdef KESTRUNE_SHORT_TICKS
  if (const char* seconds = std::getenv("KESTRUNE_TEST_TICK")) interval = Seconds(std::atof(seconds));
#endif
  return std::make_unique<LoopTimer>(*this, interval, action);
}

}  // namespace kestrune
