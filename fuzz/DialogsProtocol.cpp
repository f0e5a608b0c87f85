#include <algorithm>
#include <nlohmann/json.hpp>
#include <variant>

#include "adapters/windows/protocol/DialogProtocol.h"
#include "fuzz/Fuzz.h"
#include "text/Text.h"

// A line between the client and its dialogs program, in both directions, or, where it begins as none does, a
// text that a line carries.

namespace {

using namespace kestrune;
using namespace kestrune::dialogs;
using fuzz::require;
using nlohmann::json;

/// Whether everything that `part` says is said by `whole`, which may say more.
bool isPartOf(const json& part, const json& whole) {
  if (part.type() != whole.type() || !part.is_structured()) return part == whole;
  if (part.size() > whole.size()) return false;
  if (part.is_array()) return std::equal(part.begin(), part.end(), whole.begin(), &isPartOf);
  for (const auto& [name, value] : part.items()) {
    if (!whole.contains(name) || !isPartOf(value, whole.at(name))) return false;
  }
  return true;
}

/// What was understood is what was said, and stays the same when it is passed on.
template <typename Message>
void echo(const std::string& line, std::variant<Message, std::string> (*decode)(const std::string&)) {
  const auto decoded = decode(line);
  const auto* const message = std::get_if<Message>(&decoded);
  if (message == nullptr) {
    require(!std::get<std::string>(decoded).empty(), "there is a reason for what is not understood");
    return;
  }
  const std::string said = encode(*message);
  require(said.find('\n') == std::string::npos && isValidUtf8(said), "a message is one line of text");
  require(isPartOf(json::parse(said), json::parse(line)), "what is understood is what was said");
  const auto again = decode(said);
  const auto* const same = std::get_if<Message>(&again);
  require(same != nullptr && encode(*same) == said, "a message that is passed on stays the same");
}

/// Text from outside may hold anything, and is understood by the other half all the same.
void carry(const std::string& text) {
  View view{
      .kind = ViewKind::textField, .identifier = text, .text = text, .placeholder = text, .action = text};
  Alert alert{.messageText = text, .informativeText = text, .buttons = {text, text}, .accessoryView = view};
  const Menu menu{{{.id = 1, .title = text, .action = text, .keyEquivalent = text}}};
  for (const Request& request : {Request(ShowAlert{1, alert}), Request(ShowMenu{menu})}) {
    const std::string line = encode(request);
    require(std::holds_alternative<Request>(decodeRequest(line)), "a request with any text is understood");
    echo(line, &decodeRequest);
  }
  for (const Event& event :
       {Event(Pressed{1, text}), Event(Answered{1, {0, {{text, text}}}}), Event(Refused{text})}) {
    const std::string line = encode(event);
    require(std::holds_alternative<Event>(decodeEvent(line)), "an event with any text is understood");
    echo(line, &decodeEvent);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string line(fuzz::Input(data, size).rest());
  echo(line, &decodeRequest);
  echo(line, &decodeEvent);
  if (!line.starts_with('{')) carry(line.substr(0, 64));
  return 0;
}
