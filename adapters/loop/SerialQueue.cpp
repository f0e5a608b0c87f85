#include "adapters/loop/SerialQueue.h"

#include <pthread.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include "adapters/system/StandardError.h"

namespace kestrune {

constexpr std::size_t threadNameLimit = 15;  // bytes: TASK_COMM_LEN of the kernel, less the NUL

struct SerialQueue::State : std::enable_shared_from_this<State> {
  State(std::string givenName, Later givenLater) : name(std::move(givenName)), later(std::move(givenLater)) {}

  const std::string name;
  const Later later;
  std::mutex mutex;
  std::condition_variable changed;
  std::deque<Job> jobs;
  bool closed = false;
  bool started = false;  // whether the thread runs, or a later attempt to start it is scheduled

  /// Starts the thread. If that fails, keeps the jobs and tries again later. Call it with `mutex` locked.
  void start() {
    if (closed || std::exchange(started, true)) return;
    try {
      // Detach the thread, so that the end of the process need not wait for it: a job may take long.
      std::thread([self = shared_from_this()] { self->run(); }).detach();
    } catch (const std::system_error& failure) {
      reportOnce("cannot start a thread for commands (" + failure.code().message() +
                 "): commands wait until it can be started");
      later([weak = weak_from_this()] {
        const auto self = weak.lock();
        if (!self) return;
        const std::lock_guard lock(self->mutex);
        self->started = false;
        self->start();
      });
    }
  }

  void run() {
    pthread_setname_np(pthread_self(), name.substr(0, threadNameLimit).c_str());
    std::unique_lock lock(mutex);
    for (;;) {
      changed.wait(lock, [this] { return closed || !jobs.empty(); });
      if (closed) return;
      Job job = std::move(jobs.front());
      jobs.pop_front();
      lock.unlock();
      job();
      job = nullptr;  // destroyed while the mutex is free: the destructor of a captured object may post a job
      lock.lock();
    }
  }
};

SerialQueue::SerialQueue(std::string label, Later later)
    : name(std::move(label)), state(std::make_shared<State>(name, std::move(later))) {}

SerialQueue::~SerialQueue() {
  close();
}

void SerialQueue::async(Job job) {
  const std::lock_guard lock(state->mutex);
  if (state->closed) return;
  state->jobs.push_back(std::move(job));
  state->start();
  state->changed.notify_one();
}

void SerialQueue::close() {
  std::deque<Job> dropped;  // destroyed after the lock is released: a job's destructor may call this queue
  {
    const std::lock_guard lock(state->mutex);
    state->closed = true;
    dropped.swap(state->jobs);
  }
  state->changed.notify_one();
}

}  // namespace kestrune
