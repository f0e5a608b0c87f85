#include "KestruneMenuClient/status/LiveSession.h"
#include "fuzz/Fuzz.h"
#include "text/Text.h"

// Fuzzes selectedSession, which picks the project and the chat thread from an answer of the backend's local
// service. The input is the answer.

using namespace kestrune;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const LiveSession session = selectedSession(std::string(fuzz::Input(data, size).rest()));
  for (const std::string& name : {session.projectTitle, session.threadName}) {
    fuzz::require(!name.empty() && isValidUtf8(name), "a name is UTF-8 and not empty");
  }
  return 0;
}
