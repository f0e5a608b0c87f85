#pragma once

#include <functional>
#include <memory>
#include <string>

#include "ports/DispatchQueue.h"

namespace kestrune {

/// A serial queue with its own thread, which starts when the first job is posted. If the thread cannot be
/// started (EAGAIN), the queue tries again later.
class SerialQueue final : public DispatchQueue {
 public:
  /// A function that runs a job after a delay, on a thread that exists already. Any thread may call it.
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
  const std::shared_ptr<State> state;  // shared with the queue's thread, which may outlive the queue
};

}  // namespace kestrune
