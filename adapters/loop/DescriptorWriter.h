#pragma once

#include <string>
#include <string_view>

#include "adapters/loop/EventLoop.h"
#include "adapters/system/FileDescriptor.h"

namespace kestrune {

/// Writes to a descriptor without blocking. Bytes that it does not accept at once wait in memory, up to a
/// limit. Main thread.
class DescriptorWriter {
 public:
  /// `limit` is in bytes. While bytes wait, a text that would make them exceed it is dropped whole.
  DescriptorWriter(EventLoop& loop, FileDescriptor descriptor, std::size_t limit);

  /// False when the text was dropped: it exceeds the limit, or the reader has closed its end.
  bool write(std::string_view text);

 private:
  ssize_t writeSome(std::string_view text) const;
  void flush();

  EventLoop& loop;
  FileDescriptor output;
  const std::size_t limit;
  const bool mayBlock;
  std::string pending;
  std::size_t sent = 0;  ///< bytes of `pending` that are written
  EventSource writable;
};

}  // namespace kestrune
