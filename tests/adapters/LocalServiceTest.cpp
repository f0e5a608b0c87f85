#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <thread>

#include "adapters/children/CurlLocalService.h"
#include "adapters/loop/EventLoop.h"
#include "tests/rig/ComesTrue.h"
#include "tests/rig/ForkedProgram.h"
#include "tests/rig/NetworkNamespace.h"
#include "tests/rig/RefusedCall.h"
#include "tests/rig/ScopedVariable.h"
#include "tests/rig/ScratchFolder.h"
#include "tests/rig/VirtualTime.h"

namespace kestrune::testing {
namespace {

namespace fs = std::filesystem;

std::string httpAnswer(const std::string& body, const std::string& status = "200 OK",
                       const std::string& more = "") {
  return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + more +
         "Connection: close\r\n\r\n" + body;
}

/// A fake of the backend's local service. Listens on the service's port, on a thread of its own, and answers
/// every request with the same bytes.
class LocalServiceStandIn {
 public:
  /// If `givenAnswer` is empty, never answers. The thread calls `givenWhileAsked` before it answers.
  LocalServiceStandIn(std::string givenAnswer, std::function<void()> givenWhileAsked)
      : answer(std::move(givenAnswer)), whileAsked(std::move(givenWhileAsked)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(8765);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int yes = 1;
    setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    if (bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener.get(), 1) != 0) {
      throw std::runtime_error("cannot listen on port 8765");
    }
    server = std::thread([this] { serve(); });
  }
  ~LocalServiceStandIn() {
    shutdown(listener.get(), SHUT_RDWR);  // makes accept4 fail, which ends the thread
    server.join();
  }
  LocalServiceStandIn(const LocalServiceStandIn&) = delete;
  LocalServiceStandIn& operator=(const LocalServiceStandIn&) = delete;

  /// Returns the head (request line and headers) of each request so far, including the line ends.
  std::vector<std::string> requests() const {
    const std::lock_guard lock(mutex);
    return heads;
  }

 private:
  void serve() {
    std::vector<FileDescriptor> kept;
    for (;;) {
      FileDescriptor caller(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!caller) return;
      std::string head;
      char buffer[4096];
      while (head.find("\r\n\r\n") == std::string::npos) {
        const ssize_t count = read(caller.get(), buffer, sizeof buffer);
        if (count <= 0) break;
        head.append(buffer, static_cast<std::size_t>(count));
      }
      {
        const std::lock_guard lock(mutex);
        heads.push_back(head);
      }
      if (whileAsked) whileAsked();
      if (!answer.empty()) {
        send(caller.get(), answer.data(), answer.size(), MSG_NOSIGNAL);
      } else {
        kept.push_back(std::move(caller));
      }
    }
  }

  const std::string answer;
  const std::function<void()> whileAsked;
  const FileDescriptor listener{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  mutable std::mutex mutex;
  std::vector<std::string> heads;  // guarded by mutex
  std::thread server;
};

struct LocalServiceTest : ::testing::Test {
  LocalServiceTest() { network.ip({"link set lo up"}); }

  void answerWith(const std::string& bytes, std::function<void()> whileAsked = {}) {
    server = std::make_unique<LocalServiceStandIn>(bytes, std::move(whileAsked));
  }
  std::optional<std::string> ask(const std::string& token = "token", Seconds limit = patience) {
    return CurlLocalService(children, clock, limit).getProjects(token);
  }
  /// Returns the only request that the server has received, with LF line ends.
  std::string request() const {
    const auto requests = server->requests();
    EXPECT_EQ(requests.size(), 1U);
    std::string text = requests.empty() ? "" : requests.front();
    std::erase(text, '\r');
    return text;
  }

  NetworkNamespace network;
  ChildProcesses children;
  SystemClock clock;
  std::unique_ptr<LocalServiceStandIn> server;
};

TEST_F(LocalServiceTest, AsksForTheProjectsWithTheToken) {
  answerWith(httpAnswer("{\"projects\": []}"));
  EXPECT_EQ(ask("abc"), "{\"projects\": []}");
  EXPECT_TRUE(request().starts_with("GET /desktop/projects HTTP/1.1\nHost: 127.0.0.1:8765\n")) << request();
  EXPECT_NE(request().find("\nAuthorization: Bearer abc\n"), std::string::npos) << request();
}

TEST_F(LocalServiceTest, ReturnsTheBodyWhateverTheStatus) {
  const auto expect = [this](const std::optional<std::string>& answer, const std::string& bytes) {
    server.reset();
    answerWith(bytes);
    EXPECT_EQ(ask(), answer) << bytes;
    EXPECT_EQ(server->requests().size(), 1U);
  };
  expect("sorry", httpAnswer("sorry", "401 Unauthorized"));
  expect("sorry", httpAnswer("sorry", "500 Internal Server Error"));
  expect("elsewhere", httpAnswer("elsewhere", "302 Found", "Location: http://127.0.0.1:8765/other\r\n"));
  const std::string bytes("\0\xFF\r\n \xE5", 6);
  expect(bytes, httpAnswer(bytes));
  expect("", httpAnswer(""));
  const std::string whole = httpAnswer("{\"projects\": []}");
  expect(std::nullopt, whole.substr(0, whole.size() - 3));
  expect(std::nullopt, "SSH-2.0-other\r\n");
  server.reset();
  EXPECT_EQ(ask(), std::nullopt) << "nobody listens";
}

TEST_F(LocalServiceTest, SlowServiceHasNoAnswer) {
  answerWith("");
  const Seconds begin = clock.awakeTime();
  EXPECT_EQ(ask("token", Seconds{0.2}), std::nullopt);
  EXPECT_GE((clock.awakeTime() - begin).count(), 0.2);
  EXPECT_LT(clock.awakeTime() - begin, patience);
}

TEST_F(LocalServiceTest, LongAnswerIsCut) {
  constexpr std::size_t kept = std::size_t{16} << 20;
  answerWith(httpAnswer(std::string(kept + 100'000, 'x')));
  const auto answer = ask();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->size(), kept);
}

TEST_F(LocalServiceTest, TokenIsSentUnchanged) {
  for (const auto& token : std::vector<std::string>{"with \"quotes\" and 'these'", "back\\slash\\n", "a  b",
                                                    "$(id) `id` %41 @file", "密鑰 🔑", "-H x", "a:b;c,d",
                                                    std::string(60'000, 't')}) {
    server.reset();
    answerWith(httpAnswer("."));
    EXPECT_EQ(ask(token), ".") << token;
    EXPECT_NE(request().find("\nAuthorization: Bearer " + token + "\n"), std::string::npos) << request();
  }
}

TEST_F(LocalServiceTest, EmptyTokenIsSent) {
  answerWith(httpAnswer("."));
  EXPECT_EQ(ask(""), ".");
  EXPECT_NE(request().find("\nAuthorization: Bearer"), std::string::npos) << request();
}

TEST_F(LocalServiceTest, TokenWithControlCharactersIsRefused) {
  answerWith(httpAnswer("."));
  for (const std::string token : {"a\nX-Other: b", "a\rb", "a\tb", "\x1B[31m", "\x7F"}) {
    EXPECT_EQ(ask(token), std::nullopt);
  }
  EXPECT_EQ(ask(std::string("a\0b", 3)), std::nullopt);
  EXPECT_TRUE(server->requests().empty());
}

TEST_F(LocalServiceTest, TokenIsInNoCommandLineOrEnvironment) {
  const std::string token = "s3cret-of-a-user";
  int processes = 0;
  std::string places;
  answerWith(httpAnswer("."), [&] {
    for (const auto& process : fs::directory_iterator("/proc")) {
      if (!std::isdigit(static_cast<unsigned char>(process.path().filename().string()[0]))) continue;
      for (const char* const name : {"cmdline", "environ"}) {
        const std::string text = contentsOf(process.path() / name);
        if (text.find("/desktop/projects") != std::string::npos) ++processes;
        if (text.find(token) != std::string::npos) places += (process.path() / name).string() + " ";
      }
    }
  });
  EXPECT_EQ(ask(token), ".");
  server.reset();  // waits for the end of the server's thread, which writes `processes` and `places`
  EXPECT_GE(processes, 1);
  EXPECT_EQ(places, "");
}

TEST_F(LocalServiceTest, CurlrcAndProxiesAreIgnored) {
  const ScratchFolder home;
  std::ofstream(home.file(".curlrc")) << "header = \"X-Other: a\"\nuser-agent = \"other\"\n";
  const ScopedVariable homeVariable("HOME", home.file(""));
  const ScopedVariable curlHome("CURL_HOME", home.file(""));
  const ScopedVariable proxy("http_proxy", "http://127.0.0.1:9");
  const ScopedVariable anyProxy("ALL_PROXY", "http://127.0.0.1:9");
  answerWith(httpAnswer("."));
  EXPECT_EQ(ask(), ".");
  EXPECT_EQ(request().find("other"), std::string::npos) << request();
  EXPECT_EQ(request().find("X-Other"), std::string::npos) << request();
}

TEST_F(LocalServiceTest, MissingCurlIsReported) {
  const ScratchFolder empty;
  const ScopedVariable path("PATH", empty.file(""));
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(ask(), std::nullopt);
  EXPECT_EQ(
      ::testing::internal::GetCapturedStderr(),
      "KestruneMenuClient: cannot run curl: No such file or directory; the menu shows no project and no "
      "thread\n");
}

TEST_F(LocalServiceTest, RefusedMemfdIsReported) {
  ForkedProgram program([this](const ForkedProgram::Say& say) {
    refuseCall(SYS_memfd_create, EPERM);
    say(ask() ? "answer" : "no answer");
  });
  EXPECT_EQ(program.line(), "no answer");
  program.waitForEnd();
  EXPECT_EQ(program.standardError(),
            "KestruneMenuClient: cannot create a memfd for curl: Operation not permitted; the menu shows no "
            "project and no thread\n");
}

TEST_F(LocalServiceTest, NothingIsAskedOnceLaunchesAreReserved) {
  answerWith(httpAnswer("."));
  std::thread([this] { children.reserveForThisThread(); }).join();
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(ask(), std::nullopt);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  EXPECT_TRUE(server->requests().empty());
}

/// Replaces curl by a shell script.
struct CurlScript {
  explicit CurlScript(const std::string& lines) { put(programs.file("curl"), "#!/bin/sh\n" + lines, 0755); }

  const ScratchFolder programs;
  const ScopedVariable path{"PATH", programs.file("")};
};

TEST_F(LocalServiceTest, MaxTimeHasThreeDecimals) {
  // curl 8.14 reads "0.200000" as 0.02 s, so the client must not pass six decimals.
  const CurlScript curl("echo \"$@\"\n");
  EXPECT_NE(ask("token", Seconds{0.2}).value_or("").find(" --max-time 0.200 "), std::string::npos);
  EXPECT_NE(ask("token", Seconds{5}).value_or("").find(" --max-time 5.000 "), std::string::npos);
}

TEST_F(LocalServiceTest, CurlThatOutlivesItsTimeLimitIsEnded) {
  const CurlScript curl("echo $$ > \"$0.pid\"; exec /bin/sleep 1000 >/dev/null 2>&1\n");
  VirtualClock virtualClock;
  const Seconds start = virtualClock.awakeTime();
  EXPECT_EQ(CurlLocalService(children, virtualClock).getProjects("token"), std::nullopt);
  EXPECT_NEAR((virtualClock.awakeTime() - start).count(), 6, 0.02);
  pid_t pid = 0;
  std::ifstream(curl.programs.file("curl.pid")) >> pid;
  ASSERT_GT(pid, 0);
  // Wait until the script has ended. ECHILD: it has been reaped already.
  EXPECT_TRUE(waitpid(pid, nullptr, 0) == pid || errno == ECHILD);
}

}  // namespace
}  // namespace kestrune::testing
