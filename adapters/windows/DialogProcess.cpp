#include "adapters/windows/DialogProcess.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

#include "adapters/children/Spawn.h"
#include "adapters/system/Errors.h"

namespace kestrune {

namespace {

constexpr std::size_t requestLimit = std::size_t{256}
                                     << 20;               // bytes; fits the largest command output as JSON
constexpr std::size_t lineLimit = std::size_t{16} << 20;  // bytes

}  // namespace

DialogProcess::DialogProcess(EventLoop& givenLoop, OnEvent givenOnEvent, OnEnd givenOnEnd)
    : loop(givenLoop), onEvent(std::move(givenOnEvent)), onEnd(std::move(givenOnEnd)) {}

DialogProcess::~DialogProcess() {
  *alive = false;
}

std::optional<std::string> DialogProcess::start(const std::string& path) {
  int in[2];
  int out[2];
  if (pipe2(in, O_CLOEXEC) != 0) return describe(errno);
  const FileDescriptor childInput(in[0]);
  FileDescriptor ownInput(in[1]);
  if (pipe2(out, O_CLOEXEC) != 0) return describe(errno);
  FileDescriptor ownOutput(out[0]);
  const FileDescriptor childOutput(out[1]);
  fcntl(ownInput.get(), F_SETFL, O_NONBLOCK);
  fcntl(ownOutput.get(), F_SETFL, O_NONBLOCK);
  if (const int failure =
          spawn({.executable = path, .arguments = {}, .input = childInput.get(), .output = childOutput.get()},
                pid)) {
    return describe(failure);
  }
  loop.reap(pid);
  input = std::make_unique<DescriptorWriter>(loop, std::move(ownInput), requestLimit);
  output = std::move(ownOutput);
  readable = loop.onDescriptor(output.get(), EPOLLIN, [this] { readSome(); });
  return std::nullopt;
}

void DialogProcess::send(const dialogs::Request& request) {
  if (input) input->write(dialogs::encode(request) + "\n");
}

void DialogProcess::kill() {
  loop.signalChild(pid, SIGKILL);
}

void DialogProcess::readSome() {
  char buffer[65536];
  const ssize_t count = read(output.get(), buffer, sizeof buffer);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count <= 0) return finish(std::nullopt);
  // The old part has no line end.
  std::size_t unsearched = begun.size();
  begun.append(buffer, static_cast<std::size_t>(count));
  const auto stillAlive = alive;
  for (std::size_t end; (end = begun.find('\n', unsearched)) != std::string::npos;) {
    const auto event = dialogs::decodeEvent(begun.substr(0, end));
    begun.erase(0, end + 1);
    unsearched = 0;
    if (const auto* const problem = std::get_if<std::string>(&event))
      return finish("it answered: " + *problem);
    const auto& understood = std::get<dialogs::Event>(event);
    if (const auto* const refused = std::get_if<dialogs::Refused>(&understood))
      return finish(refused->reason);
    const auto handler = onEvent;
    handler(understood);
    if (!*stillAlive) return;
  }
  if (begun.size() > lineLimit) finish("it answered without end");
}

void DialogProcess::finish(const std::optional<std::string>& problem) {
  // A program that breaks the protocol may not end when its standard input is closed.
  kill();
  readable.reset();
  input.reset();
  const auto handler = std::exchange(onEnd, nullptr);
  if (handler) handler(problem);
}

}  // namespace kestrune
