#pragma once

#include <sys/types.h>

#include <list>
#include <optional>
#include <string>

#include "platform/StatusFeed.h"
#include "platform/linux/EventLoop.h"
#include "platform/posix/FileDescriptor.h"

namespace kestrune {

/// The status as lines on a socket in a folder of the user's: it needs no bus, and a client that has ended is
/// noticed at once. Main thread.
class StatusSocket final : public StatusFeed {
 public:
  /// `path` is where the socket lies. It is made with the first line, and anew with a later one when it has
  /// gone; another one that is there, or a link, is replaced. Folders and sockets of other users are refused.
  StatusSocket(EventLoop& loop, std::string path);

  /// Where the socket cannot be made, standard error says why, and the next line is another occasion.
  void publish(const std::string& line) override;

  /// A client that says nothing for 2 s counts as one that was never heard.
  std::unique_ptr<StatusSubscription> subscribe(std::function<void(const std::string&)> onLine,
                                                std::function<void()> onEnd) override;

  /// The process of the client that runs; absent when none can be asked.
  std::optional<pid_t> runningClient() const;

 private:
  struct Subscriber {
    FileDescriptor socket;
    EventSource end;
  };

  FileDescriptor connected() const;
  bool isInPlace() const;
  bool listen();
  void accept();
  void add(FileDescriptor socket);
  bool tell(const Subscriber& subscriber) const;

  EventLoop& loop;
  const std::string path;
  FileDescriptor listener;
  dev_t device = 0;  ///< with the next, the file of the listener
  ino_t inode = 0;
  EventSource callers;
  EventSource rest;  ///< while there are no descriptors for another subscriber
  std::list<Subscriber> subscribers;
  std::string newest;  ///< with its line end
};

}  // namespace kestrune
