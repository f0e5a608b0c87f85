#pragma once

#include <functional>
#include <memory>
#include <string>

#include "adapters/instance/InstanceFolders.h"
#include "adapters/loop/EventLoop.h"
#include "ports/StatusFeed.h"

namespace kestrune {

/// The status of the client that runs, and of each that starts later, as `StatusFeed::subscribe` says. A
/// client that says nothing for 2 s counts as absent. `loop` and `folders` outlive the subscription. Main
/// thread.
std::unique_ptr<StatusSubscription> followClient(EventLoop& loop, const InstanceFolders& folders,
                                                 std::function<void(const std::string&)> onLine,
                                                 std::function<void()> onAbsence);

}  // namespace kestrune
