#include "adapters/files/AutostartEntries.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <string_view>

#include "adapters/system/System.h"
#include "text/Text.h"

namespace kestrune {

namespace fs = std::filesystem;

namespace {

constexpr auto repoVariable = "KESTRUNE_REPO_PATH";

/// Returns `text` as a string value of a desktop entry, with escape sequences.
std::string escaped(std::string text) {
  text = replacingAll(text, "\\", "\\\\");
  text = replacingAll(text, "\n", "\\n");
  text = replacingAll(text, "\t", "\\t");
  text = replacingAll(text, "\r", "\\r");
  // Escape a leading space: parsers drop the leading spaces of a value.
  if (text.starts_with(' ')) text.replace(0, 1, "\\s");
  return text;
}

std::string unescaped(std::string_view value) {
  constexpr std::string_view codes = "ntrs", characters = "\n\t\r ";
  std::string text;
  for (std::size_t i = 0; i < value.size(); ++i) {
    const bool isEscape = value[i] == '\\' && i + 1 < value.size();
    const auto code = isEscape ? codes.find(value[++i]) : std::string_view::npos;
    text += code == std::string_view::npos ? value[i] : characters[code];
  }
  return text;
}

/// Returns whether `text` can stand between double quotes in the key Exec. Rejects invalid UTF-8, control
/// characters, and characters that need an escape sequence, because desktops read these in different ways.
/// Rejects "=" because the path of a program must not contain it there.
bool canBeQuoted(std::string_view text) {
  return isValidUtf8(text) && text.find_first_of("\"`$\\%=\x7F") == std::string_view::npos &&
         std::none_of(text.begin(), text.end(), [](unsigned char each) { return each < ' '; });
}

std::string launchCommand(const std::string& executable) {
  return "\"" + executable + "\" --background";
}

/// Returns the argument with which env(1) sets KESTRUNE_REPO_PATH to `repo`.
std::string repoArgument(const std::string& repo) {
  // If the path cannot be quoted, use ".": the entry's key Path makes the repository the working directory.
  return std::string("\"") + repoVariable + "=" + (canBeQuoted(repo) ? repo : ".") + "\"";
}

/// Returns the text without spaces at its start, and without spaces and carriage returns at its end. Parsers
/// of desktop entries ignore these characters.
std::string_view withoutBlanks(std::string_view text) {
  text = text.substr(0, text.find_last_not_of(" \r") + 1);
  return text.substr(std::min(text.find_first_not_of(' '), text.size()));
}

struct Value {
  std::size_t line;
  std::string text;
};

/// Returns the values of the group [Desktop Entry] by key, each with the index of its line. When a key occurs
/// twice, its first value counts.
std::map<std::string, Value> valuesOf(const std::vector<std::string>& lines) {
  std::map<std::string, Value> values;
  bool inEntry = false;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const std::string_view line = lines[i];
    if (line.starts_with('[')) inEntry = line.starts_with("[Desktop Entry]");
    const auto equals = line.find('=');
    if (!inEntry || equals == std::string_view::npos) continue;
    const std::string value(withoutBlanks(line.substr(equals + 1)));
    values.emplace(withoutBlanks(line.substr(0, equals)), Value{i, value});
  }
  return values;
}

/// Returns whether nothing exists at `path`. If stat(2) fails for another reason, such as EACCES, or ESTALE
/// on NFS, returns false: a file may exist.
bool isMissing(const fs::path& path) {
  std::error_code failure;
  return fs::status(path, failure).type() == fs::file_type::not_found;
}

bool isInBuildFolder(const fs::path& program) {
  std::error_code failure;
  for (fs::path folder = program.parent_path(); folder.has_relative_path(); folder = folder.parent_path()) {
    if (fs::exists(folder / "CMakeCache.txt", failure)) return true;
  }
  return false;
}

}  // namespace

bool AutostartEntries::areRead() const {
  return !bundle.environmentVariable("XDG_CURRENT_DESKTOP").value_or("").empty() ||
         std::ranges::any_of(dataFolders, [this](const std::string& each) {
           return files.fileExists(each + "/xsessions") || files.fileExists(each + "/wayland-sessions");
         });
}

bool AutostartEntries::isRegistered(const std::string& label) const {
  std::error_code failure;
  const FileContents entry = files.contents(path(label));
  if (entry.outcome != ReadOutcome::read) {
    // An entry that exists but cannot be read counts as registered, with two exceptions: a folder is no
    // entry, and users switch an entry off by a link to /dev/null.
    const fs::file_status there = fs::status(path(label), failure);
    return fs::exists(there) && !fs::is_character_file(there) && !fs::is_directory(there);
  }
  auto values = valuesOf(split(entry.bytes, '\n'));
  return values["Hidden"].text != "true" && values["X-GNOME-Autostart-enabled"].text != "false";
}

std::optional<std::string> AutostartEntries::document(const std::string&, const std::string& executablePath,
                                                      const std::string& repoPath) const {
  const std::string repo = fs::path(bundle.currentDirectoryPath()) / repoPath;
  if (!canBeQuoted(executablePath) || !isValidUtf8(repo)) return std::nullopt;
  std::string command = launchCommand(executablePath);
  // Some sessions, such as MATE, ignore the key Path. Without KESTRUNE_REPO_PATH, only a program below the
  // folder "dist" of the repository would find the repository there. But do not name a folder without a
  // backend: the session may set the variable later, and this entry would override it.
  const bool isNamed = !bundle.environmentVariable(repoVariable).value_or("").empty();
  const bool isFoundByPath = bundle.bundlePath().starts_with(repo + "/dist/");
  if (isNamed || (!isFoundByPath && files.fileExists(repo + "/.venv/bin/activate")))
    command = "env " + repoArgument(repo) + " " + command;
  return "[Desktop Entry]\n"
         "Type=Application\n"
         "Name=Kestrune\n"
         "Comment=Keeps the bridge to the phone connected\n"
         "Comment[zh_TW]=保持手機連線\n"
         "Exec=" +
         command + "\nTryExec=" + escaped(executablePath) + "\nPath=" + escaped(repo) +
         "\nIcon=KestruneMacClient\n"
         "Terminal=false\n"
         "StartupNotify=false\n"
         "X-GNOME-Autostart-enabled=true\n";
}

void AutostartEntries::repair(const std::string& label, const std::string& repoPath) {
  const auto present = bundle.executablePath();
  const FileContents entry = files.contents(path(label));
  if (!present || entry.outcome != ReadOutcome::read) return;
  auto lines = split(entry.bytes, '\n');
  auto values = valuesOf(lines);
  const std::string gone = unescaped(values["TryExec"].text);
  const std::string& former = values["Exec"].text;
  std::string command = replacingAll(former, launchCommand(gone), launchCommand(*present));
  const bool isOurs = fs::path(gone).filename() == fs::path(*present).filename() && command != former;
  if (!isOurs || !isMissing(gone) || isInBuildFolder(*present)) return;
  if (!document(label, *present, repoPath)) {
    return reportOnce("cannot repair " + path(label) +
                      ": an entry cannot hold the path of the program or the backend");
  }

  if (const auto start = values.find("Path"); start != values.end()) {
    // Perhaps the user moved the repository together with the program.
    const std::string repo = unescaped(start->second.text);
    if (isMissing(repo)) {
      const std::string replacement = fs::path(bundle.currentDirectoryPath()) / repoPath;
      command = replacingAll(command, repoArgument(repo), repoArgument(replacement));
      lines[start->second.line] = "Path=" + escaped(replacement);
    }
  }
  lines[values["Exec"].line] = "Exec=" + command;
  lines[values["TryExec"].line] = "TryExec=" + escaped(*present);
  std::string repaired;
  for (const auto& line : lines) repaired += line + "\n";
  if (const Result<> written = files.writeAtomically(path(label), repaired); !written)
    reportOnce("cannot repair " + path(label) + ": " + written.reason());
}

}  // namespace kestrune
