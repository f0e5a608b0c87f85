#include "KestruneMenuClient/settings/EnvFile.h"
#include "fuzz/Controller.h"
#include "fuzz/Fuzz.h"

// Fuzzes the pairing link. The input: a value to percent-encode, and the text of the backend's .env.

namespace {

using namespace kestrune;
using fuzz::Controller;
using fuzz::require;

int digit(char character) {
  if (character >= '0' && character <= '9') return character - '0';
  require(character >= 'A' && character <= 'F', "an escape has two hexadecimal digits");
  return character - 'A' + 10;
}

/// Decodes a percent-encoded value of the link.
std::string decoded(std::string_view value) {
  std::string bytes;
  for (std::size_t at = 0; at < value.size(); ++at) {
    require(value[at] > ' ' && value[at] < 0x7F, "a link has printable ASCII characters only");
    require(std::string_view("&=+#?\"<>\\^`{|}[]").find(value[at]) == std::string_view::npos,
            "reserved characters are escaped");
    if (value[at] != '%') {
      bytes += value[at];
      continue;
    }
    require(at + 2 < value.size(), "an escape is complete");
    bytes += static_cast<char>(digit(value[at + 1]) * 16 + digit(value[at + 2]));
    at += 2;
  }
  return bytes;
}

void checkLink(const AppDelegate& delegate) {
  const auto read = [&delegate](const char* key, const char* legacyKey) {
    const auto value = delegate.loadEnvValue(key);
    return value || legacyKey == nullptr ? value : delegate.loadEnvValue(legacyKey);
  };
  const auto token = read(env::appAPIToken, env::legacyAppAPIToken);
  const auto link = delegate.makePairingURL();
  require(link.has_value() == (token && !token->empty()), "there is a link if and only if there is a token");
  if (!link) return;

  static constexpr std::string_view begin = "kestrune://configure?apiUrl=";
  static constexpr std::string_view middle = "&token=";
  require(link->starts_with(begin), "a link begins with kestrune://configure");
  const std::string_view values = std::string_view(*link).substr(begin.size());
  const std::size_t at = values.find(middle);
  require(at != std::string_view::npos, "a link has a token");
  require(decoded(values.substr(0, at)) ==
              read(env::publicAPIURL, nullptr).value_or(env::placeholderPublicAPIURL),
          "the decoded address is that of the file");
  require(decoded(values.substr(at + middle.size())) == token, "the decoded token is that of the file");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const std::string_view value = input.text();
  require(decoded(AppDelegate::percentEncodeQueryValue(value)) == value,
          "a decoded value is the encoded one");
  Controller controller;
  controller.machine.fileManager.files[Controller::envFile] = std::string(input.rest());
  checkLink(*controller.delegate);
  return 0;
}
