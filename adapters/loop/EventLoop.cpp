#include "adapters/loop/EventLoop.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "adapters/loop/SerialQueue.h"
#include "adapters/system/FileDescriptor.h"

namespace kestrune {

namespace {

constexpr std::array endingSignals{SIGTERM, SIGINT, SIGHUP, SIGQUIT};
constexpr Seconds threadRetry{0.5};   // after std::thread has failed with EAGAIN
constexpr std::uint64_t exactly = 1;  // microseconds: sd-event may otherwise fire up to 250 ms late

/// Ends the process when a call that the loop needs has failed; `result` is then a negative errno.
void require(int result, const char* what) {
  if (result >= 0) return;
  std::fprintf(stderr, "KestruneMenuClient: %s: %s\n", what, std::strerror(-result));
  std::_Exit(EXIT_FAILURE);
}

std::uint64_t microseconds(Seconds duration) {
  return duration.count() <= 0 ? 0 : static_cast<std::uint64_t>(duration.count() * 1e6);
}

/// sd_event_now() is the time of the last wake-up; this is the present time.
std::uint64_t currentTime(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return static_cast<std::uint64_t>(time.tv_sec) * 1000000 + static_cast<std::uint64_t>(time.tv_nsec) / 1000;
}

/// Owned by its source, which deletes it.
using Handler = std::function<void()>;

void attach(sd_event_source* source, Handler handler) {
  sd_event_source_set_userdata(source, new Handler(std::move(handler)));
  sd_event_source_set_destroy_callback(source, [](void* data) { delete static_cast<Handler*>(data); });
}

void call(void* data) {
  // Copied, because the handler may destroy its own source.
  const Handler handler = *static_cast<Handler*>(data);
  handler();
}

class LoopTimer final : public Timer {
 public:
  LoopTimer(sd_event* loop, Seconds givenInterval, std::function<void()> givenAction)
      : interval(microseconds(givenInterval)), action(std::move(givenAction)) {
    sd_event_source* made = nullptr;
    due = currentTime(CLOCK_BOOTTIME) + interval;
    require(
        sd_event_add_time(
            loop, &made, CLOCK_BOOTTIME, due, exactly,
            [](sd_event_source*, std::uint64_t, void* self) { return static_cast<LoopTimer*>(self)->fire(); },
            this),
        "timer");
    source.reset(made);
  }

  void invalidate() override { source.reset(); }

 private:
  int fire() {
    // Rearm before the action, which may invalidate or destroy this timer.
    due += interval;
    if (const std::uint64_t time = currentTime(CLOCK_BOOTTIME); due <= time) {
      due = time + interval;
    }
    sd_event_source_set_time(source.get(), due);
    sd_event_source_set_enabled(source.get(), SD_EVENT_ONESHOT);
    const auto copy = action;
    copy();
    return 0;
  }

  const std::uint64_t interval;
  const std::function<void()> action;
  std::uint64_t due = 0;
  EventSource source;
};

/// A serial queue that runs its jobs on the main queue.
class MainThreadSerialQueue final : public DispatchQueue {
 public:
  MainThreadSerialQueue(MainQueue& givenTarget, std::string label)
      : target(givenTarget), name(std::move(label)) {}

  ~MainThreadSerialQueue() override { *open = false; }

  const std::string& label() const override { return name; }

  void async(Job job) override {
    target.async([stillOpen = open, job = std::move(job)] {
      if (*stillOpen) job();
    });
  }

  void close() override { *open = false; }

 private:
  MainQueue& target;
  const std::string name;
  const std::shared_ptr<bool> open = std::make_shared<bool>(true);  // main thread only
};

}  // namespace

/// Any thread may post a job; an eventfd wakes the loop.
class EventLoop::LoopQueue final : public MainQueue {
 public:
  explicit LoopQueue(EventLoop& givenLoop) : loop(givenLoop), wakeUp(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    require(wakeUp.get() < 0 ? -errno : 0, "eventfd");
    source = loop.onDescriptor(wakeUp.get(), EPOLLIN, [this] { runJobs(); });
  }

  const std::string& label() const override { return name; }

  void async(Job job) override {
    const std::lock_guard lock(mutex);
    if (closed) return;
    jobs.push_back(std::move(job));
    if (jobs.size() == 1) wake();
  }

  void asyncAfter(Seconds delay, Job job) override {
    const std::uint64_t due = currentTime(CLOCK_MONOTONIC) + microseconds(delay);
    const std::lock_guard lock(mutex);
    if (closed) return;
    const auto place = delayed.emplace(due, std::move(job));
    if (place == delayed.begin()) wake();
  }

  void close() override {
    // Destroyed after the lock is released: the destructor of a job may post another job.
    std::deque<Job> dropped;
    std::multimap<std::uint64_t, Job> droppedDelayed;
    const std::lock_guard lock(mutex);
    closed = true;
    dropped.swap(jobs);
    droppedDelayed.swap(delayed);
  }

 private:
  void wake() {
    const std::uint64_t one = 1;
    static_cast<void>(!write(wakeUp.get(), &one, sizeof one));
  }

  void runJobs() {
    std::uint64_t count = 0;
    static_cast<void>(!read(wakeUp.get(), &count, sizeof count));
    // Run only the jobs that are queued now: the jobs that they post must not starve the other event sources.
    std::size_t present = 0;
    {
      const std::lock_guard lock(mutex);
      present = jobs.size();
    }
    for (Job job; present > 0 && !loop.terminating && takeFirst(job); --present) runOnce(job);
    {
      const std::lock_guard lock(mutex);
      if (!jobs.empty()) wake();
    }
    setAlarm();
  }

  /// Runs the jobs that are due now, ordered by due time.
  void runDelayed() {
    const std::uint64_t present = currentTime(CLOCK_MONOTONIC);
    for (Job job; !loop.terminating && takeDue(present, job);) runOnce(job);
    setAlarm();
  }

  /// Destroys the job while no lock is held: the destructor of a capture may post another job.
  static void runOnce(Job& job) {
    job();
    job = nullptr;
  }

  bool takeFirst(Job& job) {
    const std::lock_guard lock(mutex);
    if (jobs.empty()) return false;
    job = std::move(jobs.front());
    jobs.pop_front();
    return true;
  }

  bool takeDue(std::uint64_t present, Job& job) {
    const std::lock_guard lock(mutex);
    if (delayed.empty() || delayed.begin()->first > present) return false;
    job = std::move(delayed.begin()->second);
    delayed.erase(delayed.begin());
    return true;
  }

  void setAlarm() {
    std::uint64_t due = 0;
    {
      const std::lock_guard lock(mutex);
      if (delayed.empty()) return alarm.reset();
      due = delayed.begin()->first;
    }
    alarm = loop.at(due, [this] { runDelayed(); });
  }

  EventLoop& loop;
  const std::string name = "main";
  const FileDescriptor wakeUp;
  EventSource source;
  EventSource alarm;
  std::mutex mutex;
  std::deque<Job> jobs;                       // guarded by mutex
  std::multimap<std::uint64_t, Job> delayed;  // by due time; guarded by mutex
  bool closed = false;                        // guarded by mutex
};

/// If a standard stream is closed, the next open() returns its number, and every child inherits that file.
void openMissingStandardStreams() {
  for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
    if (fcntl(stream, F_GETFD) >= 0 || errno != EBADF) continue;
    static_cast<void>(!open("/dev/null", O_RDWR));
  }
}

EventLoop::EventLoop() {
  openMissingStandardStreams();
  // Before any thread starts: threads inherit the mask, and the kernel gives a signal to any thread that does
  // not block it.
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGCHLD);
  for (const int each : endingSignals) sigaddset(&blocked, each);
  pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
  // By default these end the process without stopping the backend.
  for (const int each : {SIGPIPE, SIGUSR1, SIGUSR2}) std::signal(each, SIG_IGN);
  // A write beyond RLIMIT_FSIZE fails with EFBIG, instead of ending the process.
  std::signal(SIGXFSZ, SIG_IGN);
  // If SIGCHLD is ignored, as some parents leave it, the kernel discards the exit status of our children.
  std::signal(SIGCHLD, SIG_DFL);

  require(sd_event_new(&loop), "event loop");
  queue = std::make_unique<LoopQueue>(*this);
  terminationSignals = std::make_unique<EventSource[]>(endingSignals.size());
  for (std::size_t i = 0; i < endingSignals.size(); ++i) {
    struct sigaction inherited {};
    sigaction(endingSignals[i], nullptr, &inherited);
    // nohup ignores SIGHUP: leave it ignored.
    if (endingSignals[i] == SIGHUP && inherited.sa_handler == SIG_IGN) continue;
    terminationSignals[i] = onSignal(endingSignals[i], [this] { terminate(); });
  }
}

EventLoop::~EventLoop() {
  terminationSignals.reset();
  children.clear();
  queue.reset();
  sd_event_unref(loop);
}

void EventLoop::runUntil(const std::function<bool()>& done) {
  while (!done() && !terminating) require(sd_event_run(loop, UINT64_MAX), "event loop");
}

EventSource EventLoop::onSignal(int signalNumber, std::function<void()> handler) {
  sigset_t mask;
  sigemptyset(&mask);
  sigaddset(&mask, signalNumber);
  pthread_sigmask(SIG_BLOCK, &mask, nullptr);
  sd_event_source* made = nullptr;
  require(sd_event_add_signal(
              loop, &made, signalNumber,
              [](sd_event_source*, const signalfd_siginfo*, void* data) {
                call(data);
                return 0;
              },
              nullptr),
          "signal");
  attach(made, std::move(handler));
  return EventSource(made);
}

EventSource EventLoop::after(Seconds delay, std::function<void()> handler) {
  return at(currentTime(CLOCK_MONOTONIC) + microseconds(delay), std::move(handler));
}

EventSource EventLoop::at(std::uint64_t due, std::function<void()> handler) {
  sd_event_source* made = nullptr;
  require(sd_event_add_time(
              loop, &made, CLOCK_MONOTONIC, due, exactly,
              [](sd_event_source*, std::uint64_t, void* data) {
                call(data);
                return 0;
              },
              nullptr),
          "timer");
  attach(made, std::move(handler));
  return EventSource(made);
}

EventSource EventLoop::onDescriptor(int descriptor, unsigned events, std::function<void()> handler) {
  sd_event_source* made = nullptr;
  const int result = sd_event_add_io(
      loop, &made, descriptor, events,
      [](sd_event_source*, int, std::uint32_t, void* data) {
        call(data);
        return 0;
      },
      nullptr);
  if (result == -EPERM) return nullptr;
  require(result, "descriptor");
  attach(made, std::move(handler));
  return EventSource(made);
}

void EventLoop::reap(pid_t child) {
  std::erase_if(unwatched, [](pid_t each) { return waitpid(each, nullptr, WNOHANG) != 0; });
  sd_event_source* made = nullptr;
  const int added = sd_event_add_child(
      loop, &made, child, WEXITED,
      [](sd_event_source* source, const siginfo_t* ended, void* self) {
        sd_event_source_set_enabled(source, SD_EVENT_OFF);
        static_cast<EventLoop*>(self)->children.erase(ended->si_pid);
        return 0;
      },
      this);
  // Watching a child takes a pidfd, which fails with EMFILE when no descriptor is free.
  if (added < 0) return unwatched.push_back(child);
  children[child].reset(made);
}

void EventLoop::reapInherited() {
  std::ifstream inherited("/proc/self/task/" + std::to_string(getpid()) + "/children");
  for (pid_t child = 0; inherited >> child;) reap(child);
}

void EventLoop::signalChild(pid_t child, int signalNumber) {
  const bool isOurs =
      children.contains(child) || std::find(unwatched.begin(), unwatched.end(), child) != unwatched.end();
  if (isOurs) kill(child, signalNumber);
}

void EventLoop::setActivationPolicy(ActivationPolicy) {
  // Linux desktops have no activation policy: a process without a window is not listed as a running program.
}

int EventLoop::run(ApplicationDelegate& delegate) {
  if (!terminating) {
    delegate.applicationDidFinishLaunching();
    runUntil([] { return false; });
    if (beforeTermination) beforeTermination();
    delegate.applicationWillTerminate();
  }
  return 0;
}

void EventLoop::terminate() {
  terminating = true;
}

MainQueue& EventLoop::mainQueue() {
  return *queue;
}

std::unique_ptr<DispatchQueue> EventLoop::makeSerialQueue(std::string label, QualityOfService,
                                                          QueueTarget target) {
  if (target == QueueTarget::ownThread) {
    return std::make_unique<SerialQueue>(std::move(label),
                                         [this](Job job) { queue->asyncAfter(threadRetry, std::move(job)); });
  }
  return std::make_unique<MainThreadSerialQueue>(*queue, std::move(label));
}

std::unique_ptr<Timer> EventLoop::scheduleRepeating(Seconds interval, std::function<void()> action) {
#ifdef KESTRUNE_SHORT_TICKS
  if (const char* seconds = std::getenv("KESTRUNE_TEST_TICK")) interval = Seconds(std::atof(seconds));
#endif
  return std::make_unique<LoopTimer>(loop, interval, std::move(action));
}

}  // namespace kestrune
