#pragma once

#include <string>
#include <string_view>

#include "adapters/loop/EventLoop.h"
#include "adapters/system/FileDescriptor.h"

namespace kestrune {

/// Writes to a descriptor without ever blocking: what its reader does not take at once waits in memory, up to
/// a limit. Main thread.
class DescriptorWriter {
 public:
  /// `limit` is in bytes; a text that would exceed it together with what already waits is dropped whole.
  DescriptorWriter(EventLoop& loop, FileDescriptor descriptor, std::size_t limit);

  /// False when the text was dropped: for the limit, or because the reader is gone.
  bool write(std::string_view text);

 private:
  ssize_t writeSome(std::string_view text) const;
  void flush();

  EventLoop& loop;
  FileDescriptor output;
  const std::size_t limit;
  bool socket = false;
  bool mayBlock = false;
  std::string pending;
  std::size_t sent = 0;  ///< how much of it is written
  EventSource writable;
};

}  // namespace kestrune
