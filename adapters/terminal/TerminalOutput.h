#pragma once

#include <sys/ioctl.h>

#include <string_view>

#include "adapters/loop/DescriptorWriter.h"

namespace kestrune {

/// Writes text to a terminal, or whatever a program's output is, without ever blocking. Main thread.
class TerminalOutput {
 public:
  /// Writes to what `descriptor` is open on, through a descriptor of its own.
  TerminalOutput(EventLoop& loop, int descriptor);

  /// False when the text was dropped: too much waits, or nobody reads any more.
  bool write(std::string_view text) { return writer.write(text); }

  bool isTerminal() const { return terminal; }

  /// The size of the terminal now; zeros when it does not tell, or is none.
  winsize size() const;

 private:
  const bool terminal;
  const FileDescriptor screen;  ///< to ask for its size; empty where there is no terminal
  DescriptorWriter writer;
};

}  // namespace kestrune
