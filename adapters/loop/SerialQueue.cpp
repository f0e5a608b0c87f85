#include "adapters/loop/SerialQueue.h"

#include <pthread.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <system_error>
#include <utility>

#include "adapters/system/StandardError.h"

namespace kestrune {

namespace {

constexpr std::size_t threadNameLimit = 15;  // TASK_COMM_LEN of the kernel, without the NUL

}  // namespace

struct SerialQueue::State : std::enable_shared_from_this<State> {
  State(std::string givenName, Later givenLater) : name(std::move(givenName)), later(std::move(givenLater)) {}

  const std::string name;
  const Later later;
  std::mutex mutex;
  std::condition_variable changed;
  std::deque<Job> jobs;
  bool closed = false;
  bool busy = false;
  bool startsLater = false;
  std::thread thread;

  /// Call with the lock held. Retries when no thread can be started: callers wait for their jobs.
  void start() {
    if (thread.joinable() || startsLater || closed) return;
    try {
      thread = std::thread([self = shared_from_this()] { self->run(); });
    } catch (const std::system_error& failure) {
      reportOnce("no thread for commands (" + failure.code().message() + "): they wait");
      startsLater = true;
      later([weak = weak_from_this()] {
        const auto self = weak.lock();
        if (!self) return;
        const std::lock_guard lock(self->mutex);
        self->startsLater = false;
        self->start();
      });
      return;
    }
    pthread_setname_np(thread.native_handle(), name.substr(0, threadNameLimit).c_str());
  }

  void run() {
    std::unique_lock lock(mutex);
    for (;;) {
      changed.wait(lock, [this] { return closed || !jobs.empty(); });
      if (jobs.empty()) return;
      {
        const Job job = std::move(jobs.front());
        jobs.pop_front();
        busy = true;
        lock.unlock();
        job();
        // Destroy the job before `busy` becomes false: it may hold the last reference to the queue's owner.
      }
      lock.lock();
      busy = false;
    }
  }
};

SerialQueue::SerialQueue(std::string label, Later later)
    : name(std::move(label)), state(std::make_shared<State>(name, std::move(later))) {}

SerialQueue::~SerialQueue() {
  close();
  bool busy = false;
  {
    const std::lock_guard lock(state->mutex);
    busy = state->busy;
  }
  if (!state->thread.joinable()) return;
  if (busy) {
    state->thread.detach();
  } else {
    state->thread.join();
  }
}

void SerialQueue::async(Job job) {
  const std::lock_guard lock(state->mutex);
  if (state->closed) return;
  state->jobs.push_back(std::move(job));
  state->start();
  state->changed.notify_one();
}

void SerialQueue::close() {
  std::deque<Job> dropped;  // destroyed after the lock is released: a destructor may call the queue
  {
    const std::lock_guard lock(state->mutex);
    state->closed = true;
    dropped.swap(state->jobs);
  }
  state->changed.notify_one();
}

}  // namespace kestrune
