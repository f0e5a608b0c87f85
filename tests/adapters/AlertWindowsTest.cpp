#include <filesystem>

#include "adapters/windows/DialogWindows.h"
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

struct TheAlertWindows : ::testing::Test {
  ~TheAlertWindows() override {
    windows.close();
    EXPECT_TRUE(hasNoChildren(loop)) << "a test leaves a process behind";
  }

  Alert alert(const std::string& message) const {
    return {.messageText = message,
            .informativeText = "about " + message,
            .buttons = {"OK", "Cancel"},
            .target = target};
  }
  void present(const std::string& message) { present(alert(message)); }
  void present(const Alert& shown) {
    windows.present({[shown] { return shown; },
                     [this, name = shown.messageText](const AlertAnswer& answer) {
                       answers.push_back(
                           name + (answer.button ? " " + std::to_string(*answer.button) : " cancelled"));
                       lastFields = answer.fields;
                     }});
  }
  bool areAnswered(std::size_t count) {
    return comesTrue(loop, [this, count] { return answers.size() >= count; });
  }
  /// Presents an alert, and waits until the client asks the fake dialogs program to show it. The program then
  /// answers that its window has appeared.
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
  DialogProgram program{loop, stand.program(), true, notifications};
  DialogWindows windows{program};
  Texts answers;
  std::map<std::string, std::string> lastFields;
  int lastId = 0;
};

TEST_F(TheAlertWindows, ShowAnAlertAndPassItsAnswerOn) {
  Alert asked = alert("a");
  asked.style = AlertStyle::informational;
  asked.accessoryView = View{.kind = ViewKind::textField, .identifier = "name", .text = "old"};
  present(asked);
  DialogsRun& run = stand.run();
  const ShowAlert request = run.asked<ShowAlert>(1).front();
  EXPECT_GT(request.id, 0);
  EXPECT_EQ(request.alert, asked);
  run.say(Shown{request.id});
  // The answer comes in two pieces. The client must ignore everything that comes after the answer.
  const std::string answer =
      dialogs::encode<dialogs::Event>(Answered{request.id, {0, {{"name", "new"}}}}) + "\n";
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

TEST_F(TheAlertWindows, NotifyOfALostWindowWithoutItsFields) {
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

TEST_F(TheAlertWindows, SendTheActivationTokenBeforeTheAlert) {
  windows.giveToken("token");
  DialogsRun& run = open("a");
  EXPECT_EQ(std::get<dialogs::Raise>(run.requests.at(0)).activationToken, "token");
  present("b");
  EXPECT_EQ(run.asked<dialogs::Raise>(2).back().activationToken, "") << "a token serves once";
}

TEST_F(TheAlertWindows, AcceptATokenOfAtMost4096Bytes) {
  DialogsRun& run = open("a");
  auto accepted = [&, count = std::size_t{0}](const std::string& given) mutable {
    windows.giveToken("earlier");
    windows.giveToken(given);
    present("b");
    return run.asked<dialogs::Raise>(++count).back().activationToken;
  };
  EXPECT_EQ(accepted(std::string(4096, 't')), std::string(4096, 't'));
  EXPECT_EQ(accepted(std::string(4097, 't')), "");
}

TEST_F(TheAlertWindows, GiveUpAWholeStackFromTheTop) {
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

TEST_F(TheAlertWindows, OpenAgainIfTheProgramEndsBeforeItReadsTheRequest) {
  DialogsRun& run = open("bottom");
  target->onPerform = [this] { present("top"); };
  run.say(Pressed{lastId, "explain"});
  run.say(Pressed{lastId, "explain"});
  run.asked<ShowAlert>(3);
  run.say(Answered{lastId, {1}});
  run.end();
  DialogsRun& next = stand.run(2);
  const std::vector<ShowAlert> shown = next.asked<ShowAlert>(2);
  EXPECT_EQ(shown[0].alert, alert("top"));
  next.say(Answered{lastId, {1}});  // an alert that is not open any more
  next.say(Answered{shown[1].id, {0}});
  next.say(Answered{shown[0].id, {1}});
  ASSERT_TRUE(areAnswered(3));
  EXPECT_EQ(answers, (Texts{"bottom 1", "top 0", "top 1"}));
  EXPECT_EQ(stand.runs.size(), 2u);
  EXPECT_EQ(notified(), Texts{});
  EXPECT_EQ(errors.text(), "");
}

TEST_F(TheAlertWindows, DoNotBlockWhenTheProgramReadsSlowly) {
  Alert large = alert("large");
  // The request passes through a pipe to the fake program, and then through a socket to this test. The text
  // is larger than the buffers of both together, so the client cannot send it in one write.
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
  stand.run(2).end();  // the program ends before it has read the request
  ASSERT_TRUE(areAnswered(2));
  EXPECT_EQ(answers, (Texts{"large 0", "large cancelled"}));
}

TEST_F(TheAlertWindows, LeakNothingInAHundredAlerts) {
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
  // For the first two alerts, the loop opens descriptors that it keeps open. Count the descriptors only after
  // these alerts, or the test would take the kept ones for a leak.
  presentMany(2);
  const auto before = openDescriptors();
  presentMany(100);
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(stand.runs.size(), 100u);
  EXPECT_EQ(notifications.posted.size(), 50u);
  EXPECT_EQ(errors.text(), complaint("it ended before its window appeared"));
}

TEST_F(TheAlertWindows, CallNoCompletionAfterClose) {
  DialogsRun& run = open("a");
  present("queued");
  target->onPerform = [this] {
    present("top");
    windows.close();
  };
  // The action of the button "quit" requests the alert "top", and then closes all windows. So no window may
  // open for "top".
  run.say(Pressed{lastId, "quit"});
  EXPECT_TRUE(run.ends());
  settleQueue(loop);
  EXPECT_TRUE(hasNoChildren(loop));
  EXPECT_EQ(stand.runs.size(), 1u);
  EXPECT_EQ(answers, Texts{});
  EXPECT_EQ(notified(), Texts{});
  EXPECT_EQ(errors.text(), "");
}

TEST_F(TheAlertWindows, BecomeNotificationsWithoutADisplay) {
  program.hasDisplay = false;
  for (int each = 0; each < 2; ++each) {
    present("a");
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

TEST_F(TheAlertWindows, HaveNoTimeLimitOnceTheWindowIsShown) {
  EXPECT_EQ(program.patience, Seconds{5});
  constexpr Seconds limit{3};
  program.patience = limit;
  present("a");
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

TEST_F(TheAlertWindows, ReportAMissingProgramOnceWithItsPackage) {
  std::filesystem::remove(stand.program());
  windows.showMenu();
  present("a");
  present("b");
  ASSERT_TRUE(areAnswered(2));
  windows.showMenu();
  EXPECT_EQ(answers, (Texts{"a cancelled", "b cancelled"}));
  EXPECT_EQ(errors.text(), "KestruneMenuClient: no windows: " + stand.program() +
                               " is missing; notifications are shown instead. Install the package "
                               "kestrune-menu-dialogs, or start with --terminal\n");
  EXPECT_EQ(
      notified(),
      (Texts{"Kestrune 無法顯示視窗|沒有安裝套件 kestrune-menu-dialogs，內容改用通知顯示。請安裝這個套件，"
             "或在終端機執行 KestruneMenuClient --terminal。",
             "a|about a", "b|about b"}));
}

TEST_F(TheAlertWindows, ReportAProgramThatIsNotExecutable) {
  stand.replaceBy("exit 0");
  std::filesystem::permissions(stand.program(), std::filesystem::perms::owner_read);
  present("a");
  ASSERT_TRUE(areAnswered(1));
  EXPECT_EQ(errors.text(), complaint("Permission denied"));
  EXPECT_EQ(notified(), Texts{"a|about a"});
}

/// A script that runs instead of the dialogs program and shows no window. The client must report `reason`.
struct Failure {
  const char* name;
  const char* script;
  const char* reason;
  Seconds patience{5.0};

  friend void PrintTo(const Failure& failure, std::ostream* out) { *out << failure.name; }
};

#define AND_HANG "\nexec " TEST_CHILD " pause"

const Failure failures[] = {
    {"Crashes", "kill -9 $$", "it ended before its window appeared"},
    {"ClosesItsOutput", "exec >&-" AND_HANG, "it ended before its window appeared"},
    {"Hangs", AND_HANG, "its window did not appear", Seconds{0.02}},
    {"ShowsAnother", "echo '{\"version\":3,\"shown\":{\"id\":77}}'" AND_HANG, "its window did not appear",
     Seconds{0.02}},
    {"SaysNonsense", "echo nonsense" AND_HANG, "it answered: a line that is not of the protocol"},
    {"NeverEndsItsLine", "exec " TEST_CHILD " flood 17000000 pause", "it answered without end", patience},
    {"IsOfAnotherVersion", "echo '{\"version\":4,\"shown\":{\"id\":1}}'" AND_HANG,
     "it answered: it speaks version 4 of the protocol, this half version 3; install both from the same "
     "build"},
    {"Refuses", "echo '{\"version\":3,\"refused\":{\"reason\":\"too much\"}}'" AND_HANG, "too much"},
};

struct AlertWindowsWithAProgramThat : TheAlertWindows, ::testing::WithParamInterface<Failure> {};
INSTANTIATE_TEST_SUITE_P(Each, AlertWindowsWithAProgramThat, ::testing::ValuesIn(failures),
                         [](const auto& failure) { return failure.param.name; });

TEST_P(AlertWindowsWithAProgramThat, BecomeNotifications) {
  stand.replaceBy(GetParam().script);
  program.patience = GetParam().patience;
  for (const char* const message : {"a", "b"}) present(message);
  EXPECT_EQ(answers, Texts{});
  ASSERT_TRUE(areAnswered(2));
  // Only the fixture's destructor calls `windows.close`. So the client must have ended the program on its
  // own, even a program that hangs.
  EXPECT_TRUE(hasNoChildren(loop));
  settleQueue(loop);
  EXPECT_EQ(answers, (Texts{"a cancelled", "b cancelled"}));
  EXPECT_EQ(notified(), (Texts{"a|about a", "b|about b"}));
  EXPECT_EQ(errors.text(), complaint(GetParam().reason));
}

}  // namespace
}  // namespace kestrune::testing
