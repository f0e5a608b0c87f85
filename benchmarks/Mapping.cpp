#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xcb/xcb.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

// Starts a program repeatedly with the first line of a file as its standard input. Prints for each start the
// milliseconds until the X server reports a mapped window.

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

constexpr int patience = 5000;  // milliseconds

/// Whether a window was mapped within `patience`.
bool waitForWindow(xcb_connection_t* display) {
  for (;;) {
    while (xcb_generic_event_t* const event = xcb_poll_for_event(display)) {
      const bool mapped = (event->response_type & 0x7f) == XCB_MAP_NOTIFY;
      std::free(event);
      if (mapped) return true;
    }
    pollfd ready{xcb_get_file_descriptor(display), POLLIN, 0};
    if (poll(&ready, 1, patience) <= 0) return false;
  }
}

double measure(xcb_connection_t* display, char* program, const std::string& request) {
  int input[2];
  if (pipe(input) != 0) return -1;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", 1, 0);
  posix_spawn_file_actions_addclose(&actions, input[1]);
  char* arguments[] = {program, nullptr};
  pid_t pid = 0;
  const auto start = Clock::now();
  if (posix_spawn(&pid, program, &actions, nullptr, arguments, environ) != 0) return -1;
  close(input[0]);
  for (std::size_t sent = 0; sent < request.size();) {
    const ssize_t count = write(input[1], request.data() + sent, request.size() - sent);
    if (count < 0) return -1;
    sent += static_cast<std::size_t>(count);
  }
  const bool mapped = waitForWindow(display);
  const std::chrono::duration<double, std::milli> taken = Clock::now() - start;
  close(input[1]);
  waitpid(pid, nullptr, 0);
  posix_spawn_file_actions_destroy(&actions);
  return mapped ? taken.count() : -1;
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 4) return 2;
  std::string request;
  std::getline(std::ifstream(arguments[2]), request);
  request += '\n';
  xcb_connection_t* const display = xcb_connect(nullptr, nullptr);
  if (xcb_connection_has_error(display) != 0) return 1;
  const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(display)).data->root;
  const std::uint32_t events = XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY;
  xcb_change_window_attributes(display, root, XCB_CW_EVENT_MASK, &events);
  xcb_flush(display);
  for (int runs = std::atoi(arguments[3]); runs > 0; --runs) {
    std::printf("%.2f\n", measure(display, arguments[1], request));
  }
}
