#pragma once

#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "ports/DispatchQueue.h"

namespace kestrune {

/// A serial queue on a thread of its own, which starts with the first job, or as soon after it as the machine
/// has a thread to spare.
class SerialQueue final : public DispatchQueue {
 public:
  /// Has a job done after a while, on a thread that there is already. Any thread calls it.
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
  const std::shared_ptr<State> state;  // the thread's too, which may outlive the queue
};

}  // namespace kestrune
