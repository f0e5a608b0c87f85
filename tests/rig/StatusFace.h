#pragma once

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "ports/StatusItem.h"
#include "tests/rig/FakePlatform.h"
#include "tests/rig/TerminalRig.h"
#include "tests/rig/TrayDesk.h"

namespace kestrune::testing {

/// A status bar and the user who looks at it.
class StatusFace {
 public:
  static constexpr auto separator = "---";

  virtual ~StatusFace() = default;
  virtual StatusBar& bar() = 0;
  /// The titles of the rows that the user sees.
  virtual std::vector<std::string> rows() = 0;
  virtual std::string toolTip() = 0;
  /// The user chooses a row; returns when what it does is done.
  virtual void choose(int number) = 0;
};

class FakeFace final : public StatusFace {
 public:
  StatusBar& bar() override { return statusBar; }
  std::vector<std::string> rows() override {
    std::vector<std::string> titles;
    for (const auto& item : statusBar.menu().items)
      titles.push_back(item.isSeparator ? separator : item.title);
    return titles;
  }
  std::string toolTip() override { return statusBar.button().toolTip.value_or(""); }
  void choose(int number) override {
    performMenuItem(MenuItem(statusBar.row(static_cast<std::size_t>(number))));
  }

 private:
  CallLog log;
  FakeStatusBar statusBar{log};
};

class TrayFace final : public StatusFace {
 public:
  TrayFace() {
    daemon.start();
    host = std::make_unique<TrayHost>(loop);
    bus.connect();
  }

  StatusBar& bar() override { return statusBar; }
  std::vector<std::string> rows() override {
    std::vector<std::string> titles;
    EXPECT_TRUE(host->hasItem());
    for (const auto& row : host->rows()) titles.push_back(quotedAfter(row, "'label': s '", separator));
    return titles;
  }
  std::string toolTip() override {
    EXPECT_TRUE(host->hasItem());
    return quotedAfter(host->property("ToolTip"), "[], '", "");
  }
  void choose(int number) override {
    EXPECT_TRUE(host->hasItem());
    EXPECT_EQ(host->clicked(number), "");
    settleQueue(loop);
  }

 private:
  static std::string quotedAfter(const std::string& text, const std::string& mark,
                                 const std::string& otherwise) {
    const auto at = text.find(mark);
    if (at == std::string::npos) return otherwise;
    return text.substr(at + mark.size(), text.find('\'', at + mark.size()) - at - mark.size());
  }

  PrivateBus daemon;
  EventLoop loop;
  SessionBus bus{loop};
  ClickedTray statusBar{bus, loop.mainQueue()};
  std::unique_ptr<TrayHost> host;
};

class TextFace final : public StatusFace {
 public:
  explicit TextFace(TerminalRig::Line line) : rig(loop, line) {}

  StatusBar& bar() override { return *rig.face; }
  std::vector<std::string> rows() override {
    catchUp();
    std::vector<std::string> titles;
    for (std::size_t line = lastTitle() + 2; line < lines.size(); ++line) {
      // Number, key and mark stand before the title.
      constexpr std::size_t indent = 8;
      if (lines[line].size() < indent || lines[line].find_first_not_of(" 0123456789") < indent) break;
      const std::string title = lines[line].substr(indent);
      titles.push_back(title.rfind(rule, 0) == 0 ? separator : title);
    }
    return titles;
  }
  std::string toolTip() override {
    catchUp();
    return lines.at(lastTitle());
  }
  void choose(int number) override {
    catchUp();
    rig.type(std::to_string(number) + "\n");
    catchUp();
  }

 private:
  static constexpr auto rule = "───";

  /// Reads the screen until the answer to a line that means nothing: whatever was under way before it is
  /// done.
  void catchUp() {
    settleQueue(loop);
    const std::string mark = "mark" + std::to_string(++marks);
    rig.type(mark + "\n");
    EXPECT_TRUE(rig.screen.shows("沒有這一列：" + mark + "\n"));
    lines.clear();
    std::istringstream text(rig.screen.text);
    for (std::string line; std::getline(text, line);) lines.push_back(line);
  }
  /// The line of the title of the menu that was printed last.
  std::size_t lastTitle() const {
    for (std::size_t line = lines.size(); line-- > 1;) {
      if (lines[line].rfind(rule, 0) == 0) return line - 1;
    }
    ADD_FAILURE() << "there is no menu on the screen";
    return 0;
  }

  EventLoop loop;
  TerminalRig rig;
  int marks = 0;
  std::vector<std::string> lines;
};

}  // namespace kestrune::testing
