#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

// A tray: a StatusNotifierWatcher and host that reads an item and its menu as panels do, and again after each
// change. Starts a program. When the item has answered with its properties, prints the milliseconds from the
// start to the registration, and the PID. When standard input ends, kills the program and prints the number
// of its change signals, and the voluntary context switches and CPU milliseconds of the program and of the
// children that it has waited for.

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* watcherName = "org.kde.StatusNotifierWatcher";
constexpr const char* itemInterface = "org.kde.StatusNotifierItem";
constexpr const char* menuInterface = "com.canonical.dbusmenu";
constexpr std::uint64_t patience = 30'000'000;  // microseconds

pid_t program = 0;
Clock::time_point start;
double taken = 0;  // milliseconds
long changes = 0;
std::string owner;
std::string path;
std::string menu;

void giveUp(const char* reason) {
  std::fprintf(stderr, "registration: %s\n", reason);
  if (program > 0) kill(program, SIGKILL);
  std::_Exit(1);
}

int ignoreReply(sd_bus_message*, void*, sd_bus_error*) {
  return 0;
}

void readMenu(sd_bus* bus) {
  if (menu.empty()) return;
  sd_bus_call_method_async(bus, nullptr, owner.c_str(), menu.c_str(), menuInterface, "GetLayout",
                           &ignoreReply, nullptr, "iias", 0, -1, 0);
}

std::string menuAmong(sd_bus_message* properties) {
  const char* name = nullptr;
  const char* value = nullptr;
  sd_bus_message_enter_container(properties, 'a', "{sv}");
  while (sd_bus_message_enter_container(properties, 'e', "sv") > 0) {
    sd_bus_message_read(properties, "s", &name);
    if (std::string_view(name) != "Menu") {
      sd_bus_message_skip(properties, "v");
    } else if (sd_bus_message_read(properties, "v", "o", &value) < 0) {
      return {};
    }
    sd_bus_message_exit_container(properties);
  }
  return value == nullptr ? "" : value;
}

int takeProperties(sd_bus_message* reply, void* first, sd_bus_error*) {
  if (sd_bus_message_is_method_error(reply, nullptr) != 0) giveUp("the item does not answer");
  if (first == nullptr) return 0;
  menu = menuAmong(reply);
  readMenu(sd_bus_message_get_bus(reply));
  std::printf("%.2f %d\n", taken, program);
  std::fflush(stdout);
  return 0;
}

void readItem(sd_bus* bus, void* first) {
  sd_bus_call_method_async(bus, nullptr, owner.c_str(), path.c_str(), "org.freedesktop.DBus.Properties",
                           "GetAll", &takeProperties, first, "s", itemInterface);
}

int takeItem(sd_bus_message* call, void*, sd_bus_error*) {
  const char* service = nullptr;
  sd_bus_message_read(call, "s", &service);
  sd_bus* const bus = sd_bus_message_get_bus(call);
  if (owner.empty()) {
    taken = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    // `service` is either an object path of the caller, or a bus name, possibly of another connection, with
    // the item at the default path.
    const bool isPath = service[0] == '/';
    owner = isPath ? sd_bus_message_get_sender(call) : service;
    path = isPath ? service : "/StatusNotifierItem";
    readItem(bus, &program);
  }
  sd_bus_emit_signal(bus, "/StatusNotifierWatcher", watcherName, "StatusNotifierItemRegistered", "s",
                     service);
  return sd_bus_reply_method_return(call, "");
}

int takeHost(sd_bus_message* call, void*, sd_bus_error*) {
  return sd_bus_reply_method_return(call, "");
}

int tellItems(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*, sd_bus_error*) {
  return owner.empty() ? sd_bus_message_append(reply, "as", 0)
                       : sd_bus_message_append(reply, "as", 1, (owner + path).c_str());
}

int tellVersion(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*, sd_bus_error*) {
  return sd_bus_message_append(reply, "i", 0);
}

int tellThatThereIsAHost(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*,
                         sd_bus_error*) {
  return sd_bus_message_append(reply, "b", 1);
}

const sd_bus_vtable watcher[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("RegisterStatusNotifierItem", "s", "", &takeItem, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("RegisterStatusNotifierHost", "s", "", &takeHost, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_PROPERTY("RegisteredStatusNotifierItems", "as", &tellItems, 0, 0),
    SD_BUS_PROPERTY("IsStatusNotifierHostRegistered", "b", &tellThatThereIsAHost, 0, 0),
    SD_BUS_PROPERTY("ProtocolVersion", "i", &tellVersion, 0, 0),
    SD_BUS_SIGNAL("StatusNotifierItemRegistered", "s", 0),
    SD_BUS_VTABLE_END,
};

int itemChanged(sd_bus_message* signal, void*, sd_bus_error*) {
  ++changes;
  readItem(sd_bus_message_get_bus(signal), nullptr);
  return 0;
}

int menuChanged(sd_bus_message* signal, void*, sd_bus_error*) {
  ++changes;
  if (sd_bus_message_is_signal(signal, nullptr, "LayoutUpdated") > 0)
    readMenu(sd_bus_message_get_bus(signal));
  return 0;
}

int leave(sd_event_source* source, int, std::uint32_t, void*) {
  return sd_event_exit(sd_event_source_get_event(source), 0);
}

int runOutOfPatience(sd_event_source*, std::uint64_t, void*) {
  if (owner.empty()) giveUp("no item");
  return 0;
}

double milliseconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
}

void finish() {
  kill(program, SIGKILL);
  rusage used{};
  wait4(program, nullptr, 0, &used);
  std::printf("%ld %ld %.1f\n", changes, used.ru_nvcsw,
              milliseconds(used.ru_utime) + milliseconds(used.ru_stime));
}

}  // namespace

int main(int count, char** arguments) {
  sd_bus* bus = nullptr;
  sd_event* loop = nullptr;
  if (count < 2) return 2;
  if (sd_event_new(&loop) < 0 || sd_bus_open_user(&bus) < 0) return 1;
  if (sd_bus_add_object_vtable(bus, nullptr, "/StatusNotifierWatcher", watcherName, watcher, nullptr) < 0 ||
      sd_bus_match_signal(bus, nullptr, nullptr, nullptr, itemInterface, nullptr, &itemChanged, nullptr) <
          0 ||
      sd_bus_match_signal(bus, nullptr, nullptr, nullptr, menuInterface, nullptr, &menuChanged, nullptr) <
          0 ||
      sd_bus_request_name(bus, watcherName, 0) < 0) {
    return 1;
  }
  sd_bus_attach_event(bus, loop, SD_EVENT_PRIORITY_NORMAL);
  sd_event_add_io(loop, nullptr, STDIN_FILENO, EPOLLIN, &leave, nullptr);
  sd_event_add_time_relative(loop, nullptr, CLOCK_MONOTONIC, patience, 0, &runOutOfPatience, nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  start = Clock::now();
  if (posix_spawnp(&program, arguments[1], &actions, nullptr, arguments + 1, environ) != 0) return 1;
  sd_event_loop(loop);
  finish();
}
