#pragma once

#include <functional>
#include <memory>
#include <string>

#include "adapters/instance/InstanceFolders.h"
#include "adapters/loop/EventLoop.h"
#include "ports/StatusFeed.h"

namespace kestrune {

/// Follows the status of the running client, and of each that starts later; see `StatusFeed::subscribe`. A
/// client that sends nothing for 2 s counts as absent. `loop` and `folders` outlive the subscription. Main
/// thread.
std::unique_ptr<StatusSubscription> followClient(EventLoop& loop, const InstanceFolders& folders,
                                                 std::function<void(const std::string&)> onLine,
                                                 std::function<void()> onAbsence);

}  // namespace kestrune
