#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

// A child process that obeys its arguments, one after the other. "Both pipes" are standard output and error.
//
//   out TEXT, err TEXT          write TEXT to standard output or standard error
//   flood N, flood-err N        write N bytes to standard output or standard error
//   of TEXT                     let later floods repeat TEXT instead of "x"
//   narrow N                    set the capacity of both pipes to N bytes
//   ignore SIGNAL               ignore the signal with this number
//   descriptors                 print the numbers of the open descriptors
//   signals                     print the masks of the blocked and the ignored signals, from /proc
//   ids                         print "pid N pgid N sid N"
//   leave SECONDS               fork a descendant that keeps both pipes open for SECONDS; print "left PID"
//   leave-flooding SECONDS      like leave, but the descendant writes to both pipes all the time
//   leave-session SECONDS       like leave, but the descendant is in a new session and closes both pipes
//   touch FILE                  create FILE; if FILE is a named pipe, open it for writing and close it
//   pause                       wait for a signal
//   exit STATUS                 exit with this status

namespace {

std::string floodText = "x";

void put(int descriptor, const std::string& text) {
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t count = write(descriptor, text.data() + done, text.size() - done);
    if (count < 0) std::exit(99);
    done += static_cast<std::size_t>(count);
  }
}

void flood(int descriptor, long size) {
  std::string block;
  while (block.size() < 65536) block += floodText;
  for (long left = size; left > 0; left -= static_cast<long>(block.size())) {
    put(descriptor, block.substr(0, static_cast<std::size_t>(left)));
  }
}

void showStatusLines(const char* const* names, std::size_t count) {
  std::FILE* const file = std::fopen("/proc/self/status", "re");
  char line[256];
  while (file != nullptr && std::fgets(line, sizeof line, file) != nullptr) {
    for (std::size_t i = 0; i < count; ++i) {
      if (std::strncmp(line, names[i], std::strlen(names[i])) == 0) put(STDOUT_FILENO, line);
    }
  }
  if (file != nullptr) std::fclose(file);
}

/// Closes the writing end of the pipe, and waits until all other processes have closed it, too.
void waitForEnd(const int (&ends)[2]) {
  close(ends[1]);
  char nothing = 0;
  if (read(ends[0], &nothing, 1) != 0) std::exit(96);
  close(ends[0]);
}

void leaveDescendant(unsigned seconds, const std::string& kind) {
  int settled[2];
  int announced[2];
  if (pipe(settled) != 0 || pipe(announced) != 0) std::exit(96);
  const pid_t left = fork();
  if (left != 0) {
    close(announced[0]);
    waitForEnd(settled);
    put(STDOUT_FILENO, "left " + std::to_string(left) + "\n");
    close(announced[1]);
    return;
  }
  if (kind == "leave-session") {
    setsid();
    const int nothing = open("/dev/null", O_RDWR);
    for (int descriptor = 0; descriptor <= 2; ++descriptor) dup2(nothing, descriptor);
  }
  alarm(seconds);
  for (const int each : settled) close(each);
  waitForEnd(announced);
  while (kind == "leave-flooding") {
    flood(STDOUT_FILENO, 65536);
    flood(STDERR_FILENO, 65536);
  }
  for (;;) pause();
}

}  // namespace

int main(int count, char** arguments) {
  for (int i = 1; i < count; ++i) {
    const std::string verb = arguments[i];
    const std::string argument = i + 1 < count ? arguments[i + 1] : "";
    const auto number = std::strtol(argument.c_str(), nullptr, 10);
    const bool alone = verb == "descriptors" || verb == "signals" || verb == "ids" || verb == "pause";
    if (!alone) ++i;
    if (verb == "out") {
      put(STDOUT_FILENO, argument);
    } else if (verb == "err") {
      put(STDERR_FILENO, argument);
    } else if (verb == "flood" || verb == "flood-err") {
      flood(verb == "flood" ? STDOUT_FILENO : STDERR_FILENO, number);
    } else if (verb == "of") {
      floodText = argument;
    } else if (verb == "narrow") {
      for (const int output : {STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(output, F_SETPIPE_SZ, number) < 0) return 95;
      }
    } else if (verb == "ignore") {
      signal(static_cast<int>(number), SIG_IGN);
    } else if (verb == "descriptors") {
      for (int descriptor = 0; descriptor < 1024; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) != -1) put(STDOUT_FILENO, std::to_string(descriptor) + " ");
      }
    } else if (verb == "signals") {
      const char* const names[] = {"SigBlk", "SigIgn"};
      showStatusLines(names, 2);
    } else if (verb == "ids") {
      put(STDOUT_FILENO, "pid " + std::to_string(getpid()) + " pgid " + std::to_string(getpgid(0)) + " sid " +
                             std::to_string(getsid(0)) + "\n");
    } else if (verb.starts_with("leave")) {
      leaveDescendant(static_cast<unsigned>(number), verb);
    } else if (verb == "touch") {
      close(open(argument.c_str(), O_WRONLY | O_CREAT, 0600));
    } else if (verb == "pause") {
      pause();
    } else if (verb == "exit") {
      return static_cast<int>(number);
    } else {
      std::fprintf(stderr, "test_child: what is \"%s\"?\n", verb.c_str());
      return 98;
    }
  }
  return 0;
}
