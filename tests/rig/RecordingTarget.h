#pragma once

#include <functional>
#include <string_view>

#include "ports/Menu.h"
#include "tests/rig/VirtualTime.h"

namespace kestrune::testing {

/// Records the actions that menu rows and buttons request.
struct RecordingTarget final : ActionTarget {
  void performAction(std::string_view action) override {
    performed.emplace_back(action);
    if (onPerform) onPerform();
  }

  CallLog performed;
  std::function<void()> onPerform;
};

}  // namespace kestrune::testing
