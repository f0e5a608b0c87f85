#include "adapters/files/AutostartEntries.h"
#include "adapters/files/Files.h"
#include "fuzz/Fuzz.h"
#include "tests/rig/FakePlatform.h"
#include "tests/rig/ScratchFolder.h"
#include "text/Text.h"

// Fuzzes autostart entries. The input: the path of the running program, the path of the repository, a byte,
// the text of the entry. If the byte is 'v', KESTRUNE_REPO_PATH is set to the path of the repository.

namespace {

using namespace kestrune;
using fuzz::require;
using testing::contentsOf;
using testing::put;

constexpr auto label = "com.example.client";

/// Repairs the entry `text`, which may be damaged. Checks that the repair changes only the lines Exec,
/// TryExec and Path, and neither enables nor disables the entry.
void repair(AutostartEntries& entries, const std::string& repo, const std::string& text) {
  const std::string path = entries.path(label);
  put(path, text);
  const bool wasRegistered = entries.isRegistered(label);
  require(contentsOf(path) == text, "reading changes nothing");
  entries.repair(label, repo);
  require(entries.isRegistered(label) == wasRegistered, "a repair does not enable or disable an entry");
  const std::string repaired = contentsOf(path);
  if (repaired == text) return;

  const auto before = split(text, '\n');
  const auto after = split(repaired, '\n');
  require(before.size() == after.size(), "a repair keeps the number of lines");
  for (std::size_t i = 0; i < before.size(); ++i) {
    const bool isOurs =
        after[i].starts_with("Exec=") || after[i].starts_with("TryExec=") || after[i].starts_with("Path=");
    require(isOurs || after[i] == before[i], "a repair changes only Exec, TryExec and Path");
  }
  entries.repair(label, repo);
  require(contentsOf(path) == repaired, "a second repair changes nothing");
}

/// Repairs an entry that starts a missing program. Checks that the entry then starts the running program, or
/// is unchanged if the path of the running program cannot be quoted.
void lead(AutostartEntries& entries, const std::string& repo, const std::string& executable) {
  const std::string path = entries.path(label);
  const auto document = entries.document(label, "/gone/KestruneMenuClient", repo);
  if (!document) return;
  require(split(*document, '\n').size() == 12, "a path adds no line to an entry");
  put(path, *document);
  require(entries.isRegistered(label), "a new entry is enabled");
  entries.repair(label, repo);
  require(contentsOf(path) == entries.document(label, executable, repo).value_or(*document),
          "a repaired entry names the running program, if it can be quoted");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const testing::ScratchFolder folder;
  fuzz::Input input(data, size);
  testing::FakeMainBundle bundle;
  const std::string executable = "/there/" + std::string(input.text());
  const std::string repo = "/" + std::string(input.text());
  if (input.byte() == 'v') bundle.environment["KESTRUNE_REPO_PATH"] = repo;
  SystemFileManager files(folder.file(""));
  AutostartEntries entries(files, folder.file(""), bundle);

  bundle.executable = executable;
  repair(entries, repo, std::string(input.rest()));
  bundle.executable = executable + "/KestruneMenuClient";
  lead(entries, repo, *bundle.executable);
  return 0;
}
