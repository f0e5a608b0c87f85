#include <algorithm>
#include <vector>

#include "fuzz/Controller.h"
#include "fuzz/Fuzz.h"
#include "text/Text.h"

// Fuzzes reading and saving the backend's .env. The input has four pieces: the kind of the file that exists
// ("template": .env.example; anything else: .env), a key, a new value for the key, and the text of the file.

namespace {

using namespace kestrune;
using fuzz::Controller;
using fuzz::require;

/// Splits a text into lines, at each newline and at each other line separator of Unicode.
std::vector<std::string> linesOf(std::string text) {
  for (const char* const separator : {"\v", "\f", "\r", "\u0085", "\u2028", "\u2029"}) {
    text = replacingAll(text, separator, "\n");
  }
  std::vector<std::string> lines;
  for (std::size_t begin = 0; begin <= text.size();) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    lines.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return lines;
}

/// Returns the lines that do not define `key`, in order.
std::vector<std::string> otherLines(const std::vector<std::string>& lines, const std::string& key) {
  std::vector<std::string> others;
  for (const auto& line : lines) {
    if (!line.starts_with(key + "=")) others.push_back(line);
  }
  return others;
}

void checkLines(const std::vector<std::string>& before, const std::string& after, const std::string& key,
                const std::string& line) {
  const auto now = linesOf(after);
  const auto othersBefore = otherLines(before, key);
  auto others = otherLines(now, key);
  const std::size_t defining = before.size() - othersBefore.size();
  require(now.size() - others.size() == std::max<std::size_t>(defining, 1),
          "a key has as many lines as before, or one");
  for (const auto& each : now) {
    if (each.starts_with(key + "=")) require(each == line, "every line of a key is rewritten");
  }
  // When the client appends a key to a file whose last line is not empty, it first appends an empty line.
  // Ignore this empty line.
  if (defining == 0 && others.size() == othersBefore.size() + 1 && others.back().empty()) others.pop_back();
  require(others == othersBefore, "every other line is kept");
}

/// Saves `value`. Also passes the old value to `saveEnvValues`, as the settings dialog does. Checks the saved
/// file. Then saves `value` again, and checks that the file stays the same. `value` must be a single line
/// without white space at its ends.
void save(Controller& controller, const std::vector<std::string>& before, const std::string& key,
          const std::string& value) {
  const EnvValues shown{{key, controller.delegate->loadEnvValue(key).value_or("")}};
  const auto result = controller.delegate->saveEnvValues({{key, value}}, &shown);
  require(static_cast<bool>(result), "what can be written is written");
  const std::string after = controller.machine.fileManager.files.at(Controller::envFile);
  require(controller.delegate->loadEnvValue(key) == value, "what was written is read back");
  checkLines(before, after, key, key + "=" + value);

  controller.delegate->saveEnvValues({{key, value}});
  require(controller.machine.fileManager.files.at(Controller::envFile) == after,
          "the same value again changes nothing");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  Controller controller;
  const bool isTemplate = input.text() == "template";
  const std::string key(input.text());
  const std::string value(trimmed(input.text()));
  const std::string text(input.rest());
  controller.machine.fileManager.files[isTemplate ? Controller::templateFile : Controller::envFile] = text;

  const auto found = controller.delegate->loadEnvValue(key);
  require(!found || (!isTemplate && isValidUtf8(text) && trimmed(*found) == *found),
          "a value comes from a readable file, and is trimmed");
  controller.delegate->makePairingURL();

  const std::string shown = found.value_or("");
  const bool isKey = isValidUtf8(key) && key.find('=') == std::string::npos && linesOf(key).size() == 1;
  const bool isValue = isValidUtf8(value) && linesOf(value).size() == 1;
  if (isKey && isValue) {
    const bool isSeed = isValidUtf8(text);
    save(controller, isSeed ? linesOf(text) : std::vector<std::string>(), key, value);
    const auto& log = controller.machine.log;
    const bool wasKept =
        std::count(log.begin(), log.end(), std::string("keep unreadable ") + Controller::envFile) == 1;
    require(wasKept == (!isSeed && !isTemplate), "what cannot be read is kept before it is replaced");
    const auto lines = linesOf(text);
    const bool loses = std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
      if (!line.starts_with(key + "=")) return false;
      const std::string old(trimmed(std::string_view(line).substr(key.size() + 1)));
      return !old.empty() && old != shown && old != value;
    });
    const auto& files = controller.machine.fileManager.files;
    const auto previous = files.find(std::string(Controller::envFile) + ".previous");
    require((previous != files.end()) == (isSeed && !isTemplate && loses),
            "a file that loses a value that was not shown is kept");
    require(previous == files.end() || previous->second == text, "the whole file is kept");
  }
  return 0;
}
