#include <nlohmann/json.hpp>
#include <variant>

#include "adapters/windows/protocol/DialogProtocol.h"
#include "fuzz/Fuzz.h"
#include "text/Text.h"

// Fuzzes the messages between the client and KestruneMenuDialogs. The input is decoded as a line that
// KestruneMenuDialogs sends. If the input does not begin with "{", the first 64 bytes of the input are also
// used as the texts of messages in both directions. These messages are encoded and decoded.

namespace {

using namespace kestrune;
using namespace kestrune::dialogs;
using fuzz::require;
using nlohmann::json;

/// Decodes `line`. If `line` is a message, encodes the message again, and checks that the new line contains
/// the same JSON as `line`.
template <typename Message>
void echo(const std::string& line) {
  const auto decoded = decode<Message>(line);
  const auto* const message = std::get_if<Message>(&decoded);
  if (message == nullptr) {
    require(!std::get<std::string>(decoded).empty(), "a refused line has a reason");
    return;
  }
  const std::string again = encode(*message);
  require(again.find('\n') == std::string::npos && isValidUtf8(again), "a message is one line of UTF-8");
  require(json::parse(again) == json::parse(line), "a message says what its line said");
}

/// Encodes messages that contain `text`. Checks that the receiver understands these messages.
void carry(const std::string& text) {
  View view{
      .kind = ViewKind::textField, .identifier = text, .text = text, .placeholder = text, .action = text};
  Alert alert{.messageText = text, .informativeText = text, .buttons = {text, text}, .accessoryView = view};
  const Menu menu{{{.id = 1, .title = text, .action = text, .keyEquivalent = text}}};
  for (const Request& request : {Request(ShowAlert{1, alert}), Request(ShowMenu{menu})}) {
    const std::string line = encode(request);
    require(std::holds_alternative<Request>(decode<Request>(line)), "a request with any text is understood");
    echo<Request>(line);
  }
  for (const Event& event :
       {Event(Pressed{1, text}), Event(Answered{1, {0, {{text, text}}}}), Event(Refused{text})}) {
    const std::string line = encode(event);
    require(std::holds_alternative<Event>(decode<Event>(line)), "an event with any text is understood");
    echo<Event>(line);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string line(fuzz::Input(data, size).rest());
  echo<Event>(line);
  if (!line.starts_with('{')) carry(line.substr(0, 64));
  return 0;
}
