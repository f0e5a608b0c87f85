#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/StatusFeed.h"
#include "platform/instance/InstanceFolders.h"
#include "platform/linux/EventLoop.h"

namespace kestrune {

/// The status of the client that runs, and of each that starts later. Main thread.
class ClientSubscription final : public StatusSubscription {
 public:
  /// As `StatusFeed::subscribe` says. `folders` outlive this.
  ClientSubscription(EventLoop& loop, const InstanceFolders& folders,
                     std::function<void(const std::string&)> onLine, std::function<void()> onAbsence);

 private:
  void watchFolder();
  void folderChanged();
  bool connect();
  void read();
  void disconnect();
  void tellAbsence();

  EventLoop& loop;
  const InstanceFolders& folders;
  const std::function<void(const std::string&)> onLine;
  const std::function<void()> onAbsence;
  const std::shared_ptr<bool> alive = std::make_shared<bool>();
  FileDescriptor watch;  ///< of inotify
  FileDescriptor socket;
  std::string unread;
  bool heard = false;  ///< a line on this connection
  EventSource changes, input, deadline;
};

}  // namespace kestrune
