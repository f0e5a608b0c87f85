#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>

// A fake KestruneMenuDialogs. Connects to the socket TEST_DIALOGS_SOCKET, on which the test listens. Copies
// everything from standard input to the socket, and everything from the socket to standard output. Ends when
// standard input or the socket is at end of file.

namespace {

int connectToTest() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const char* const path = std::getenv("TEST_DIALOGS_SOCKET");
  if (path == nullptr || std::strlen(path) >= sizeof address.sun_path) std::exit(97);
  std::strcpy(address.sun_path, path);
  const int test = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (connect(test, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) std::exit(97);
  return test;
}

/// Copies what has arrived at `from` to `to`. Returns false when `from` has ended or `to` cannot be written.
bool passOn(int from, int to) {
  std::array<char, 16384> piece;
  const ssize_t count = read(from, piece.data(), piece.size());
  for (ssize_t done = 0; done < count;) {
    const ssize_t written = write(to, piece.data() + done, static_cast<std::size_t>(count - done));
    if (written < 0) return false;
    done += written;
  }
  return count > 0;
}

}  // namespace

int main() {
  const int test = connectToTest();
  std::array<pollfd, 2> sides{{{STDIN_FILENO, POLLIN, 0}, {test, POLLIN, 0}}};
  for (;;) {
    poll(sides.data(), sides.size(), -1);
    if (sides[1].revents != 0 && !passOn(test, STDOUT_FILENO)) return 0;
    if (sides[0].revents != 0 && !passOn(STDIN_FILENO, test)) return 0;
  }
}
