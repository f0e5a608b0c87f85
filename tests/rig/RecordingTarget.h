#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "ports/Menu.h"
#include "tests/rig/VirtualTime.h"

namespace kestrune::testing {

/// A target of menu rows and buttons that records each action it is asked to perform.
struct RecordingTarget final : ActionTarget {
  void performAction(std::string_view action) override {
    performed.emplace_back(action);
    if (onPerform) onPerform();
  }

  CallLog performed;
  std::function<void()> onPerform;
};

}  // namespace kestrune::testing
