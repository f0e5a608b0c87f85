#include "KestruneMenuClient/status/LiveSession.h"

#include "tests/logic/Characters.h"
#include "tests/logic/ControllerTest.h"

namespace kestrune {

void PrintTo(const LiveSession& session, std::ostream* stream) {
  *stream << "\"" << session.projectTitle << "\" \"" << session.threadName << "\"";
}

}  // namespace kestrune

namespace kestrune::testing {
namespace {

using Session = ::kestrune::LiveSession;

const Session placeholders{"目前專案", "尚未取得"};
const Session notConfigured{"未配置", "未配置"};
const Session checkout{"Shop", "Checkout"};

struct LiveSessionRefresh : ControllerTest {
  LiveSessionRefresh() {
    makeStatusItem();
    env() = "KESTRUNE_MAC_SERVICE_TOKEN=secret";
    machine.localService.answer =
        R"({"projects":[{"selected":true,"title":"Shop","thread_name":"Checkout"}]})";
  }

  /// Starts a query for the project and the chat thread. Runs none of the query's jobs.
  void begin() {
    controller->refreshLiveSessionSnapshot([this] {
      ++completions;
      if (whenComplete) whenComplete();
    });
  }
  /// Starts a query for the project and the chat thread, and runs all jobs.
  void ask() {
    begin();
    machine.loop.settle();
  }
  /// Returns the project and the chat thread that a new menu shows.
  Session shown() {
    controller->rebuildMenu("", ConnectionLampState::ok, 0);
    newCalls();
    return {title(8).substr(std::string_view("同步專案：").size()),
            title(9).substr(std::string_view("同步會話：").size())};
  }
  std::size_t requests() const { return machine.localService.tokens.size(); }

  int completions = 0;
  std::function<void()> whenComplete;
};

TEST_F(LiveSessionRefresh, SkippedRequestDoesNotReadTheToken) {
  ask();
  env().clear();
  machine.fileManager.asked.clear();
  ask();
  EXPECT_EQ(machine.fileManager.asked, std::vector<std::string>{});
  EXPECT_EQ(completions, 2);
}

TEST_F(LiveSessionRefresh, AsksOnTheWorkerAndCompletesOnTheMainThread) {
  begin();
  machine.loop.runMain();
  EXPECT_EQ(newCalls(), CallLog{});
  ASSERT_TRUE(machine.loop.runOneWorkerJob());
  EXPECT_EQ(newCalls(), CallLog{"ask local service"});
  EXPECT_EQ(shown(), placeholders);
  EXPECT_EQ(completions, 0);
  whenComplete = [this] {
    EXPECT_EQ(newCalls(), CallLog{}) << "who asked draws";
    EXPECT_EQ(shown(), checkout);
    EXPECT_FALSE(state.liveSessionRefreshInProgress);
    controller->refreshLiveSessionSnapshot([this] { ++completions; });
    EXPECT_EQ(completions, 2) << "the interval has begun";
  };
  machine.loop.runMain();
  EXPECT_EQ(completions, 2);
}

TEST_F(LiveSessionRefresh, NeedsNoCompletion) {
  controller->refreshLiveSessionSnapshot(nullptr);
  controller->refreshLiveSessionSnapshot(nullptr);
  machine.loop.settle();
  EXPECT_EQ(shown(), checkout);
  controller->refreshLiveSessionSnapshot(nullptr);
  machine.loop.advance(Seconds{45});
  env().clear();
  controller->refreshLiveSessionSnapshot(nullptr);
  EXPECT_EQ(shown(), notConfigured);
}

TEST_F(LiveSessionRefresh, FailureIsRetriedAfterTheUsualInterval) {
  ask();
  machine.loop.advance(Seconds{45});
  newCalls();
  machine.localService.answer.reset();
  ask();
  EXPECT_EQ(newCalls(), CallLog{"ask local service"});
  EXPECT_EQ(shown(), placeholders);
  ask();
  machine.loop.advance(Seconds{44});
  ask();
  EXPECT_EQ(requests(), 2U);
  machine.loop.advance(Seconds{1});
  ask();
  EXPECT_EQ(requests(), 3U);
}

TEST_F(LiveSessionRefresh, ReadsTheTokenFromTheCurrentOrTheLegacyKey) {
  const std::pair<const char*, const char*> cases[] = {
      {"KESTRUNE_MAC_SERVICE_TOKEN=a", "a"},
      {"HALVASK_MAC_SERVICE_TOKEN=b", "b"},
      {"HALVASK_MAC_SERVICE_TOKEN=b\nKESTRUNE_MAC_SERVICE_TOKEN=a", "a"},
      {"KESTRUNE_MAC_SERVICE_TOKEN=\nHALVASK_MAC_SERVICE_TOKEN=b", ""},
      {"HALVASK_MAC_SERVICE_TOKEN=", ""},
      {"KESTRUNE_MAC_SERVICE_TOKEN=it's \\n $(x) \"", "it's \\n $(x) \""},
  };
  for (const auto& [text, token] : cases) {
    env() = text;
    ask();
    EXPECT_EQ(machine.localService.tokens.back(), token);
    machine.loop.advance(Seconds{45});
  }
  EXPECT_EQ(requests(), std::size(cases));
}

TEST_F(LiveSessionRefresh, WithoutATokenAsksNobody) {
  for (const char* const text : {"", "KESTRUNE_APP_API_TOKEN=a", "#KESTRUNE_MAC_SERVICE_TOKEN=a"}) {
    completions = 0;
    env() = text;
    begin();
    EXPECT_EQ(completions, 1);
    EXPECT_EQ(shown(), notConfigured);
    EXPECT_EQ(machine.loop.workerJobs(), 0U);
  }
  machine.fileManager.files.clear();
  begin();
  EXPECT_EQ(shown(), notConfigured);
  EXPECT_EQ(newCalls(), CallLog{});
  env() = "KESTRUNE_MAC_SERVICE_TOKEN=secret";
  ask();
  EXPECT_EQ(shown(), checkout);
}

TEST_F(LiveSessionRefresh, AsksAgainAfterFortyFiveSeconds) {
  machine.localService.duration = Seconds{4};
  ask();
  machine.loop.advance(Seconds{30});
  ask();
  machine.loop.advance(Seconds{14.5});
  ask();
  EXPECT_EQ(requests(), 1U);
  machine.loop.advance(Seconds{0.5});
  ask();
  EXPECT_EQ(requests(), 2U);
  EXPECT_EQ(completions, 4);
  machine.clock.suspend(Seconds{45});
  ask();
  EXPECT_EQ(requests(), 3U);
}

TEST_F(LiveSessionRefresh, RequestDuringAQueryCompletesAtOnce) {
  begin();
  env().clear();
  int others = 0;
  const auto askAgain = [&] {
    const int before = others;
    controller->refreshLiveSessionSnapshot([&] { ++others; });
    EXPECT_EQ(others, before + 1);
    EXPECT_EQ(completions, 0);
    EXPECT_EQ(shown(), placeholders);
  };
  askAgain();
  EXPECT_EQ(machine.loop.workerJobs(), 1U);
  machine.localService.whileAsked = askAgain;
  machine.loop.runOneWorkerJob();
  askAgain();
  machine.loop.settle();
  EXPECT_EQ(completions, 1);
  EXPECT_EQ(others, 3);
  EXPECT_EQ(requests(), 1U);
}

TEST_F(LiveSessionRefresh, QueryOverwritesTheDisabledState) {
  begin();
  controller->presentAutoConnectDisabledState();
  EXPECT_EQ(shown(), Session::disabled);
  machine.loop.settle();
  EXPECT_EQ(shown(), checkout);
}

Session ofProjects(const std::string& projects) {
  return selectedSession(R"({"projects":)" + projects + "}");
}

TEST(SelectedSession, DamagedAnswerGivesPlaceholders) {
  EXPECT_EQ(selectedSession(std::nullopt), placeholders);
  for (const char* const answer :
       {"", "null", "[]", R"([{"projects":[{"selected":true,"title":"a"}]}])", "{}", R"({"projects":null})",
        R"({"projects":[]})", R"({"projects":{"selected":true,"title":"a"}})",
        R"({"projects":[{"selected":true,"title":"a"}],"projects":[]})",
        R"({"project":[{"selected":true,"title":"a"}]})", R"({"Projects":[{"selected":true,"title":"a"}]})",
        "<html>502</html>", R"({"projects":[{"selected":true,"title":"a"}])",
        R"({"projects":[{"selected":true,"title":"a"}]} {})",
        R"({"projects":[{"selected":True,"title":"a"}]})",
        "{\"projects\":[{\"selected\":true,\"title\":\"a\n\"}]}",
        "{\"projects\":[{\"selected\":true,\"title\":\"a\"}],\"x\":\"\xFF\"}",
        "{\"projects\":[{\"selected\":true,\"title\":\"\xED\xA0\x80\"}]}",
        R"({"projects":[{"selected":true,"title":"\ud83d"}]})"}) {
    EXPECT_EQ(selectedSession(answer), placeholders) << answer;
  }
}

TEST(SelectedSession, LoneSurrogateMattersOnlyInShownTexts) {
  const std::pair<const char*, Session> cases[] = {
      {R"([{"title":"\udcff"},{"selected":true,"title":"a","path":"\uD83D x"}])", {"a", "a"}},
      {R"([{"selected":true,"title":"a","\udcff":1,"x":"\ud83d\ud83d"}])", {"a", "a"}},
      {R"([{"selected":true,"title":"\ud83d\ude00","x":"\ude00\ud83d"}])", {"😀", "😀"}},
      {R"([{"selected":true,"title":"\\ud83d","thread_name":"\\\\udcff"}])", {"\\ud83d", "\\\\udcff"}},
      {R"([{"selected":true,"title":"a","thread_name":"x\udcff"}])", placeholders},
      {R"([{"selected":true,"title":"\ud83dx","thread_name":"b"}])", placeholders},
      {R"([{"selected":true,"title":"\ud83d\u0041"}])", placeholders},
  };
  for (const auto& [projects, session] : cases) EXPECT_EQ(ofProjects(projects), session) << projects;
  for (const char* const damaged : {R"({"projects":[{"selected":true,"title":"a"}],"x":"\ud83)",
                                    R"({"projects":[{"selected":true,"title":"a\u12g4"}]})",
                                    R"({"projects":[{"selected":true,"title":"a"}]\ud83d})",
                                    R"({"projects":[{"selected":true,"title":"a"}]}\)"}) {
    EXPECT_EQ(selectedSession(damaged), placeholders) << damaged;
  }
}

TEST(SelectedSession, FirstSelectedProjectCounts) {
  const std::pair<const char*, Session> cases[] = {
      {R"([{"title":"a"},{"selected":true,"title":"b"}])", {"b", "b"}},
      {R"([{"selected":false,"title":"a"},{"selected":true,"title":"b"},{"selected":true,"title":"c"}])",
       {"b", "b"}},
      {R"([{"selected":true},{"selected":true,"title":"c","thread_name":"d"}])", placeholders},
      {R"([{"title":"a","thread_name":"b"}])", placeholders},
      {R"([{"Selected":true,"title":"a"}])", placeholders},
      {"[{}]", placeholders},
      {R"([{"selected":true,"title":"a"}])", {"a", "a"}},
      {R"([{"selected":true,"thread_name":"b"}])", {"目前專案", "b"}},
      {R"([{"selected":true}])", placeholders},
      {R"([{"selected":false,"selected":true,"title":"a","title":"b"}])", {"b", "b"}},
      {R"([{"selected":true,"selected":false,"title":"a"}])", placeholders},
      {"\n\t [ {\"selected\" :true,\"title\":\"a\"} ]\r\n", {"a", "a"}},
  };
  for (const auto& [projects, session] : cases) EXPECT_EQ(ofProjects(projects), session) << projects;
}

TEST(SelectedSession, SelectedFollowsTheTruthValuesOfPython) {
  for (const char* const yes : {"true", "1", "-1", "0.5", "18446744073709551616", "\"x\"", "\" \"",
                                "\"false\"", "[0]", "[null]", "{\"a\":0}"}) {
    EXPECT_EQ(ofProjects(std::string(R"([{"title":"a","selected":)") + yes + "}]"), (Session{"a", "a"}))
        << yes;
  }
  for (const char* const no : {"false", "null", "0", "-0", "0.0", "-0.0", "0e9", "\"\"", "[]", "{}"}) {
    EXPECT_EQ(ofProjects(std::string(R"([{"title":"a","selected":)") + no + "}]"), placeholders) << no;
  }
}

TEST(SelectedSession, IgnoresNamesThatAreNotStrings) {
  const std::tuple<const char*, const char*, Session> cases[] = {
      {R"("a")", R"("b")", {"a", "b"}},
      {R"("a")", "null", {"a", "a"}},
      {R"("a")", R"("")", {"a", "a"}},
      {R"("a")", "false", {"a", "a"}},
      {R"("a")", "0.0", {"a", "a"}},
      {R"("a")", "{}", {"a", "a"}},
      {R"("a")", "true", {"a", "尚未取得"}},
      {R"("a")", R"({"name":"b"})", {"a", "尚未取得"}},
      {"null", R"("b")", {"目前專案", "b"}},
      {R"("")", R"("b")", {"目前專案", "b"}},
      {"7", R"("b")", {"目前專案", "b"}},
      {"7", "null", placeholders},
      {R"("")", R"("")", placeholders},
      {R"(" a ")", R"(" ")", {" a ", " "}},
      {R"("\u5c08\u6848")", R"("\ud83d\ude00")", {"專案", "😀"}},
      {R"("專案")", R"("a\nb")", {"專案", "a\nb"}},
  };
  for (const auto& [title, threadName, session] : cases) {
    EXPECT_EQ(ofProjects(std::string(R"([{"selected":true,"title":)") + title +
                         ",\"thread_name\":" + threadName + "}]"),
              session)
        << title << " " << threadName;
  }
}

TEST(SelectedSession, ItemBeforeTheSelectedOneMustBeAnObject) {
  for (const char* const item : {"null", "true", "7", "\"x\"", "[]", "[{\"selected\":true}]"}) {
    const std::string selected = R"({"selected":true,"title":"a"})";
    EXPECT_EQ(ofProjects("[" + std::string(item) + "," + selected + "]"), placeholders) << item;
    EXPECT_EQ(ofProjects("[" + selected + "," + item + "]"), (Session{"a", "a"})) << item;
  }
}

TEST(SelectedSession, DeeplyNestedAnswerGivesPlaceholders) {
  const auto nested = [](int depth) {
    return R"([{"selected":true,"title":"a","x":)" + repeated("[", depth) + repeated("]", depth) + "}]";
  };
  EXPECT_EQ(ofProjects(nested(900)), (Session{"a", "a"}));
  EXPECT_EQ(ofProjects(nested(1100)), placeholders);
  EXPECT_EQ(ofProjects(nested(100000)), placeholders);
  EXPECT_EQ(ofProjects(R"([{"selected":true,"title":"a","x":)" + repeated(R"({"x":)", 100000) + "1" +
                       repeated("}", 100000) + "}]"),
            placeholders);
  EXPECT_EQ(selectedSession(repeated("[", 100000)), placeholders);
}

}  // namespace
}  // namespace kestrune::testing
