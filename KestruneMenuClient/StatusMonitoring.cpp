#include <algorithm>
#include <array>
#include <charconv>
#include <nlohmann/json.hpp>
#include <utility>

#include "KestruneMenuClient/AppDelegate.h"
#include "KestruneMenuClient/EnvKeys.h"
#include "KestruneMenuClient/Text.h"

namespace kestrune {

using nlohmann::json;

namespace {

constexpr Seconds refreshInterval{20.0};
constexpr Seconds settlingTime{1.2};
constexpr Seconds liveSessionInterval{45.0};
constexpr auto disabledStatus = "已停用，不會啟動背景服務";
constexpr auto networkChangedTitle = "Kestrune 網路已變更";
constexpr std::size_t diagnosticDetailLimit = 44;
constexpr std::size_t threadNameLimit = 34;
constexpr int answerDepthLimit = 990;

constexpr std::string_view okMarker = "[OK]";
constexpr std::string_view failMarker = "[FAIL]";
constexpr std::array<std::string_view, 3> faultMarkers{"無回應", "未載入", failMarker};

constexpr std::string_view codexVersionLabel = "Codex CLI";
constexpr std::string_view codexRemoteControlLabel = "Codex Remote Control";
constexpr std::string_view codexAppLabel = "Codex App";
constexpr std::string_view chatGPTRemoteLabel = "ChatGPT Remote Ready";
constexpr std::array reservedLabels{codexVersionLabel, codexRemoteControlLabel, codexAppLabel,
                                    chatGPTRemoteLabel};

template <std::size_t N>
bool containsAny(std::string_view text, const std::array<std::string_view, N>& needles) {
  return std::any_of(needles.begin(), needles.end(),
                     [text](std::string_view needle) { return text.find(needle) != std::string_view::npos; });
}

/// What stands in `line` behind `marker`, a blank, `label`, a colon and a blank; absent when it begins
/// otherwise.
std::optional<std::string_view> detailAfter(std::string_view line, std::string_view marker,
                                            std::string_view label) {
  for (const std::string_view piece : {marker, std::string_view(" "), label, std::string_view(": ")}) {
    if (!line.starts_with(piece)) return std::nullopt;
    line.remove_prefix(piece.size());
  }
  return line;
}

/// The status in one line: the lamp's word when the command succeeded, otherwise what the command said first.
std::string statusTextFor(const CommandResult& result, ConnectionLampState lamp) {
  if (result.ok) return std::string(menuLabel(lamp));
  std::string_view firstLine;
  return LineSplitter(result.output).next(firstLine) ? std::string(firstLine) : "狀態未知";
}

/// What the menu shows of the current session; the placeholders until more is known.
struct LiveSession {
  std::string projectTitle = "目前專案";
  std::string threadName = "尚未取得";
};

/// Whether the service means yes: it is written in a language in which more than "true" does.
bool isTruthy(const json& value) {
  switch (value.type()) {
    case json::value_t::null:
      return false;
    case json::value_t::boolean:
      return value.get<bool>();
    case json::value_t::number_integer:
    case json::value_t::number_unsigned:
    case json::value_t::number_float:
      return value.get<double>() != 0;
    case json::value_t::string:
      return !value.get_ref<const std::string&>().empty();
    default:
      return !value.empty();
  }
}

/// The member `name`, or null.
const json& member(const json& object, const char* name) {
  static const json null;
  const auto found = object.find(name);
  return found != object.end() ? *found : null;
}

/// The unit of UTF-16 that `text` begins with, escaped.
std::optional<unsigned> escapedUnit(std::string_view text) {
  constexpr std::size_t length = 6;
  unsigned unit = 0;
  if (text.size() < length || !text.starts_with("\\u")) return std::nullopt;
  const auto read = std::from_chars(text.data() + 2, text.data() + length, unit, 16);
  if (read.ec != std::errc() || read.ptr != text.data() + length) return std::nullopt;
  return unit;
}

/// Stands for half a character, of which no text can be made: U+FDD0, which is no character at all.
constexpr std::string_view halfCharacter = "\xEF\xB7\x90";

/// The name of a folder need not be text, and the service sends such a one with halves of characters in it.
/// The library would take the whole answer for damaged.
std::string withoutHalfCharacters(std::string_view answer) {
  const auto isHigh = [](std::optional<unsigned> unit) { return unit && *unit >> 10 == 0xD800 >> 10; };
  const auto isLow = [](std::optional<unsigned> unit) { return unit && *unit >> 10 == 0xDC00 >> 10; };
  std::string whole;
  whole.reserve(answer.size());
  while (!answer.empty()) {
    const auto plain = std::min(answer.find('\\'), answer.size());
    const std::string_view escape = answer.substr(plain);
    const auto unit = escapedUnit(escape);
    const bool pair = isHigh(unit) && isLow(escapedUnit(escape.substr(6)));
    const bool half = !pair && (isHigh(unit) || isLow(unit));
    const auto length = std::min<std::size_t>(escape.size(), pair ? 12 : unit ? 6 : 2);
    whole += answer.substr(0, plain);
    whole += half ? halfCharacter : escape.substr(0, length);
    answer = escape.substr(length);
  }
  return whole;
}

/// Reads the service's answer: the first project that is selected counts, and lends its title to a thread
/// without a name.
LiveSession selectedSession(const std::optional<std::string>& answer) {
  LiveSession session;
  if (!answer) return session;
  // No service means what is nested this deeply, and the backend's own readers give up on it as well.
  bool tooDeep = false;
  const auto watchDepth = [&tooDeep](int depth, json::parse_event_t, const json&) {
    tooDeep = tooDeep || depth > answerDepthLimit;
    return !tooDeep;
  };
  const json root = json::parse(withoutHalfCharacters(*answer), watchDepth, false);
  if (tooDeep || !root.is_object()) return session;
  const json& projects = member(root, "projects");
  if (!projects.is_array()) return session;
  for (const json& project : projects) {
    // A list that holds something else is not what the service promised: nothing in it is believed.
    if (!project.is_object()) return session;
    if (!isTruthy(member(project, "selected"))) continue;
    bool canBeShown = true;
    const auto take = [&canBeShown](const json& value, std::string& into) {
      if (!value.is_string() || !isTruthy(value)) return;
      into = value.get<std::string>();
      canBeShown = canBeShown && into.find(halfCharacter) == std::string::npos;
    };
    const json& title = member(project, "title");
    const json& threadName = member(project, "thread_name");
    take(title, session.projectTitle);
    take(isTruthy(threadName) ? threadName : title, session.threadName);
    return canBeShown ? session : LiveSession();
  }
  return session;
}

const char* describe(const NetworkPath& path) {
  if (!path.satisfied) return "網路未連線";
  if (path.usesWiFi) return "Wi-Fi 已連線";
  if (path.usesWiredEthernet) return "有線網路已連線";
  if (path.usesCellular) return "行動網路已連線";
  return "網路已連線";
}

}  // namespace

// --- report interpretation

ConnectionLampState AppDelegate::inferLampState(const CommandResult& result) {
  LineSplitter lines(result.output);
  for (std::string_view line; lines.next(line);) {
    if (containsAny(line, faultMarkers) && !containsAny(line, reservedLabels))
      return ConnectionLampState::error;
  }
  return result.ok ? ConnectionLampState::ok : ConnectionLampState::warning;
}

std::string AppDelegate::prettifyOutput(std::string_view output) {
  return replacingAll(replacingAll(output, okMarker, "🟢"), failMarker, "🔴");
}

std::optional<std::string> AppDelegate::diagnosticDetail(std::string_view output, std::string_view label) {
  LineSplitter lines(output);
  for (std::string_view line; lines.next(line);) {
    line = trimmed(line);
    if (const auto detail = detailAfter(line, okMarker, label))
      return "OK " + compactDiagnosticDetail(*detail);
    if (const auto detail = detailAfter(line, failMarker, label)) {
      return "需檢查 " + compactDiagnosticDetail(*detail);
    }
  }
  return std::nullopt;
}

std::string AppDelegate::compactDiagnosticDetail(std::string_view detail) {
  detail = trimmed(detail);
  if (const auto explanation = detail.find("（"); explanation != std::string_view::npos) {
    detail = trimmed(detail.substr(0, explanation));
  }
  return shortened(detail, diagnosticDetailLimit);
}

void AppDelegate::updateCodexRuntimeSummaries(std::string_view output) {
  reportedAt = platform.clock.calendarTime();
  struct Row {
    std::string AppDelegate::*summary;
    std::string_view label;
    std::string prefix;
  };
  const Row rows[] = {
      {&AppDelegate::codexVersionSummary, codexVersionLabel, "Codex："},
      {&AppDelegate::codexRemoteControlSummary, codexRemoteControlLabel, "Remote Control："},
      {&AppDelegate::codexAppSummary, codexAppLabel, "Codex App："},
      {&AppDelegate::chatGPTRemoteSummary, chatGPTRemoteLabel, "ChatGPT Remote："},
  };
  for (const Row& row : rows) {
    this->*row.summary = row.prefix + diagnosticDetail(output, row.label).value_or("尚未檢查");
  }
}

// --- refresh cycle

void AppDelegate::refreshStatus(bool triggerNotification) {
  if (statusRefreshInProgress) return;
  statusRefreshInProgress = true;
  queryStatus([self = shared_from_this(), triggerNotification](const StatusReport& report) {
    self->statusQueryDidFinish(report, triggerNotification);
  });
}

void AppDelegate::queryStatus(std::function<void(const StatusReport&)> then) {
  workerQueue->async([self = shared_from_this(), then = std::move(then)] {
    CommandResult result = self->runShellCommand(self->backendCommandLine("status"));
    const ConnectionLampState lamp = inferLampState(result);
    std::string text = statusTextFor(result, lamp);
    // The output may be large, and is not copied on its way.
    self->platform.dispatch.mainQueue().async(
        [then, report = StatusReport{std::move(result), lamp, std::move(text)}] { then(report); });
  });
}

void AppDelegate::statusQueryDidFinish(const StatusReport& report, bool triggerNotification) {
  updateCodexRuntimeSummaries(report.result.output);
  if (report.result.ok) {
    syncSleepAssertionWithSettings();
  } else {
    releaseSleepAssertion();
  }
  refreshLiveSessionSnapshot(
      [self = shared_from_this(), statusText = report.text, lamp = report.lamp, triggerNotification] {
        self->reconnectInProgress = false;
        self->statusRefreshInProgress = false;
        self->rebuildMenu(statusText, lamp, 0);
        self->updateButton(lamp, "Kestrune");
        if (triggerNotification) {
          self->showNotification(networkChangedTitle, "偵測到網路切換，已重新檢查本地服務與隧道狀態。");
        }
      });
}

void AppDelegate::presentAutoConnectDisabledState() {
  releaseSleepAssertion();
  forgetSession();
  rebuildMenu(disabledStatus, ConnectionLampState::warning, 0);
  updateButton(ConnectionLampState::warning, "Kestrune");
}

void AppDelegate::forgetSession() {
  currentProjectTitle = "未同步";
  currentThreadName = "尚未啟動";
}

StatusSnapshot AppDelegate::snapshot(const std::string& statusText, ConnectionLampState state) const {
  return {.lamp = state,
          .status = statusText,
          .connectionMode = connectionModeLabel(),
          .codexVersion = codexVersionSummary,
          .codexRemoteControl = codexRemoteControlSummary,
          .codexApp = codexAppSummary,
          .chatGPTRemote = chatGPTRemoteSummary,
          .project = currentProjectTitle,
          .thread = currentThreadName,
          .network = lastPathDescription,
          .keepsAwake = sleepAssertionActive,
          .autoConnect = isAutoConnectEnabled(),
          .reconnecting = reconnectInProgress,
          .checkedAt = reportedAt};
}

void AppDelegate::startPeriodicRefresh() {
  if (refreshTimer) refreshTimer->invalidate();
  refreshTimer = platform.timers.scheduleRepeating(refreshInterval, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->periodicRefreshDidTick();
  });
}

void AppDelegate::periodicRefreshDidTick() {
  if (reconnectInProgress) return;
  if (isAutoConnectEnabled()) {
    refreshStatus(false);
  } else {
    presentAutoConnectDisabledState();
  }
}

void AppDelegate::refreshNow() {
  setAutoConnectEnabled(true);
  reconnectServices(true);
}

// --- network changes

void AppDelegate::startMonitoringNetwork() {
  pathMonitor->start(*monitorQueue, [weak = weak_from_this()](const NetworkPath& path) {
    if (const auto self = weak.lock()) self->pathDidUpdate(path);
  });
}

void AppDelegate::pathDidUpdate(const NetworkPath& path) {
  const std::string description = describe(path);
  const bool changed = description != lastPathDescription;
  lastPathDescription = description;
  platform.dispatch.mainQueue().async(
      [self = shared_from_this(), changed] { self->actOnPathUpdate(changed); });
}

void AppDelegate::actOnPathUpdate(bool changed) {
  if (isAutoConnectEnabled()) {
    if (changed) {
      reconnectServices(false);
      showNotification(networkChangedTitle, "已自動嘗試重新連接本地服務與反向隧道。");
    } else if (!reconnectInProgress) {
      refreshStatus(false);
    }
  } else {
    presentAutoConnectDisabledState();
    if (changed) {
      showNotification(networkChangedTitle, "目前已停用自動重連；需要時請手動點選「立即重新檢查連線」。");
    }
  }
}

void AppDelegate::reconnectServices(bool showWindow, const std::string& title,
                                    const std::optional<std::string>& extraContent) {
  MainQueue& mainQueue = platform.dispatch.mainQueue();
  mainQueue.async([self = shared_from_this()] {
    self->reconnectInProgress = true;
    self->syncSleepAssertionWithSettings();
    self->rebuildMenu("正在重新連線…", ConnectionLampState::warning, 0);
    self->updateButton(ConnectionLampState::warning, "Kestrune");
  });
  workerQueue->async([self = shared_from_this(), &mainQueue, showWindow, title, extraContent] {
    CommandResult outcome = self->runShellCommand(self->backendCommandLine("refresh"));
    mainQueue.async([=, &mainQueue, result = std::move(outcome)]() mutable {
      // The services that were just started need a moment before their status says anything.
      mainQueue.asyncAfter(settlingTime, [=, result = std::move(result)] {
        self->refreshStatus(false);
        if (!showWindow) return;
        std::string content = prettifyOutput(result.output);
        if (extraContent && !extraContent->empty()) content += "\n\n" + *extraContent;
        self->showResultWindow(title, content, !result.ok);
      });
    });
  });
}

// --- status without a start

void AppDelegate::checkStatus(std::function<void(const StatusSnapshot&)> completion) {
  if (networkIsWatched) return checkBackend(completion);
  networkIsWatched = true;
  // Shared, because each call may be that of a copy.
  const auto first = std::make_shared<bool>(true);
  pathMonitor->start(*monitorQueue, [weak = weak_from_this(), completion = std::move(completion),
                                     first](const NetworkPath& path) {
    const auto self = weak.lock();
    if (!self) return;
    self->lastPathDescription = describe(path);
    if (std::exchange(*first, false)) self->checkBackend(completion);
  });
}

void AppDelegate::checkBackend(std::function<void(const StatusSnapshot&)> completion) {
  if (!isAutoConnectEnabled()) {
    forgetSession();
    return completion(snapshot(disabledStatus, ConnectionLampState::warning));
  }
  queryStatus([self = shared_from_this(), completion = std::move(completion)](const StatusReport& report) {
    self->updateCodexRuntimeSummaries(report.result.output);
    self->refreshLiveSessionSnapshot([self, completion, text = report.text, lamp = report.lamp] {
      completion(self->snapshot(text, lamp));
    });
  });
}

void AppDelegate::abandonCheck() {
  pathMonitor->cancel();
  workerQueue->close();
  platform.processes.reserveForThisThread();
}

// --- live snapshot

void AppDelegate::refreshLiveSessionSnapshot(const Job& completion) {
  const auto finish = [&completion] {
    if (completion) completion();
  };
  if (liveSessionRefreshInProgress) return finish();
  if (lastLiveSessionRefreshAt &&
      platform.clock.continuousTime() - *lastLiveSessionRefreshAt < liveSessionInterval) {
    return finish();
  }
  const auto token = loadEnvValue(env::macServiceToken, env::legacyMacServiceToken);
  if (!token) {
    currentProjectTitle = "未配置";
    currentThreadName = "未配置";
    return finish();
  }
  liveSessionRefreshInProgress = true;
  workerQueue->async([self = shared_from_this(), token = *token, completion] {
    const LiveSession session = selectedSession(self->platform.localService.getProjects(token));
    self->platform.dispatch.mainQueue().async([self, session, completion] {
      self->liveSessionRefreshInProgress = false;
      self->lastLiveSessionRefreshAt = self->platform.clock.continuousTime();
      self->currentProjectTitle = session.projectTitle;
      self->currentThreadName = session.threadName;
      if (completion) completion();
    });
  });
}

std::string AppDelegate::compactThreadName(std::string_view name) {
  return shortened(trimmed(name), threadNameLimit);
}

}  // namespace kestrune
