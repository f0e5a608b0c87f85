#include <gtest/gtest.h>

#include <ostream>
#include <sstream>

#include "adapters/windows/DialogAlerts.h"
#include "tests/rig/FakePlatform.h"
#include "tests/rig/SignalState.h"
#include "tests/rig/StandInDialogs.h"
#include "tests/rig/TerminalRig.h"

namespace kestrune::testing {
namespace {

using Texts = std::vector<std::string>;

/// Alerts and the user who answers them.
class AlertFace {
 public:
  virtual ~AlertFace() = default;
  virtual Alerts& alerts() = 0;
  /// The messages of all alerts that the user has seen so far.
  virtual Texts seen() = 0;
  /// The user presses a button of the alert that is open, counted from 0.
  virtual void press(std::size_t button) = 0;
  /// The user closes the alert, or goes away.
  virtual void cancel() = 0;
};

class FakeAlertFace final : public AlertFace {
 public:
  Alerts& alerts() override { return fake; }
  Texts seen() override {
    loop.runMain();
    Texts messages;
    for (const auto& alert : fake.shown) messages.push_back(alert.messageText);
    return messages;
  }
  void press(std::size_t button) override {
    loop.runMain();
    fake.answer(button);
    loop.runMain();
  }
  void cancel() override {
    loop.runMain();
    fake.answer(std::nullopt);
  }

 private:
  CallLog log;
  VirtualClock clock;
  FakeLoop loop{clock, log};
  FakeAlerts fake{loop.mainQueue(), log};
};

class TextAlertFace final : public AlertFace, private Alerts {
 public:
  explicit TextAlertFace(TerminalRig::Line line)
      : rig(loop, line), item(rig.face->statusItem(squareStatusItemLength)) {}

  Alerts& alerts() override { return *this; }
  Texts seen() override {
    catchUp();
    Texts messages;
    std::istringstream text(rig.screen.text);
    const std::string mark = "⚠ ";
    for (std::string line; std::getline(text, line);) {
      if (line.starts_with(mark)) messages.push_back(line.substr(mark.size()));
    }
    return messages;
  }
  void press(std::size_t button) override {
    catchUp();
    rig.type(std::to_string(button + 1) + "\n");
    catchUp();
  }
  void cancel() override {
    catchUp();
    const std::size_t before = completed;
    rig.endInput();
    inputEnded = true;
    // A terminal passes an end on before long.
    EXPECT_TRUE(comesTrue(loop, [this, before] { return completed > before; }));
    settleQueue(loop);
  }

 private:
  void present(AlertRequest request) override {
    rig.face->present({std::move(request.describe),
                       [this, completion = std::move(request.completion)](const AlertAnswer& answer) {
                         ++completed;
                         completion(answer);
                       },
                       request.identifier});
  }

  /// Waits for the answer to a line that means nothing: whatever was under way before it is done.
  void catchUp() {
    settleQueue(loop);
    if (inputEnded) return rig.screen.read();
    const std::size_t before = answers();
    rig.type("mark\n");
    EXPECT_TRUE(comesTrue(loop, [this, before] { return answers() > before; }));
  }
  std::size_t answers() const {
    return rig.screen.count("沒有這一列：mark\n") + rig.screen.count("請輸入按鈕編號。\n");
  }

  EventLoop loop;
  TerminalRig rig;
  std::unique_ptr<StatusItem> item;
  std::size_t completed = 0;
  bool inputEnded = false;
};

/// Windows of the dialogs program, which the test plays.
class WindowAlertFace final : public AlertFace, private Alerts {
 public:
  WindowAlertFace() {
    dialogs.whenRuns = [this](DialogsRun& run) {
      run.whenAsked = [this, &run](const dialogs::Request& request) {
        const auto* const asked = std::get_if<dialogs::ShowAlert>(&request);
        if (asked == nullptr) return;
        messages.push_back(asked->alert.messageText);
        open = {&run, asked->id};
        run.say(dialogs::Shown{asked->id});
      };
    };
  }

  ~WindowAlertFace() override {
    windows.close();
    EXPECT_TRUE(hasNoChildren(loop));
  }

  Alerts& alerts() override { return *this; }
  Texts seen() override {
    settleQueue(loop);
    EXPECT_TRUE(comesTrue(loop, [this] { return messages.size() == described; }));
    return messages;
  }
  void press(std::size_t button) override { answer({button}); }
  void cancel() override { answer({}); }

 private:
  /// Counts what goes through, so that the test knows what there is to wait for.
  void present(AlertRequest request) override {
    windows.present({[this, describe = std::move(request.describe)] {
                       ++described;
                       return describe();
                     },
                     [this, completion = std::move(request.completion)](const AlertAnswer& answer) {
                       ++completed;
                       completion(answer);
                     },
                     request.identifier});
  }
  void answer(const AlertAnswer& given) {
    seen();
    const std::size_t before = completed;
    open.run->say(dialogs::Answered{open.id, given});
    EXPECT_TRUE(comesTrue(loop, [this, before] { return completed > before; }));
    seen();
  }

  const SignalState restored;
  EventLoop loop;
  StandInDialogs dialogs{loop};
  CallLog log;
  FakeNotifications notifications{log};
  ActivationToken token;
  DialogAlerts windows{loop, notifications, token, dialogs.program(), true};
  struct {
    DialogsRun* run;
    int id;
  } open{};
  Texts messages;
  std::size_t described = 0;
  std::size_t completed = 0;
};

struct Maker {
  const char* name;
  std::unique_ptr<AlertFace> (*make)();

  friend void PrintTo(const Maker& made, std::ostream* out) { *out << made.name; }
};

const Maker makers[] = {
    {"Fake", []() -> std::unique_ptr<AlertFace> { return std::make_unique<FakeAlertFace>(); }},
    {"Pipes",
     []() -> std::unique_ptr<AlertFace> {
       return std::make_unique<TextAlertFace>(TerminalRig::Line::pipes);
     }},
    {"Terminal",
     []() -> std::unique_ptr<AlertFace> {
       return std::make_unique<TextAlertFace>(TerminalRig::Line::terminal);
     }},
    {"Windows", []() -> std::unique_ptr<AlertFace> { return std::make_unique<WindowAlertFace>(); }},
};

struct AlertsContract : ::testing::TestWithParam<Maker> {
  void present(const std::string& message, std::function<void()> then = {},
               const std::string& identifier = {}) {
    face->alerts().present(
        {[this, message] {
           described.push_back(message);
           return Alert{.messageText = message, .informativeText = "text", .buttons = {"OK", "Cancel"}};
         },
         [this, message, then = std::move(then)](const AlertAnswer& answer) {
           answers.push_back(message + (answer.button ? " " + std::to_string(*answer.button) : " cancelled"));
           if (then) then();
         },
         identifier});
  }

  Texts described;
  Texts answers;
  std::unique_ptr<AlertFace> face = GetParam().make();
};

INSTANTIATE_TEST_SUITE_P(Each, AlertsContract, ::testing::ValuesIn(makers),
                         [](const auto& made) { return made.param.name; });

TEST_P(AlertsContract, ShowsAnAlertAndWaits) {
  present("a");
  EXPECT_EQ(answers, Texts{});
  EXPECT_EQ(face->seen(), Texts{"a"});
  EXPECT_EQ(answers, Texts{});
}

TEST_P(AlertsContract, AnswersOnceWithTheButton) {
  present("a");
  face->press(1);
  EXPECT_EQ(answers, Texts{"a 1"});
  present("b");
  face->press(0);
  EXPECT_EQ(answers, (Texts{"a 1", "b 0"}));
  face->seen();
  EXPECT_EQ(answers.size(), 2u);
}

TEST_P(AlertsContract, ShowsOneAtATimeInOrder) {
  for (const char* const message : {"a", "b", "c"}) present(message);
  EXPECT_EQ(face->seen(), Texts{"a"});
  face->press(0);
  EXPECT_EQ(face->seen(), (Texts{"a", "b"}));
  face->press(1);
  EXPECT_EQ(face->seen(), (Texts{"a", "b", "c"}));
  face->press(0);
  EXPECT_EQ(answers, (Texts{"a 0", "b 1", "c 0"}));
}

TEST_P(AlertsContract, DescribesAnAlertOnceWhenItsTurnHasCome) {
  present("a");
  present("b");
  EXPECT_EQ(described, Texts{});
  face->seen();
  EXPECT_EQ(described, Texts{"a"});
  face->press(0);
  EXPECT_EQ(described, (Texts{"a", "b"}));
  face->press(0);
  EXPECT_EQ(described, (Texts{"a", "b"}));
}

TEST_P(AlertsContract, DescribesTheNextAlertAfterTheAnswerToTheFirst) {
  Texts describedAtTheAnswer;
  present("a", [this, &describedAtTheAnswer] { describedAtTheAnswer = described; });
  present("b");
  face->press(0);
  EXPECT_EQ(describedAtTheAnswer, Texts{"a"});
  EXPECT_EQ(face->seen(), (Texts{"a", "b"}));
}

TEST_P(AlertsContract, MayBeAskedForByAnAnswer) {
  present("a", [this] {
    present("b");
    EXPECT_EQ(answers, Texts{"a 0"});
  });
  face->press(0);
  EXPECT_EQ(face->seen(), (Texts{"a", "b"}));
  face->press(1);
  EXPECT_EQ(answers, (Texts{"a 0", "b 1"}));
}

TEST_P(AlertsContract, AnswersWithoutAButtonWhenTheUserGivesUp) {
  present("a");
  face->seen();
  face->cancel();
  EXPECT_EQ(answers, Texts{"a cancelled"});
}

TEST_P(AlertsContract, ShowsOneAtATimeOfAnIdentifier) {
  present("other");
  present("first", {}, "one");
  present("while it waits", {}, "one");
  face->press(0);
  present("while it is open", {}, "one");
  EXPECT_EQ(face->seen(), (Texts{"other", "first"}));
  face->press(0);
  EXPECT_EQ(answers, (Texts{"other 0", "first 0"}));
  present("afterwards", {}, "one");
  EXPECT_EQ(face->seen(), (Texts{"other", "first", "afterwards"}));
}

TEST_P(AlertsContract, TellsIdentifiersApart) {
  present("a", {}, "one");
  present("b", {}, "other");
  present("c");
  present("d");
  for (int each = 0; each < 4; ++each) face->press(0);
  EXPECT_EQ(answers, (Texts{"a 0", "b 0", "c 0", "d 0"}));
}

}  // namespace
}  // namespace kestrune::testing
