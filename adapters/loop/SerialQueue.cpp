#include "adapters/loop/SerialQueue.h"

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

namespace kestrune {

constexpr int attempts = 20;
constexpr std::chrono::milliseconds attemptInterval{50};
constexpr std::size_t threadNameLimit = 15;  // bytes: TASK_COMM_LEN of the kernel, less the NUL

struct SerialQueue::State {
  std::mutex mutex;
  std::condition_variable changed;
  std::deque<Job> jobs;
  bool closed = false;

  void run() {
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

SerialQueue::SerialQueue(std::string label) : name(std::move(label)), state(std::make_shared<State>()) {
  // A thread cannot be created while there are too many processes and threads (EAGAIN). At login, many
  // processes start at once, and some of them end soon. So try again for a second.
  for (int attempt = 1;; ++attempt) {
    try {
      // Detach the thread, so that the end of the process need not wait for it: a job may take long.
      std::thread([shared = state, threadName = name.substr(0, threadNameLimit)] {
        pthread_setname_np(pthread_self(), threadName.c_str());
        shared->run();
      }).detach();
      return;
    } catch (const std::system_error& failure) {
      if (attempt == attempts) {
        std::fprintf(stderr, "KestruneMenuClient: cannot start a thread for commands: %s\n",
                     failure.code().message().c_str());
        std::_Exit(EXIT_FAILURE);
      }
      std::this_thread::sleep_for(attemptInterval);
    }
  }
}

SerialQueue::~SerialQueue() {
  close();
}

void SerialQueue::async(Job job) {
  const std::lock_guard lock(state->mutex);
  if (state->closed) return;
  state->jobs.push_back(std::move(job));
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
