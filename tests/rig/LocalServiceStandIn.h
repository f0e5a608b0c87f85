#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "adapters/system/FileDescriptor.h"

namespace kestrune::testing {

/// A fake of the backend's local service, on the same port. Answers every request with the same bytes.
class LocalServiceStandIn {
 public:
  /// If `givenAnswer` is empty, never answers. The server's thread calls `givenWhileAsked` before it answers.
  explicit LocalServiceStandIn(std::string givenAnswer, std::function<void()> givenWhileAsked = {})
      : answer(std::move(givenAnswer)),
        whileAsked(std::move(givenWhileAsked)),
        listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)),
        end(eventfd(0, EFD_CLOEXEC)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(8765);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int yes = 1;
    setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    if (bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener.get(), 1) != 0) {
      throw std::runtime_error("cannot listen on port 8765");
    }
    server = std::thread([this] { serve(); });
  }
  ~LocalServiceStandIn() {
    eventfd_write(end.get(), 1);
    server.join();
  }
  LocalServiceStandIn(const LocalServiceStandIn&) = delete;
  LocalServiceStandIn& operator=(const LocalServiceStandIn&) = delete;

  /// Returns the head (request line and headers) of each request so far, including the line ends.
  std::vector<std::string> requests() const {
    const std::lock_guard lock(mutex);
    return heads;
  }

 private:
  bool waitFor(int descriptor) const {
    pollfd waiting[] = {{descriptor, POLLIN, 0}, {end.get(), POLLIN, 0}};
    return poll(waiting, 2, -1) > 0 && waiting[1].revents == 0;
  }

  void serve() {
    std::vector<FileDescriptor> kept;
    while (waitFor(listener.get())) {
      FileDescriptor caller(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
      std::string head;
      char buffer[4096];
      while (head.find("\r\n\r\n") == std::string::npos && waitFor(caller.get())) {
        const ssize_t count = read(caller.get(), buffer, sizeof buffer);
        if (count <= 0) break;
        head.append(buffer, static_cast<std::size_t>(count));
      }
      {
        const std::lock_guard lock(mutex);
        heads.push_back(head);
      }
      if (whileAsked) whileAsked();
      std::string_view rest = answer;
      while (!rest.empty()) {
        const ssize_t count = send(caller.get(), rest.data(), rest.size(), MSG_NOSIGNAL);
        if (count <= 0) break;
        rest.remove_prefix(static_cast<std::size_t>(count));
      }
      if (answer.empty()) kept.push_back(std::move(caller));
    }
  }

  const std::string answer;
  const std::function<void()> whileAsked;
  const FileDescriptor listener;
  const FileDescriptor end;
  mutable std::mutex mutex;
  std::vector<std::string> heads;
  std::thread server;
};

}  // namespace kestrune::testing
