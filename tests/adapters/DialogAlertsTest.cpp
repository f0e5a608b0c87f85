#include <gtest/gtest.h>

#include <filesystem>

#include "adapters/windows/DialogAlerts.h"
#include "tests/adapters/Loops.h"
#include "tests/rig/FakePlatform.h"
#include "tests/rig/FileTest.h"
#include "tests/rig/RecordingTarget.h"
#include "tests/rig/StandInDialogs.h"
#include "tests/rig/StandardErrorText.h"

namespace kestrune::testing {
namespace {

using Texts = std::vector<std::string>;
using dialogs::Answered;
using dialogs::Pressed;
using dialogs::ShowAlert;
using dialogs::Shown;

struct TheDialogAlerts : ::testing::Test {
  ~TheDialogAlerts() override {
    windows.close();
    EXPECT_TRUE(hasNoChildren(loop)) << "a test leaves a process behind";
  }

  Alert alert(const std::string& message) const {
    return {.messageText = message,
            .informativeText = "about " + message,
            .buttons = {"OK", "Cancel"},
            .target = target};
  }
  void present(Alert shown) { presentOn(windows, std::move(shown)); }
  void present(const std::string& message) { present(alert(message)); }
  void presentOn(DialogAlerts& face, Alert shown) {
    face.present({[shown] { return shown; },
                  [this, name = shown.messageText](const AlertAnswer& answer) {
                    answers.push_back(name +
                                      (answer.button ? " " + std::to_string(*answer.button) : " cancelled"));
                    lastFields = answer.fields;
                  }});
  }
  bool areAnswered(std::size_t count) {
    return comesTrue(loop, [this, count] { return answers.size() >= count; });
  }
  /// Asks for an alert and waits until the window that is to show it is asked for.
  DialogsRun& open(const std::string& message) {
    present(message);
    DialogsRun& run = stand.run();
    lastId = run.asked<ShowAlert>(1).back().id;
    run.say(Shown{lastId});
    return run;
  }
  std::string complaint(const std::string& reason) const {
    return "KestruneMenuClient: no window from " + stand.program() + ": " + reason + "\n";
  }
  Texts notified() const {
    Texts texts;
    for (const auto& each : notifications.posted) texts.push_back(each.title + "|" + each.body);
    return texts;
  }

  RealLoop machine;
  EventLoop& loop = machine.loop;
  StandInDialogs stand{loop};
  const StandardErrorText errors;
  CallLog log;
  FakeNotifications notifications{log};
  std::shared_ptr<RecordingTarget> target = std::make_shared<RecordingTarget>();
  ActivationToken token;
  DialogAlerts windows{loop, notifications, token, stand.program(), true};
  Texts answers;
  std::map<std::string, std::string> lastFields;
  int lastId = 0;
};

TEST_F(TheDialogAlerts, ShowWhatIsAskedForAndPassTheAnswerOn) {
  Alert asked = alert("a");
  asked.style = AlertStyle::informational;
  asked.accessoryView = View{.kind = ViewKind::textField, .identifier = "name", .text = "old"};
  present(asked);
  DialogsRun& run = stand.run();
  const ShowAlert request = run.asked<ShowAlert>(1).front();
  EXPECT_GT(request.id, 0);
  EXPECT_EQ(request.alert, asked);
  run.say(Shown{request.id});
  // Nothing more is heard after the last answer, which comes in pieces.
  const std::string answer = dialogs::encode(Answered{request.id, {0, {{"name", "new"}}}}) + "\n";
  run.say(answer.substr(0, 5));
  settleQueue(loop);
  run.say(answer.substr(5) + answer + "nonsense\n");
  ASSERT_TRUE(areAnswered(1));
  EXPECT_EQ(answers, Texts{"a 0"});
  EXPECT_EQ(lastFields, (std::map<std::string, std::string>{{"name", "new"}}));
  EXPECT_TRUE(run.ends());
  settleQueue(loop);
  EXPECT_EQ(answers.size(), 1u);
  EXPECT_EQ(notified(), Texts{});
  EXPECT_EQ(errors.text(), "");
}

TEST_F(TheDialogAlerts, IgnoreWhatConcernsNoOpenAlert) {
  DialogsRun& run = open("a");
  run.say(Shown{lastId + 1});
  run.say(Pressed{lastId + 1, "act"});
  run.say(Answered{lastId + 1, {0}});
  run.say(dialogs::Chosen{1});
  run.say(Pressed{lastId, "mark"});
  ASSERT_TRUE(comesTrue(loop, [this] { return !target->performed.empty(); }));
  EXPECT_EQ(target->performed, CallLog{"mark"});
  EXPECT_EQ(answers, Texts{});
  run.say(Answered{lastId, {0}});
  ASSERT_TRUE(areAnswered(1));
  EXPECT_EQ(answers, Texts{"a 0"});
}

TEST_F(TheDialogAlerts, TellWhatALostWindowShowedInANotificationWithoutItsFields) {
  Alert asked = alert("a");
  asked.accessoryView = View{.kind = ViewKind::secureTextField, .identifier = "token", .text = "secret"};
  present(asked);
  DialogsRun& run = stand.run();
  run.say(Shown{run.asked<ShowAlert>(1).front().id});
  run.end();
  ASSERT_TRUE(areAnswered(1));
  EXPECT_EQ(answers, Texts{"a cancelled"});
  EXPECT_EQ(lastFields.size(), 0u);
  ASSERT_EQ(notifications.posted.size(), 1u);
  EXPECT_TRUE(notifications.posted[0].identifier.starts_with("alert-"));
  EXPECT_EQ(notified(), Texts{"a|about a"});
  EXPECT_EQ(errors.text(), complaint("it ended without an answer"));
}

TEST_F(TheDialogAlerts, StackWhatAButtonInsideAsksFor) {
  present("first");
  present("queued");
  DialogsRun& run = stand.run();
  const int bottom = run.asked<ShowAlert>(1).front().id;
  run.say(Shown{bottom});
  target->onPerform = [this] {
    present("top 1");
    present("top 2");
  };
  run.say(Pressed{bottom, "explain"});
  const auto requests = run.asked<ShowAlert>(3);
  EXPECT_EQ(target->performed, CallLog{"explain"});
  EXPECT_EQ(requests[1].alert.messageText, "top 1");
  EXPECT_EQ(requests[2].alert.messageText, "top 2");
  for (std::size_t each = requests.size(); each-- > 0;) run.say(Answered{requests[each].id, {0}});
  ASSERT_TRUE(areAnswered(3));
  EXPECT_EQ(answers, (Texts{"top 2 0", "top 1 0", "first 0"}));
  const auto next = stand.run(2).asked<ShowAlert>(1);
  EXPECT_EQ(next.front().alert.messageText, "queued");
}

TEST_F(TheDialogAlerts, AreGivenTheTokenOfTheClickBeforeTheyCome) {
  token.give("token");
  DialogsRun& run = open("a");
  EXPECT_EQ(std::get<dialogs::Raise>(run.requests.at(0)).activationToken, "token");
  EXPECT_EQ(token.take(), "") << "a token serves once";
}

TEST_F(TheDialogAlerts, AreRaisedByTheTokenOfTheClick) {
  DialogsRun& run = open("a");
  token.give("token");
  present("b");
  EXPECT_EQ(run.asked<dialogs::Raise>(1).front().activationToken, "token");
}

TEST_F(TheDialogAlerts, AreRaisedForAnAlertThatHasToWait) {
  DialogsRun& run = open("minimised");
  present("queued");
  run.asked<dialogs::Raise>(1);
  EXPECT_EQ(run.requests.size(), 2u);
  EXPECT_EQ(answers, Texts{});
}

TEST_F(TheDialogAlerts, GiveUpAWholeStackFromTheTop) {
  DialogsRun& run = open("first");
  target->onPerform = [this] { present("top"); };
  run.say(Pressed{lastId, "explain"});
  run.asked<ShowAlert>(2);
  run.end();
  ASSERT_TRUE(areAnswered(2));
  EXPECT_EQ(answers, (Texts{"top cancelled", "first cancelled"}));
  EXPECT_EQ(notified(), (Texts{"top|about top", "first|about first"}));
  EXPECT_NE(notifications.posted[0].identifier, notifications.posted[1].identifier);
}

TEST_F(TheDialogAlerts, HoldNothingUpWhenTheProgramReadsSlowly) {
  Alert large = alert("large");
  // More than pipe and socket together take.
  large.informativeText.assign(std::size_t{4} << 20, 'x');
  stand.whenRuns = [](DialogsRun& run) { run.lookAway(); };
  present(large);
  DialogsRun& run = stand.run();
  int turns = 0;
  const auto timer = loop.scheduleRepeating(Seconds{0.001}, [&turns] { ++turns; });
  EXPECT_TRUE(comesTrue(loop, [&turns] { return turns == 20; }));
  EXPECT_TRUE(run.requests.empty());
  run.listen();
  const auto request = run.asked<ShowAlert>(1).front();
  EXPECT_EQ(request.alert, large);
  run.say(Answered{request.id, {0}});
  EXPECT_TRUE(areAnswered(1));
  present(large);
  stand.run(2).end();  // before it has read
  ASSERT_TRUE(areAnswered(2));
  EXPECT_EQ(answers, (Texts{"large 0", "large cancelled"}));
}

TEST_F(TheDialogAlerts, LeaveNothingBehindAfterAHundredAlerts) {
  stand.whenRuns = [this](DialogsRun& run) {
    run.whenAsked = [this, &run](const dialogs::Request& request) {
      if (stand.runs.size() % 2 == 0) return run.end();
      run.say(Answered{std::get<ShowAlert>(request).id, {0}});
    };
  };
  const auto presentMany = [this](std::size_t upTo) {
    for (std::size_t each = answers.size(); each < upTo; ++each) present(std::to_string(each));
    ASSERT_TRUE(areAnswered(upTo));
    EXPECT_TRUE(hasNoChildren(loop));
    for (auto& run : stand.runs) run.end();
  };
  // The first ones have the loop open what it keeps.
  presentMany(2);
  const auto before = openDescriptors();
  presentMany(100);
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(stand.runs.size(), 100u);
  EXPECT_EQ(notifications.posted.size(), 50u);
  EXPECT_EQ(errors.text(), complaint("it ended without an answer"));
}

TEST_F(TheDialogAlerts, ForgetEverythingWhenTheyAreClosed) {
  DialogsRun& run = open("a");
  present("queued");
  target->onPerform = [this] {
    present("top");
    windows.close();
  };
  // The button is the last that is heard: what it asks for must not come any more.
  run.say(Pressed{lastId, "quit"});
  EXPECT_TRUE(run.ends());
  settleQueue(loop);
  EXPECT_TRUE(hasNoChildren(loop));
  EXPECT_EQ(stand.runs.size(), 1u);
  EXPECT_EQ(answers, Texts{});
  EXPECT_EQ(notified(), Texts{});
  EXPECT_EQ(errors.text(), "");
}

TEST_F(TheDialogAlerts, StartNothingWithoutADisplay) {
  DialogAlerts blind(loop, notifications, token, stand.program(), false);
  for (int each = 0; each < 2; ++each) {
    presentOn(blind, alert("a"));
    EXPECT_EQ(answers.size(), static_cast<std::size_t>(each)) << "answered before it was asked for";
    EXPECT_TRUE(areAnswered(static_cast<std::size_t>(each) + 1));
  }
  EXPECT_EQ(answers, (Texts{"a cancelled", "a cancelled"}));
  EXPECT_EQ(notifications.posted,
            (std::vector<Notification>{
                {.identifier = "alert-1", .title = "a", .body = "about a", .lasting = true},
                {.identifier = "alert-2", .title = "a", .body = "about a", .lasting = true},
            }));
  EXPECT_EQ(errors.text(), complaint("there is no display"));
  settleQueue(loop);
  EXPECT_TRUE(stand.runs.empty());
}

TEST_F(TheDialogAlerts, GiveAWindowTimeOnlyUntilItIsThere) {
  constexpr Seconds limit{3};
  DialogAlerts hasty(loop, notifications, token, stand.program(), true, limit);
  presentOn(hasty, alert("a"));
  DialogsRun& run = stand.run();
  const int id = run.asked<ShowAlert>(1).front().id;
  run.say(Shown{id});
  letPass(machine, limit + Seconds{0.05});
  EXPECT_EQ(answers, Texts{});
  run.say(Answered{id, {0}});
  ASSERT_TRUE(areAnswered(1));
  EXPECT_EQ(answers, Texts{"a 0"});
  settleQueue(loop);
}

/// A program that shows no window, and what is said of it.
struct Failure {
  const char* name;
  const char* script;  ///< null: there is no program
  const char* reason;
  Seconds patience = windowPatience;

  friend void PrintTo(const Failure& failure, std::ostream* out) { *out << failure.name; }
};

#define AND_HANG "\nexec " TEST_CHILD " pause"

const Failure failures[] = {
    {"Missing", nullptr, "No such file or directory"},
    {"Crashes", "kill -9 $$", "it ended without an answer"},
    {"ClosesItsOutput", "exec >&-" AND_HANG, "it ended without an answer"},
    {"Hangs", AND_HANG, "its window did not come", Seconds{0.02}},
    {"ShowsAnother", "echo '{\"version\":2,\"shown\":{\"id\":77}}'" AND_HANG, "its window did not come",
     Seconds{0.02}},
    {"SaysNonsense", "echo nonsense" AND_HANG, "it answered: a line that is not of the protocol"},
    {"SaysNothingKnown", "echo '{\"version\":2}'" AND_HANG, "it answered: a line that is not of the protocol"},
    {"NeverEndsItsLine", "exec " TEST_CHILD " flood 17000000 pause", "it answered without end", patience},
    {"IsOfAnotherVersion", "echo '{\"version\":3,\"shown\":{\"id\":1}}'" AND_HANG,
     "it answered: it speaks version 3 of the protocol, this half version 2; install both from the same "
     "build"},
    {"Refuses", "echo '{\"version\":2,\"refused\":{\"reason\":\"too much\"}}'" AND_HANG, "too much"},
};

struct DialogAlertsWithAProgramThat : TheDialogAlerts, ::testing::WithParamInterface<Failure> {};
INSTANTIATE_TEST_SUITE_P(Each, DialogAlertsWithAProgramThat, ::testing::ValuesIn(failures),
                         [](const auto& failure) { return failure.param.name; });

TEST_P(DialogAlertsWithAProgramThat, FallBackToNotifications) {
  if (GetParam().script != nullptr) {
    stand.replaceBy(GetParam().script);
  } else {
    std::filesystem::remove(stand.program());
  }
  DialogAlerts failing(loop, notifications, token, stand.program(), true, GetParam().patience);
  for (const char* const message : {"a", "b"}) presentOn(failing, alert(message));
  EXPECT_EQ(answers, Texts{});
  ASSERT_TRUE(areAnswered(2));
  // Nobody asks it to end any more, and yet it does.
  EXPECT_TRUE(hasNoChildren(loop));
  settleQueue(loop);
  EXPECT_EQ(answers, (Texts{"a cancelled", "b cancelled"}));
  EXPECT_EQ(notified(), (Texts{"a|about a", "b|about b"}));
  EXPECT_EQ(errors.text(), complaint(GetParam().reason));
}

}  // namespace
}  // namespace kestrune::testing
