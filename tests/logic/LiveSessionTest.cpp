#include "tests/logic/Characters.h"
#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

struct Session {
  std::string projectTitle;
  std::string threadName;

  bool operator==(const Session&) const = default;
};

void PrintTo(const Session& session, std::ostream* stream) {
  *stream << "\"" << session.projectTitle << "\" \"" << session.threadName << "\"";
}

const Session placeholders{"目前專案", "尚未取得"};
const Session notConfigured{"未配置", "未配置"};

struct LiveSession : ControllerTest {
  LiveSession() {
    env() = "KESTRUNE_MAC_SERVICE_TOKEN=secret";
    serviceAnswers(R"({"projects":[{"selected":true,"title":"Shop","thread_name":"Checkout"}]})");
  }

  void serviceAnswers(std::optional<std::string> answer) { machine.localService.answer = std::move(answer); }

  /// Asks for the snapshot, without letting anything happen that follows.
  void begin() {
    controller->refreshLiveSessionSnapshot([this] { ++completions; });
  }
  /// A whole snapshot.
  void ask() {
    begin();
    machine.loop.settle();
  }
  /// What is shown once the service has given `answer`, and something else was shown before.
  Session shownFor(std::optional<std::string> answer) {
    serviceAnswers(std::move(answer));
    show({"earlier", "earlier thread"});
    state.lastLiveSessionRefreshAt.reset();
    ask();
    return shown();
  }
  Session shownForProjects(const std::string& projects) {
    return shownFor(R"({"projects":)" + projects + "}");
  }

  void show(const Session& session) {
    state.currentProjectTitle = session.projectTitle;
    state.currentThreadName = session.threadName;
  }
  Session shown() const { return {state.currentProjectTitle, state.currentThreadName}; }
  std::size_t requests() const { return machine.localService.tokens.size(); }

  int completions = 0;
};

TEST_F(LiveSession, ShowsTheSelectedProjectAndItsThread) {
  ask();
  EXPECT_EQ(shown(), (Session{"Shop", "Checkout"}));
  EXPECT_EQ(requests(), 1U);
  EXPECT_EQ(completions, 1);
}

TEST_F(LiveSession, IsAskedForOnTheWorkerAndShownOnTheMainThread) {
  begin();
  EXPECT_TRUE(state.liveSessionRefreshInProgress);
  machine.loop.runMain();
  EXPECT_EQ(newCalls(), CallLog{});
  ASSERT_TRUE(machine.loop.runOneWorkerJob());
  EXPECT_EQ(newCalls(), CallLog{"ask local service"});
  EXPECT_EQ(shown(), placeholders);
  EXPECT_TRUE(state.liveSessionRefreshInProgress);
  EXPECT_EQ(state.lastLiveSessionRefreshAt, std::nullopt);
  EXPECT_EQ(completions, 0);
  machine.loop.runMain();
  EXPECT_EQ(shown(), (Session{"Shop", "Checkout"}));
  EXPECT_FALSE(state.liveSessionRefreshInProgress);
  EXPECT_EQ(completions, 1);
}

TEST_F(LiveSession, CompletionFindsEverythingInPlace) {
  bool seen = false;
  controller->refreshLiveSessionSnapshot([&] {
    seen = true;
    EXPECT_FALSE(state.liveSessionRefreshInProgress);
    EXPECT_EQ(state.lastLiveSessionRefreshAt, machine.clock.continuousTime());
    EXPECT_EQ(shown(), (Session{"Shop", "Checkout"}));
  });
  machine.loop.settle();
  EXPECT_TRUE(seen);
}

TEST_F(LiveSession, NeedsNoCompletion) {
  controller->refreshLiveSessionSnapshot(nullptr);
  controller->refreshLiveSessionSnapshot(nullptr);
  machine.loop.settle();
  EXPECT_EQ(shown(), (Session{"Shop", "Checkout"}));
  controller->refreshLiveSessionSnapshot(nullptr);
  machine.loop.advance(Seconds{45});
  env().clear();
  controller->refreshLiveSessionSnapshot(nullptr);
  EXPECT_EQ(shown(), notConfigured);
}

TEST_F(LiveSession, ChangesNeitherMenuNorButtonItself) {
  makeStatusItem();
  ask();
  EXPECT_EQ(newCalls(), CallLog{"ask local service"});
}

TEST_F(LiveSession, FailureIsNotReported) {
  shownFor(std::nullopt);
  EXPECT_EQ(newCalls(), CallLog{"ask local service"});
  EXPECT_TRUE(machine.alerts.shown.empty());
  EXPECT_TRUE(machine.notifications.posted.empty());
}

TEST_F(LiveSession, WaitsBehindOtherWorkOfTheWorker) {
  state.workerQueue->async([this] { machine.log.emplace_back("other work"); });
  ask();
  EXPECT_EQ(newCalls(), (CallLog{"other work", "ask local service"}));
}

TEST_F(LiveSession, KeepsTheControllerAliveUntilItIsDone) {
  const std::weak_ptr<AppDelegate> weak = controller;
  begin();
  controller.reset();
  machine.loop.runOneWorkerJob();
  EXPECT_FALSE(weak.expired());
  machine.loop.runMain();
  EXPECT_EQ(completions, 1);
  EXPECT_TRUE(weak.expired());
}

// --- the token

TEST_F(LiveSession, TokenIsTheCurrentKeysElseTheLegacyOnes) {
  struct Case {
    const char* env;
    const char* token;
  };
  const Case cases[] = {
      {"KESTRUNE_MAC_SERVICE_TOKEN=a", "a"},
      {"HALVASK_MAC_SERVICE_TOKEN=b", "b"},
      {"HALVASK_MAC_SERVICE_TOKEN=b\nKESTRUNE_MAC_SERVICE_TOKEN=a", "a"},
      {"KESTRUNE_MAC_SERVICE_TOKEN=", ""},
      {"KESTRUNE_MAC_SERVICE_TOKEN=\nHALVASK_MAC_SERVICE_TOKEN=b", ""},
      {"HALVASK_MAC_SERVICE_TOKEN=", ""},
      {"KESTRUNE_MAC_SERVICE_TOKEN= a b ", "a b"},
      {"KESTRUNE_MAC_SERVICE_TOKEN=it's \\n $(x) \"", "it's \\n $(x) \""},
  };
  for (const Case& each : cases) {
    env() = each.env;
    EXPECT_EQ(shownForProjects(R"([{"selected":true,"title":"a"}])"), (Session{"a", "a"})) << each.env;
    EXPECT_EQ(machine.localService.tokens.back(), each.token);
  }
  EXPECT_EQ(requests(), std::size(cases));
}

TEST_F(LiveSession, WithoutATokenShowsThatAndAsksNobody) {
  for (const char* const text : {"", "X=1", "KESTRUNE_APP_API_TOKEN=a", "#KESTRUNE_MAC_SERVICE_TOKEN=a"}) {
    show({"earlier", "earlier thread"});
    completions = 0;
    env() = text;
    begin();
    EXPECT_EQ(completions, 1);
    EXPECT_EQ(shown(), notConfigured);
    EXPECT_FALSE(state.liveSessionRefreshInProgress);
    EXPECT_EQ(machine.loop.workerJobs(), 0U);
  }
  machine.fileManager.files.clear();
  show({"earlier", "earlier thread"});
  begin();
  EXPECT_EQ(shown(), notConfigured);
  EXPECT_EQ(newCalls(), CallLog{});
}

TEST_F(LiveSession, TokenIsLookedForAgainAtOnceWhenThereWasNone) {
  env().clear();
  ask();
  EXPECT_EQ(state.lastLiveSessionRefreshAt, std::nullopt);
  env() = "KESTRUNE_MAC_SERVICE_TOKEN=secret";
  ask();
  EXPECT_EQ(shown(), (Session{"Shop", "Checkout"}));
}

TEST_F(LiveSession, TokenThatIsGoneLeavesTheLastRefreshWhereItWas) {
  ask();
  const auto last = state.lastLiveSessionRefreshAt;
  machine.loop.advance(Seconds{45});
  env().clear();
  ask();
  EXPECT_EQ(shown(), notConfigured);
  EXPECT_EQ(state.lastLiveSessionRefreshAt, last);
  env() = "KESTRUNE_MAC_SERVICE_TOKEN=secret";
  ask();
  EXPECT_EQ(requests(), 2U);
}

TEST_F(LiveSession, TokenIsThatOfTheMomentOfAsking) {
  begin();
  env() = "KESTRUNE_MAC_SERVICE_TOKEN=another";
  machine.loop.settle();
  EXPECT_EQ(machine.localService.tokens, std::vector<std::string>{"secret"});
}

// --- how often

TEST_F(LiveSession, IsAskedForAgainAfterFortyFiveSeconds) {
  ask();
  machine.loop.advance(Seconds{44.5});
  ask();
  EXPECT_EQ(requests(), 1U);
  machine.loop.advance(Seconds{0.5});
  ask();
  EXPECT_EQ(requests(), 2U);
  EXPECT_EQ(completions, 3);
}

TEST_F(LiveSession, SkippedRequestCompletesAtOnceAndChangesNothing) {
  ask();
  serviceAnswers(std::nullopt);
  env().clear();
  show({"未同步", "尚未啟動"});
  machine.fileManager.asked.clear();
  const auto last = state.lastLiveSessionRefreshAt;
  machine.loop.advance(Seconds{20});
  begin();
  EXPECT_EQ(completions, 2);
  EXPECT_EQ(machine.loop.workerJobs(), 0U);
  EXPECT_EQ(shown(), (Session{"未同步", "尚未啟動"}));
  EXPECT_EQ(state.lastLiveSessionRefreshAt, last);
  EXPECT_TRUE(machine.fileManager.asked.empty());
}

TEST_F(LiveSession, IntervalBeginsWhenTheQueryIsComplete) {
  machine.localService.duration = Seconds{4};
  ask();
  EXPECT_EQ(state.lastLiveSessionRefreshAt, Seconds{1004});
  machine.loop.advance(Seconds{42});
  ask();
  EXPECT_EQ(requests(), 1U);
  machine.loop.advance(Seconds{3});
  ask();
  EXPECT_EQ(requests(), 2U);
}

TEST_F(LiveSession, SkippedRequestDoesNotBeginTheIntervalAnew) {
  ask();
  machine.loop.advance(Seconds{30});
  ask();
  machine.loop.advance(Seconds{15});
  ask();
  EXPECT_EQ(requests(), 2U);
}

TEST_F(LiveSession, FailureIsNotTriedAgainSoonerThanASuccess) {
  for (const char* const answer : {"", "{}", "no JSON"}) {
    state.lastLiveSessionRefreshAt.reset();
    machine.localService.tokens.clear();
    serviceAnswers(answer);
    ask();
    ask();
    machine.loop.advance(Seconds{44});
    ask();
    EXPECT_EQ(requests(), 1U);
    machine.loop.advance(Seconds{1});
    ask();
    EXPECT_EQ(requests(), 2U);
  }
}

TEST_F(LiveSession, TimeAsleepCounts) {
  ask();
  machine.loop.suspend(Seconds{44});
  ask();
  EXPECT_EQ(requests(), 1U);
  machine.loop.suspend(Seconds{1});
  ask();
  EXPECT_EQ(requests(), 2U);
}

TEST_F(LiveSession, OnlyOneQueryIsUnderWayAtATime) {
  begin();
  int second = 0;
  controller->refreshLiveSessionSnapshot([&] {
    ++second;
    EXPECT_EQ(completions, 0);
  });
  EXPECT_EQ(second, 1);
  EXPECT_EQ(machine.loop.workerJobs(), 1U);
  bool asked = false;
  machine.localService.whileAsked = [&] {
    asked = true;
    controller->refreshLiveSessionSnapshot([&] { ++second; });
    EXPECT_EQ(second, 2);
  };
  machine.loop.runOneWorkerJob();
  EXPECT_TRUE(asked);
  controller->refreshLiveSessionSnapshot([&] { ++second; });
  EXPECT_EQ(second, 3);
  EXPECT_EQ(completions, 0);
  machine.loop.settle();
  EXPECT_EQ(completions, 1);
  EXPECT_EQ(second, 3);
  EXPECT_EQ(requests(), 1U);
}

TEST_F(LiveSession, RequestDuringAQueryDoesNotEvenLookForAToken) {
  begin();
  env().clear();
  begin();
  EXPECT_EQ(completions, 1);
  EXPECT_EQ(shown(), placeholders);
}

TEST_F(LiveSession, QueryOverwritesWhatAStopWroteMeanwhile) {
  makeStatusItem();
  begin();
  controller->presentAutoConnectDisabledState();
  EXPECT_EQ(shown(), (Session{"未同步", "尚未啟動"}));
  machine.loop.settle();
  EXPECT_EQ(shown(), (Session{"Shop", "Checkout"}));
}

// --- the answer

TEST_F(LiveSession, NoAnswerOrOneOfNoUseGivesThePlaceholders) {
  EXPECT_EQ(shownFor(std::nullopt), placeholders);
  for (const char* const answer : {
           "",
           " ",
           "null",
           "true",
           "5",
           "\"projects\"",
           "[]",
           R"([{"projects":[{"selected":true,"title":"a"}]}])",
           "{}",
           R"({"project":[{"selected":true,"title":"a"}]})",
           R"({"Projects":[{"selected":true,"title":"a"}]})",
           "<html>502</html>",
           R"({"projects":[{"selected":true,"title":"a"}])",
           R"({"projects":[{"selected":true,"title":"a"}]}})",
           R"({"projects":[{"selected":true,"title":"a"}]} {})",
           R"({"projects":[{"selected":true,"title":"a"},]})",
           R"({'projects':[{'selected':true,'title':'a'}]})",
           R"({"projects":[{"selected":True,"title":"a"}]})",
           "{\"projects\":[{\"selected\":true,\"title\":\"a\n\"}]}",
           "{\"projects\":[{\"selected\":true,\"title\":\"a\"}],\"x\":\"\xFF\"}",
           "{\"projects\":[{\"selected\":true,\"title\":\"\xED\xA0\x80\"}]}",
           R"({"projects":[{"selected":true,"title":"\ud83d"}]})",
       }) {
    EXPECT_EQ(shownFor(answer), placeholders) << answer;
  }
}

TEST_F(LiveSession, HalfACharacterMattersOnlyWhereItWouldBeShown) {
  struct Case {
    const char* projects;
    Session session;
  };
  const Case cases[] = {
      {R"([{"title":"\udcff"},{"selected":true,"title":"a","path":"\uD83D x"}])", {"a", "a"}},
      {R"([{"selected":true,"title":"a","\udcff":1,"x":"\ud83d\ud83d"}])", {"a", "a"}},
      {R"([{"selected":true,"title":"\ud83d\ude00","x":"\ude00\ud83d"}])", {"😀", "😀"}},
      {R"([{"selected":true,"title":"\\ud83d","thread_name":"\\\\udcff"}])", {"\\ud83d", "\\\\udcff"}},
      {R"([{"selected":true,"title":"a","thread_name":"x\udcff"}])", placeholders},
      {R"([{"selected":true,"title":"\ud83dx","thread_name":"b"}])", placeholders},
      {R"([{"selected":true,"title":"\ud83d\u0041"}])", placeholders},
  };
  for (const auto& each : cases) EXPECT_EQ(shownForProjects(each.projects), each.session) << each.projects;
  for (const char* const damaged : {R"({"projects":[{"selected":true,"title":"a"}],"x":"\ud83)",
                                    R"({"projects":[{"selected":true,"title":"a\u12g4"}]})",
                                    R"({"projects":[{"selected":true,"title":"a"}]\ud83d})",
                                    R"({"projects":[{"selected":true,"title":"a"}]}\)"}) {
    EXPECT_EQ(shownFor(damaged), placeholders) << damaged;
  }
}

TEST_F(LiveSession, SpaceAroundTheAnswerDoesNotMatter) {
  EXPECT_EQ(shownFor("\n\t {\"projects\" : [ {\"selected\":true,\"title\":\"a\"} ] }\r\n"),
            (Session{"a", "a"}));
}

TEST_F(LiveSession, AnswerThatIsNoListOfProjectsGivesThePlaceholders) {
  for (const char* const projects :
       {"null", "true", "false", "0", "7", "\"\"", "\"abc\"", "{}", R"({"selected":true,"title":"a"})",
        R"({"a":{"selected":true,"title":"a"}})", "[]"}) {
    EXPECT_EQ(shownForProjects(projects), placeholders) << projects;
  }
}

TEST_F(LiveSession, FirstSelectedProjectCounts) {
  struct Case {
    const char* projects;
    Session session;
  };
  const Case cases[] = {
      {R"([{"title":"a"},{"selected":true,"title":"b"}])", {"b", "b"}},
      {R"([{"selected":false,"title":"a"},{"selected":true,"title":"b"},{"selected":true,"title":"c"}])",
       {"b", "b"}},
      {R"([{"selected":true},{"selected":true,"title":"c","thread_name":"d"}])", placeholders},
      {R"([{"title":"a","thread_name":"b"}])", placeholders},
      {R"([{"Selected":true,"title":"a"}])", placeholders},
      {"[{}]", placeholders},
  };
  for (const Case& each : cases) EXPECT_EQ(shownForProjects(each.projects), each.session) << each.projects;
}

TEST_F(LiveSession, SelectedIsWhatTheServicesLanguageTakesForTrue) {
  for (const char* const yes : {"true", "1", "-1", "0.5", "18446744073709551616", "\"x\"", "\" \"",
                                "\"false\"", "[0]", "[null]", "{\"a\":0}"}) {
    EXPECT_EQ(shownForProjects(std::string(R"([{"title":"a","selected":)") + yes + "}]"), (Session{"a", "a"}))
        << yes;
  }
  for (const char* const no : {"false", "null", "0", "-0", "0.0", "-0.0", "0e9", "\"\"", "[]", "{}"}) {
    EXPECT_EQ(shownForProjects(std::string(R"([{"title":"a","selected":)") + no + "}]"), placeholders) << no;
  }
}

TEST_F(LiveSession, OnlyTextsAreShown) {
  struct Case {
    const char* title;
    const char* threadName;
    Session session;
  };
  const Case cases[] = {
      {R"("a")", R"("b")", {"a", "b"}},
      {R"("a")", "null", {"a", "a"}},
      {R"("a")", R"("")", {"a", "a"}},
      {R"("a")", "false", {"a", "a"}},
      {R"("a")", "0", {"a", "a"}},
      {R"("a")", "0.0", {"a", "a"}},
      {R"("a")", "[]", {"a", "a"}},
      {R"("a")", "{}", {"a", "a"}},
      {R"("a")", "true", {"a", "尚未取得"}},
      {R"("a")", "7", {"a", "尚未取得"}},
      {R"("a")", R"(["b"])", {"a", "尚未取得"}},
      {R"("a")", R"({"name":"b"})", {"a", "尚未取得"}},
      {"null", R"("b")", {"目前專案", "b"}},
      {R"("")", R"("b")", {"目前專案", "b"}},
      {"7", R"("b")", {"目前專案", "b"}},
      {R"(["a"])", R"("b")", {"目前專案", "b"}},
      {"7", "null", placeholders},
      {"null", "null", placeholders},
      {R"("")", R"("")", placeholders},
      {R"(" a ")", R"(" ")", {" a ", " "}},
      {R"("\u5c08\u6848")", R"("\ud83d\ude00")", {"專案", "😀"}},
      {R"("專案")", R"("a\nb")", {"專案", "a\nb"}},
  };
  for (const Case& each : cases) {
    EXPECT_EQ(shownForProjects(std::string(R"([{"selected":true,"title":)") + each.title +
                               ",\"thread_name\":" + each.threadName + "}]"),
              each.session)
        << each.title << " " << each.threadName;
  }
}

TEST_F(LiveSession, MembersMayBeMissing) {
  EXPECT_EQ(shownForProjects(R"([{"selected":true,"title":"a"}])"), (Session{"a", "a"}));
  EXPECT_EQ(shownForProjects(R"([{"selected":true,"thread_name":"b"}])"), (Session{"目前專案", "b"}));
  EXPECT_EQ(shownForProjects(R"([{"selected":true}])"), placeholders);
}

TEST_F(LiveSession, ItemThatIsNoObjectSpoilsTheAnswerUnlessTheSelectedOneStandsBeforeIt) {
  for (const char* const item : {"null", "true", "7", "\"x\"", "[]", "[{\"selected\":true}]"}) {
    const std::string selected = R"({"selected":true,"title":"a"})";
    EXPECT_EQ(shownForProjects("[" + std::string(item) + "," + selected + "]"), placeholders) << item;
    EXPECT_EQ(shownForProjects("[" + selected + "," + item + "]"), (Session{"a", "a"})) << item;
  }
}

TEST_F(LiveSession, LastOfTwoMembersOfTheSameNameCounts) {
  EXPECT_EQ(shownForProjects(R"([{"selected":false,"selected":true,"title":"a","title":"b"}])"),
            (Session{"b", "b"}));
  EXPECT_EQ(shownForProjects(R"([{"selected":true,"selected":false,"title":"a"}])"), placeholders);
  EXPECT_EQ(shownFor(R"({"projects":[{"selected":true,"title":"a"}],"projects":[]})"), placeholders);
}

TEST_F(LiveSession, AnswerThatIsNestedTooDeeplyGivesThePlaceholders) {
  const auto nested = [](int depth) {
    return R"([{"selected":true,"title":"a","x":)" + repeated("[", depth) + repeated("]", depth) + "}]";
  };
  EXPECT_EQ(shownForProjects(nested(900)), (Session{"a", "a"}));
  EXPECT_EQ(shownForProjects(nested(1100)), placeholders);
  EXPECT_EQ(shownForProjects(nested(100000)), placeholders);
  EXPECT_EQ(shownForProjects(R"([{"selected":true,"title":"a","x":)" + repeated(R"({"x":)", 100000) + "1" +
                             repeated("}", 100000) + "}]"),
            placeholders);
  EXPECT_EQ(shownFor(repeated("[", 100000)), placeholders);
}

}  // namespace
}  // namespace kestrune::testing
