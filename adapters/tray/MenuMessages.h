#pragma once

#include <systemd/sd-bus.h>

#include <set>
#include <string_view>
#include <vector>

#include "adapters/tray/MenuLayout.h"

// What the messages of com.canonical.dbusmenu are made of. Each function returns what sd-bus returned:
// negative on failure.

namespace kestrune {

/// Which properties a host asks for.
struct PropertyFilter {
  bool everything = true;
  std::set<std::string_view> names{};  ///< of those that a row can have
};

/// Keeps no more of a question than matters for the answer, however long it is.
int readFilter(sd_bus_message* call, PropertyFilter& filter);
int readIds(sd_bus_message* call, std::vector<int>& ids);

int appendValue(sd_bus_message* message, const MenuLayout::Value& value);
int appendProperties(sd_bus_message* message, const MenuLayout::Properties& properties,
                     const PropertyFilter& filter = {});

}  // namespace kestrune
