#pragma once

#include <functional>
#include <memory>
#include <string>

#include "ports/DispatchQueue.h"

namespace kestrune {

/// A serial queue on a thread of its own. The thread starts with the first job; if that fails (EAGAIN), the
/// queue tries again later.
class SerialQueue final : public DispatchQueue {
 public:
  /// Runs a job after a delay, on a thread that exists already. Any thread may call it.
  using Later = std::function<void(Job)>;

  SerialQueue(std::string label, Later later);
  ~SerialQueue() override;
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  const std::string& label() const override { return name; }
  void async(Job job) override;
  void close() override;

 private:
  struct State;

  const std::string name;
  const std::shared_ptr<State> state;  // shared with the thread, which may outlive the queue
};

}  // namespace kestrune
