#pragma once

#include <deque>
#include <string>
#include <vector>

#include "ports/Alert.h"
#include "ports/Loop.h"

namespace kestrune {

/// Decides when each alert is shown. A derived class (windows or terminal) shows the alerts, and calls
/// `answer` when the user has answered one. Main thread.
class AlertQueue : public Alerts {
 public:
  /// `mainQueue` must outlive this object.
  explicit AlertQueue(DispatchQueue& mainQueue) : queue(mainQueue) {}

  void present(AlertRequest request) override;

 protected:
  struct Open {
    int id;  ///< greater than 0, used for one alert only
    AlertRequest request;
    Alert alert;
  };

  /// Shows `shown`, the last alert in `open`, above the other alerts. May call `answer` before it returns.
  virtual void show(const Open& shown) = 0;

  /// Brings the open alerts to the front. Called when `present` does not show its alert, because this alert
  /// is already open or has to wait until the open alerts are closed.
  virtual void raise() {}

  /// Called after `press` or `answer`, unless a further alert has been shown. The terminal shows one thing at
  /// a time, so it prompts again for the last alert in `open`, or for the menu if no alert is open.
  virtual void resume() {}

  /// Call this when the user has pressed a button in the accessory view (the content) of the alert `id`.
  /// Performs the button's `action`, and leaves the alert open. If the alert is not open, performs nothing.
  void press(int id, const std::string& action);

  /// Removes the alert `id` and calls its completion. Does nothing when the alert is not open. If `answer`
  /// contains a button number that the alert does not have, the alert counts as cancelled.
  void answer(int id, AlertAnswer answer);

  /// Drops the open and the waiting alerts without calling their completions.
  void forget() {
    waiting.clear();
    stacking.clear();
    open.clear();
  }

  DispatchQueue& queue;
  std::vector<Open> open;  ///< from the bottom alert to the top alert

 private:
  void showNext();
  void goOn();

  std::deque<AlertRequest> waiting;
  /// Alerts that were requested while `performing` was true. Each is shown above the open alerts.
  std::deque<AlertRequest> stacking;
  bool performing = false;  ///< whether the action of a button inside an alert is running
  int lastId = 0;
};

}  // namespace kestrune
