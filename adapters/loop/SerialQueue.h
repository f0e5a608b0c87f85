#pragma once

#include <memory>
#include <string>

#include "ports/Loop.h"

namespace kestrune {

/// A serial queue with its own thread. A job of this queue may destroy the queue.
class SerialQueue final : public DispatchQueue {
 public:
  /// Starts the thread. If that fails (EAGAIN), tries again for one second. If every attempt fails, prints an
  /// error on standard error and ends the process.
  explicit SerialQueue(std::string label);
  ~SerialQueue() override;
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  const std::string& label() const override { return name; }
  void async(Job job) override;
  void close() override;

 private:
  struct State;

  const std::string name;
  const std::shared_ptr<State> state;  // shared with the queue's thread, which may outlive the queue
};

}  // namespace kestrune
