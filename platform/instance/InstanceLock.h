#pragma once

#include <string>
#include <system_error>

#include "platform/posix/FileDescriptor.h"

namespace kestrune {

/// The lock on the lock file of a folder; who holds it is the client. The kernel releases it when the process
/// ends. Main thread.
class InstanceLock {
 public:
  enum class Result { taken, held, failed };

  /// Takes over the lock that the program held which this process was before, as its environment says.
  InstanceLock();

  /// Locks the file in `folder`, which is made if need be; `held`: another process has the lock; `failed`:
  /// it cannot be had, and `failure` says why. A lock elsewhere is released only once this one is taken.
  Result take(const std::string& folder);
  const std::error_code& failure() const { return problem; }

  /// Whether this process holds the lock, and still on the file that others would open.
  bool isInPlace() const;

  /// The folder of the lock that is held.
  const std::string& folder() const { return place; }

  /// Keeps the lock for the program that this process becomes by exec, and for no child.
  void passOn() const;

 private:
  FileDescriptor file;  ///< locked
  std::string place;
  std::error_code problem;
};

}  // namespace kestrune
