#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ports/Platform.h"

namespace kestrune {

/// How the program shows itself.
enum class Face { tray, terminal };

/// The machine that the program runs on. Main thread.
class Host {
 public:
  virtual ~Host() = default;

  /// Whether this process is the client of this user. If another one already runs, it is told to show itself,
  /// and this returns false; if this process was started to replace it, this first waits for its end.
  virtual bool becomeOnlyInstance() = 0;

  virtual Platform& platform() = 0;

  /// Has the client that runs choose the row of its menu with that action, and waits until it has. Returns why
  /// it did not, in one line; absent when it did. Instead of everything else but `leave`.
  virtual std::optional<std::string> perform(const std::string& action) = 0;

  /// What a report of a fault needs to know of the machine and the session: lines for a person, without
  /// secrets. Starts nothing. Instead of everything else but `platform` and `leave`.
  virtual std::string describe() = 0;

  /// Terminates the application when nobody reads standard output any more.
  virtual void endWithOutput() = 0;

  /// Writes to standard output without ever blocking. False when the text was dropped, because the reader has
  /// left or has not read for long.
  virtual bool write(const std::string& text) = 0;

  /// Ends the process with `status`, or lets the new instance take it over that was asked for. Nothing is
  /// destroyed: a worker that is still busy may use anything.
  [[noreturn]] virtual void leave(int status) = 0;
};

/// How the program is started.
struct StartOptions {
  Face face = Face::tray;
  bool background = false;               ///< not by hand: a client that already runs need not show itself
  std::vector<std::string> arguments{};  ///< as given, to start the program afresh with
};

/// Made once, before the first thread starts. Never null.
std::unique_ptr<Host> makeHost(const StartOptions& options);

}  // namespace kestrune
