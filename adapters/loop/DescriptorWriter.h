#pragma once

#include <fcntl.h>

#include <cerrno>
#include <string>
#include <string_view>

#include "adapters/loop/EventLoop.h"
#include "adapters/system/System.h"

namespace kestrune {

/// Writes text to a descriptor without blocking. Bytes that the descriptor does not accept at once wait in
/// memory, up to a limit. Main thread.
class DescriptorWriter {
 public:
  /// `givenLimit`: how many bytes may wait until the descriptor accepts them. If none wait, a text that is
  /// longer than the limit is accepted too.
  DescriptorWriter(EventLoop& givenLoop, FileDescriptor descriptor, std::size_t givenLimit)
      : loop(givenLoop), output(std::move(descriptor)), limit(givenLimit) {}

  /// Returns false and sets `errno` if the text was dropped. ENOBUFS: with this text, the number of
  /// bytes that wait would exceed the limit. ENOSPC or EDQUOT: the disk or the quota is full, and the bytes
  /// that waited are dropped too; later texts are written when there is space. Any other error: write(2) has
  /// failed with this error, now or before, and the descriptor is closed.
  bool write(std::string_view text);

 private:
  ssize_t writeSome(std::string_view text) const;
  void flush();

  EventLoop& loop;
  FileDescriptor output;
  const std::size_t limit;
  const bool mayBlock = (fcntl(output.get(), F_GETFL) & O_NONBLOCK) == 0;
  std::string pending;
  int failure = EBADF;   ///< errno of the last write, or 0; EBADF if the constructor got no descriptor
  std::size_t sent = 0;  ///< how many bytes of `pending` have been written
  EventSource writable;
};

}  // namespace kestrune
