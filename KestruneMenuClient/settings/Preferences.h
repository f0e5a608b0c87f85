#pragma once

#include <string>

#include "ports/UserDefaults.h"

namespace kestrune {

/// The client's three preferences. Every call reads or writes the store. Main thread.
class Preferences {
 public:
  /// `givenStore` must outlive this object.
  explicit Preferences(UserDefaults& givenStore) : store(givenStore) {}

  bool isAutoConnectEnabled() const {
    return store.boolForKey(DefaultsKey::autoConnectEnabled).value_or(true);
  }
  bool isKeepAwakeEnabled() const { return store.boolForKey(DefaultsKey::keepAwakeEnabled).value_or(true); }
  /// Returns false (self-hosted) when the preference was never written or has an unknown value.
  bool isOfficialConnectionMode() const {
    return store.stringForKey(DefaultsKey::connectionMode) == officialMode;
  }

  void setAutoConnectEnabled(bool enabled) { store.setBool(DefaultsKey::autoConnectEnabled, enabled); }
  void setKeepAwakeEnabled(bool enabled) { store.setBool(DefaultsKey::keepAwakeEnabled, enabled); }
  void setOfficialConnectionMode(bool official) {
    store.setString(DefaultsKey::connectionMode, nameOfMode(official));
  }

  /// Returns the mode's name in the store. Never change a name: all versions of the client share the store.
  static const char* nameOfMode(bool official) { return official ? officialMode : selfHostedMode; }
  /// Returns the mode's name as the menu shows it.
  std::string connectionModeLabel() const { return labelOfMode(isOfficialConnectionMode()); }
  static const char* labelOfMode(bool official) { return official ? "官方 ChatGPT" : "Kestrune 自托管"; }

 private:
  struct DefaultsKey {
    static constexpr auto autoConnectEnabled = "autoConnectEnabled";
    static constexpr auto keepAwakeEnabled = "keepAwakeEnabled";
    static constexpr auto connectionMode = "connectionMode";
  };
  static constexpr auto officialMode = "official_chatgpt";
  static constexpr auto selfHostedMode = "kestrune_self_hosted";

  UserDefaults& store;
};

}  // namespace kestrune
