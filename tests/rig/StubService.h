#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "adapters/system/System.h"
#include "tests/rig/BusText.h"

namespace kestrune::testing {

inline bool isMethod(sd_bus_message* call, const char* member) {
  return std::strcmp(sd_bus_message_get_member(call), member) == 0;
}

/// A fake service on a bus, which records its calls. It has its own thread, so that the thread under test may
/// block on a call. The destructor disconnects the service.
class StubService {
 public:
  /// Handles a call on the service's thread. Returns false if the service has no such method.
  using Behaviour = std::function<bool(sd_bus_message* call)>;

  /// Returns when the service owns `givenName`. Throws if that fails.
  StubService(std::string givenAddress, std::string givenName, Behaviour givenBehaviour)
      : address(std::move(givenAddress)), name(std::move(givenName)), behaviour(std::move(givenBehaviour)) {
    std::promise<void> started;
    auto ready = started.get_future();
    thread = std::thread([this, &started] { run(started); });
    try {
      ready.get();
    } catch (...) {
      thread.join();
      throw;
    }
  }

  ~StubService() {
    perform([this] { sd_event_exit(loop, 0); });
    thread.join();
  }
  StubService(const StubService&) = delete;
  StubService& operator=(const StubService&) = delete;

  /// Returns all recorded calls in order, each as "path Method arguments".
  std::vector<std::string> calls() const {
    const std::lock_guard lock(mutex);
    return record;
  }

  /// Returns the recorded calls and forgets them, so that the next newCalls() returns only newer calls.
  std::vector<std::string> newCalls() {
    const std::lock_guard lock(mutex);
    return std::exchange(record, {});
  }

  void behave(Behaviour changed) {
    perform([this, &changed] { behaviour = std::move(changed); });
  }

  /// Answers the call that `holds` has kept, and unrefs it. Takes a reference, because only the service's
  /// thread may read `held`.
  void answer(sd_bus_message* const& held, const Behaviour& how) {
    perform([&] {
      how(held);
      sd_bus_message_unref(held);
    });
  }

  /// Runs `work` on the service's thread, and returns when `work` is done.
  void perform(const std::function<void()>& work) {
    std::promise<void> done;
    {
      const std::lock_guard lock(mutex);
      jobs.emplace_back([&] {
        work();
        done.set_value();
      });
    }
    const std::uint64_t one = 1;
    if (write(wakeUp.get(), &one, sizeof one) < 0) throw std::runtime_error("stub: no wake-up");
    done.get_future().get();
  }

  /// Returns when the bus daemon has passed all replies of this service on to the callers.
  void settle() {
    perform([this] {
      must(sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                              "GetId", nullptr, nullptr, ""),
           "settle");
    });
  }

  /// Answers every Inhibit with a cookie, counted up from `first`, and every other call with an empty reply.
  static Behaviour grants(std::uint32_t first) {
    return [next = first](sd_bus_message* call) mutable {
      if (isMethod(call, "Inhibit")) {
        sd_bus_reply_method_return(call, "u", next++);
      } else {
        sd_bus_reply_method_return(call, "");
      }
      return true;
    };
  }

  static Behaviour refuses(std::string errorName) {
    return [errorName = std::move(errorName)](sd_bus_message* call) {
      sd_bus_reply_method_errorf(call, errorName.c_str(), "not today");
      return true;
    };
  }

  /// Answers every call with `values`, whose D-Bus types are `types`.
  template <typename... Values>
  static Behaviour returns(const char* types, Values... values) {
    return [=](sd_bus_message* call) { return sd_bus_reply_method_return(call, types, values...) >= 0; };
  }

  static Behaviour saysNothing() {
    return [](sd_bus_message*) { return true; };
  }

  /// Answers no call. Puts the newest call of the method `member` into `held`, so that the test can answer it
  /// later by `answer`.
  static Behaviour holds(const char* member, sd_bus_message*& held) {
    return [member, &held](sd_bus_message* call) {
      if (isMethod(call, member)) held = sd_bus_message_ref(call);
      return true;
    };
  }

  static Behaviour offersNothing() {
    return [](sd_bus_message*) { return false; };
  }

 private:
  void run(std::promise<void>& started) {
    try {
      must(sd_event_new(&loop), "loop");
      must(sd_event_add_io(loop, nullptr, wakeUp.get(), EPOLLIN, &wokenUp, this), "wake-up");
      must(sd_bus_new(&bus), "bus");
      must(sd_bus_set_address(bus, address.c_str()), "address");
      must(sd_bus_set_bus_client(bus, 1), "client");
      must(sd_bus_negotiate_fds(bus, 1), "descriptors");
      must(sd_bus_start(bus), "connect");
      must(sd_bus_attach_event(bus, loop, SD_EVENT_PRIORITY_NORMAL), "attach");
      must(sd_bus_add_filter(bus, nullptr, &called, this), "listen");
      must(sd_bus_request_name(bus, name.c_str(),
                               SD_BUS_NAME_ALLOW_REPLACEMENT | SD_BUS_NAME_REPLACE_EXISTING),
           "own the name");
      started.set_value();
      sd_event_loop(loop);
    } catch (...) {
      started.set_exception(std::current_exception());
    }
    if (bus != nullptr) sd_bus_detach_event(bus);
    sd_bus_flush_close_unref(bus);
    sd_event_unref(loop);
  }

  static int wokenUp(sd_event_source*, int descriptor, std::uint32_t, void* data) {
    auto& self = *static_cast<StubService*>(data);
    std::uint64_t count = 0;
    if (read(descriptor, &count, sizeof count) < 0) return 0;
    std::deque<std::function<void()>> batch;
    {
      const std::lock_guard lock(self.mutex);
      batch.swap(self.jobs);
    }
    for (const auto& job : batch) job();
    return 0;
  }

  static int called(sd_bus_message* message, void* data, sd_bus_error*) {
    auto& self = *static_cast<StubService*>(data);
    if (!sd_bus_message_is_method_call(message, nullptr, nullptr)) return 0;
    const std::string arguments = textOf(BusMessage(sd_bus_message_ref(message)));
    {
      const std::lock_guard lock(self.mutex);
      self.record.push_back(std::string(sd_bus_message_get_path(message)) + " " +
                            sd_bus_message_get_member(message) + (arguments.empty() ? "" : " " + arguments));
    }
    sd_bus_message_rewind(message, 1);
    return self.behaviour(message) ? 1 : 0;
  }

  const std::string address;
  const std::string name;
  const FileDescriptor wakeUp{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
  sd_event* loop = nullptr;  // used only by the service's thread
  sd_bus* bus = nullptr;     // used only by the service's thread
  Behaviour behaviour;       // used only by the service's thread
  mutable std::mutex mutex;
  std::vector<std::string> record;         // guarded by mutex
  std::deque<std::function<void()>> jobs;  // guarded by mutex
  std::thread thread;
};

/// Grants inhibitor locks as logind does. A lock is one end of a pipe, which the caller gets. The caller
/// releases the lock by closing that end. This object must outlive the service that uses grants().
class StubLocks {
 public:
  StubService::Behaviour grants() {
    return [this](sd_bus_message* call) {
      int ends[2];
      if (pipe2(ends, O_CLOEXEC) != 0) return false;
      const FileDescriptor given(ends[1]);
      const std::lock_guard lock(mutex);
      pipes.emplace_back(ends[0]);
      sd_bus_reply_method_return(call, "h", given.get());
      return true;
    };
  }

  /// Returns the number of locks that are still held.
  std::size_t held() const {
    const std::lock_guard lock(mutex);
    return static_cast<std::size_t>(std::count_if(pipes.begin(), pipes.end(), [](const FileDescriptor& pipe) {
      pollfd end{pipe.get(), 0, 0};
      return poll(&end, 1, 0) == 0;
    }));
  }

 private:
  mutable std::mutex mutex;
  std::vector<FileDescriptor> pipes;  // guarded by mutex
};

}  // namespace kestrune::testing
