#include "adapters/windows/DialogProcess.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "adapters/children/Spawn.h"
#include "adapters/system/System.h"

namespace kestrune {

constexpr std::size_t requestLimit = std::size_t{256} << 20;
constexpr std::size_t lineLimit = std::size_t{16} << 20;  // bytes; the longest line that the program may send

void DialogProgram::report(const std::string& reason) {
  if (!hasDisplay || access(path.c_str(), F_OK) == 0)
    return reportOnce("no window from " + path + ": " + reason);
  reportOnce(
      "no windows: " + path +
      " is missing; notifications are shown instead. Install the package kestrune-menu-dialogs, or start "
      "with --terminal");
  if (std::exchange(isReportedMissing, true)) return;
  notifications.add(
      {.identifier = "no-dialogs",
       .title = "Kestrune 無法顯示視窗",
       .body = "沒有安裝套件 kestrune-menu-dialogs，內容改用通知顯示。請安裝這個套件，或在終端機執行 "
               "KestruneMenuClient --terminal。",
       .lasting = true});
}

/// Returns why the program could not be started; absent on success.
std::optional<std::string> DialogProcess::start() {
  const std::string token = std::exchange(program.token, {});
  if (!program.hasDisplay) return "there is no display";
  int in[2], out[2];
  if (pipe2(in, O_CLOEXEC) != 0) return describe(errno);
  const FileDescriptor childInput(in[0]);
  fcntl(in[1], F_SETFL, O_NONBLOCK);
  input.emplace(program.loop, FileDescriptor(in[1]), requestLimit);
  if (pipe2(out, O_CLOEXEC) != 0) return describe(errno);
  const FileDescriptor childOutput(out[1]);
  fcntl(out[0], F_SETFL, O_NONBLOCK);
  output.reset(out[0]);
  const int failure = spawn({program.path, {}, childInput.get(), childOutput.get()}, pid);
  if (failure != 0) return describe(failure);
  program.loop.reap(pid);
  readable = program.loop.onDescriptor(output.get(), EPOLLIN, [this] { readSome(); });
  if (!token.empty()) send(dialogs::Raise{token});
  return std::nullopt;
}

void DialogProcess::show(const dialogs::Request& request, int id) {
  if (!input) {
    if (const auto problem = start()) return finish(problem);
  }
  send(request);
  expected = id;
  deadline = program.loop.after(program.patience, [this] { finish("its window did not appear"); });
}

void DialogProcess::readSome() {
  char buffer[65536];
  const ssize_t count = read(output.get(), buffer, sizeof buffer);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count <= 0) {
    if (deadline) return finish("it ended before its window appeared");
    if (expected != 0) return finish("it ended without an answer");
    return finish(std::nullopt);  // a menu may end without an event: the user can close it
  }
  std::string_view bytes(buffer, static_cast<std::size_t>(count));
  // `onEvent` may destroy this object; then `stillThere` expires.
  const std::weak_ptr<bool> stillThere = alive;
  for (std::size_t end; (end = bytes.find('\n')) != bytes.npos; bytes.remove_prefix(end + 1)) {
    begun += bytes.substr(0, end);
    const auto event = dialogs::decode<dialogs::Event>(std::exchange(begun, {}));
    if (const auto* const problem = std::get_if<std::string>(&event))
      return finish("it answered: " + *problem);
    const auto& understood = std::get<dialogs::Event>(event);
    if (const auto* const refused = std::get_if<dialogs::Refused>(&understood))
      return finish(refused->reason);
    const auto* const shown = std::get_if<dialogs::Shown>(&understood);
    const auto* const answered = std::get_if<dialogs::Answered>(&understood);
    if ((shown && shown->id == expected) || (answered && answered->id == expected)) deadline.reset();
    const auto handler = onEvent;
    handler(understood);
    if (stillThere.expired()) return;
  }
  begun += bytes;
  if (begun.size() > lineLimit) finish("it answered without end");
}

}  // namespace kestrune
