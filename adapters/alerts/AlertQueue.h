#pragma once

#include <deque>
#include <string>
#include <vector>

#include "ports/Alert.h"
#include "ports/DispatchQueue.h"

namespace kestrune {

/// Queues alerts and shows one at a time. An alert that a button inside an open one asks for is shown on top
/// of it. A face derives from this: it shows an alert when told to, and says how it ended. Main thread.
class AlertQueue : public Alerts {
 public:
  /// `mainQueue` outlives this.
  explicit AlertQueue(DispatchQueue& mainQueue) : queue(mainQueue) {}

  void present(AlertRequest request) override;

 protected:
  struct Open {
    int id;  ///< greater than 0, never reused
    AlertRequest request;
    Alert alert;
  };

  /// Shows `shown`, the last of `open`, on top of the others. May answer it before it returns.
  virtual void show(const Open& shown) = 0;

  /// Brings the open alerts to the front: the user asked for one of them, or for one that waits behind them.
  virtual void raise() = 0;

  /// Called when a press or an answer opened no other alert: the last of `open` is in use again, or the menu
  /// when none is open.
  virtual void resume() {}

  /// A button in the view of the alert `id` was pressed. Ignored when the alert is not open.
  void press(int id, const std::string& action);

  /// The alert `id` has ended; calls its completion. Ignored when the alert is not open. A button number that
  /// it does not have counts as none.
  void answer(int id, AlertAnswer answer);

  /// Drops the open and the waiting alerts without calling their completions.
  void forget();

  DispatchQueue& queue;
  std::vector<Open> open;  ///< each is on top of the one before

 private:
  bool isThere(const std::string& identifier) const;
  void showNext();
  void goOn();
  std::vector<Open>::iterator find(int id);

  std::deque<AlertRequest> waiting;
  std::deque<AlertRequest> stacking;  ///< asked for by a button inside an open alert; shown next
  bool performing = false;            ///< the action of a button inside an alert is running
  int lastId = 0;
};

}  // namespace kestrune
