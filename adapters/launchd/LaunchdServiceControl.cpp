#include "adapters/launchd/LaunchdServiceControl.h"

namespace kestrune {

LaunchdServiceControl::LaunchdServiceControl(unsigned userID) : domain("gui/" + std::to_string(userID)) {}

std::string LaunchdServiceControl::unloadLine(const std::string& label) const {
  return "launchctl bootout " + domain + "/" + label + " || true";
}

std::string LaunchdServiceControl::endMatchingLine(const std::string& pattern) const {
  return "pkill -f '" + pattern + "' || true";
}

std::string LaunchdServiceControl::killListenersLine(int port) const {
  return "lsof -ti tcp:" + std::to_string(port) + " | xargs kill -9 2>/dev/null || true";
}

}  // namespace kestrune
