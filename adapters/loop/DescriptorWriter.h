#pragma once

#include <string>
#include <string_view>

#include "adapters/loop/EventLoop.h"
#include "adapters/system/FileDescriptor.h"

namespace kestrune {

/// Writes text to a descriptor without blocking. Bytes that the descriptor does not accept at once wait in
/// memory, up to a limit. Main thread.
class DescriptorWriter {
 public:
  /// `limit`: how many bytes may wait. A text that is written while no bytes wait may be longer.
  DescriptorWriter(EventLoop& loop, FileDescriptor descriptor, std::size_t limit);

  /// Returns false when the text was dropped: it would exceed the limit, or the reader has closed its end.
  bool write(std::string_view text);

 private:
  ssize_t writeSome(std::string_view text) const;
  void flush();

  EventLoop& loop;
  FileDescriptor output;
  const std::size_t limit;
  const bool mayBlock;
  std::string pending;
  std::size_t sent = 0;  ///< how many bytes of `pending` have been written
  EventSource writable;
};

}  // namespace kestrune
