#pragma once

#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {

inline constexpr std::size_t save = 0;
inline constexpr std::size_t openFile = 1;
inline constexpr std::size_t cancel = 2;

inline constexpr auto apiURL = "KESTRUNE_PUBLIC_API_URL";
inline constexpr auto appToken = "KESTRUNE_APP_API_TOKEN";
inline constexpr auto serviceToken = "KESTRUNE_MAC_SERVICE_TOKEN";
inline constexpr auto projectRoot = "KESTRUNE_PROJECT_ROOT";
inline constexpr auto openAIKey = "OPENAI_API_KEY";
inline const std::vector<std::string> keys{apiURL, appToken, serviceToken, projectRoot, openAIKey};

struct Settings : WithStatusItem {
  const Alert& open() {
    choose("showSettings");
    return machine.alerts.shown.back();
  }
  /// Opens the settings, changes the fields in `edited`, presses `button`, and runs all jobs that are due.
  void leave(std::size_t button, const std::map<std::string, std::string>& edited = {}) {
    open();
    newCalls();
    machine.alerts.answer(button, edited);
    machine.loop.settle();
  }

  /// Returns the content of the newest settings dialog, from top to bottom: labels, a button, and for each
  /// setting a stack that contains a label and a field.
  const std::vector<View>& items() const {
    return machine.alerts.shown.back().accessoryView->children.at(0).children.at(0).children.at(0).children;
  }
  /// Returns the texts of the fields in the newest dialog, by key.
  std::map<std::string, std::string> fields() const {
    std::map<std::string, std::string> texts;
    for (const View& item : items()) {
      if (item.kind == ViewKind::stack) texts[item.children.at(1).identifier] = item.children.at(1).text;
    }
    return texts;
  }
};

}  // namespace kestrune::testing
