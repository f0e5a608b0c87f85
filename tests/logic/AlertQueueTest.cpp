#include <gtest/gtest.h>

#include "adapters/alerts/AlertQueue.h"
#include "tests/rig/RecordingTarget.h"

namespace kestrune::testing {
namespace {

/// An AlertQueue without a user interface. Instead of showing an alert, it logs the call.
struct RecordingFace final : AlertQueue {
  RecordingFace(DispatchQueue& mainQueue, CallLog& givenLog) : AlertQueue(mainQueue), log(givenLog) {}

  using AlertQueue::answer;
  using AlertQueue::forget;
  using AlertQueue::press;

  void show(const Open& shown) override {
    log.push_back("show " + shown.alert.messageText);
    ids[shown.alert.messageText] = shown.id;
    if (answersAtOnce) answer(shown.id, {});
  }
  void raise() override { log.push_back("raise " + open.back().alert.messageText); }
  void resume() override { log.push_back("resume " + (open.empty() ? "" : open.back().alert.messageText)); }

  CallLog& log;
  std::map<std::string, int> ids;
  bool answersAtOnce = false;
};

struct TheAlertQueue : ::testing::Test {
  void present(const std::string& message, const std::string& identifier = {}) {
    face.present(
        {[this, message] {
           return Alert{
               .messageText = message, .informativeText = "", .buttons = {"OK", "Cancel"}, .target = target};
         },
         [this, message](const AlertAnswer& answer) {
           log.push_back(message + (answer.button ? " " + std::to_string(*answer.button) : " cancelled"));
           if (whenAnswered) whenAnswered();
         },
         identifier});
  }
  void open(const std::string& message, const std::string& identifier = {}) {
    present(message, identifier);
    loop.runMain();
  }
  void press(const std::string& message) {
    face.press(face.ids.at(message), "act");
    loop.runMain();
  }
  void answer(const std::string& message, std::optional<std::size_t> button = 0) {
    face.answer(face.ids.at(message), {button});
    loop.runMain();
  }
  CallLog newCalls() { return std::exchange(log, {}); }

  VirtualClock clock;
  CallLog log, loopLog;
  FakeLoop loop{clock, loopLog};
  RecordingFace face{loop.mainQueue(), log};
  std::shared_ptr<RecordingTarget> target = std::make_shared<RecordingTarget>();
  std::function<void()> whenAnswered;
};

TEST_F(TheAlertQueue, StacksAlertsThatAButtonRequests) {
  open("first");
  present("queued");
  target->onPerform = [this] {
    present("top 1");
    present("top 2");
  };
  newCalls();
  press("first");
  EXPECT_EQ(newCalls(), (CallLog{"show top 1", "show top 2"}));
  answer("top 2");
  EXPECT_EQ(newCalls(), (CallLog{"top 2 0", "resume top 1"}));
  answer("top 1", 1);
  EXPECT_EQ(newCalls(), (CallLog{"top 1 1", "resume first"}));
  answer("first");
  EXPECT_EQ(newCalls(), (CallLog{"first 0", "show queued"}));
  answer("queued");
  EXPECT_EQ(newCalls(), (CallLog{"queued 0", "resume "}));
}

TEST_F(TheAlertQueue, QueuesAlertsThatACompletionRequests) {
  open("first");
  target->onPerform = [this] { present("top"); };
  press("first");
  present("queued");
  whenAnswered = [this] {
    whenAnswered = {};
    present("asked for by an answer");
  };
  newCalls();
  answer("top");
  EXPECT_EQ(newCalls(), (CallLog{"top 0", "raise first", "resume first"}));
  answer("first");
  EXPECT_EQ(newCalls(), (CallLog{"first 0", "show queued"}));
  answer("queued");
  EXPECT_EQ(newCalls(), (CallLog{"queued 0", "show asked for by an answer"}));
}

TEST_F(TheAlertQueue, ResumesWhenAButtonRequestsNothing) {
  open("first");
  newCalls();
  press("first");
  EXPECT_EQ(target->performed, CallLog{"act"});
  EXPECT_EQ(newCalls(), CallLog{"resume first"});
  target.reset();
  press("first");
  EXPECT_EQ(newCalls(), CallLog{"resume first"});
}

TEST_F(TheAlertQueue, RaisesTheOpenAlertWhenAnotherWaits) {
  present("minimised");
  present("at the same time");
  EXPECT_EQ(newCalls(), CallLog{}) << "before the caller is done";
  loop.runMain();
  EXPECT_EQ(newCalls(), CallLog{"show minimised"}) << "nothing was open when it was asked for";
  open("later");
  EXPECT_EQ(newCalls(), CallLog{"raise minimised"});
}

TEST_F(TheAlertQueue, RaisesAnAlertWithTheSameIdentifier) {
  present("other");
  present("waiting", "one");
  loop.runMain();
  newCalls();
  open("while it waits", "one");
  EXPECT_EQ(newCalls(), CallLog{"raise other"});
  answer("other");
  EXPECT_EQ(newCalls(), (CallLog{"other 0", "show waiting"}));
  open("while it is open", "one");
  EXPECT_EQ(newCalls(), CallLog{"raise waiting"});
  answer("waiting");
  open("afterwards", "one");
  EXPECT_EQ(newCalls(), (CallLog{"waiting 0", "resume ", "show afterwards"}));
}

TEST_F(TheAlertQueue, StacksAnIdentifierOnceForTwoPresses) {
  open("first");
  target->onPerform = [this] { present("top", "one"); };
  newCalls();
  face.press(face.ids.at("first"), "act");
  press("first");
  EXPECT_EQ(newCalls(), (CallLog{"raise first", "show top"}));
}

TEST_F(TheAlertQueue, ShowsTheNextWhenShowAnswersAtOnce) {
  face.answersAtOnce = true;
  present("a");
  present("b");
  loop.runMain();
  EXPECT_EQ(newCalls(), (CallLog{"show a", "a cancelled", "show b", "b cancelled", "resume "}));
}

TEST_F(TheAlertQueue, IgnoresUnknownAlertsAndButtons) {
  open("a");
  newCalls();
  answer("a", 2);
  EXPECT_EQ(newCalls(), (CallLog{"a cancelled", "resume "}));
  answer("a");
  EXPECT_EQ(newCalls(), CallLog{});
  press("a");
  EXPECT_EQ(target->performed, CallLog{});
}

TEST_F(TheAlertQueue, ForgetsOpenAndWaitingAlerts) {
  open("first");
  present("queued");
  target->onPerform = [this] {
    present("top");
    face.forget();
  };
  newCalls();
  press("first");
  EXPECT_EQ(newCalls(), CallLog{"resume "});
  open("new");
  EXPECT_EQ(newCalls(), CallLog{"show new"});
}

}  // namespace
}  // namespace kestrune::testing
