#pragma once

#include <deque>
#include <string>
#include <vector>

#include "ports/Alert.h"
#include "ports/DispatchQueue.h"

namespace kestrune {

/// Decides when each alert is shown. A face (tray or terminal) derives from this, shows the alert and says
/// how it ended. Main thread.
class AlertQueue : public Alerts {
 public:
  /// `mainQueue` outlives this.
  explicit AlertQueue(DispatchQueue& mainQueue) : queue(mainQueue) {}

  void present(AlertRequest request) override;

 protected:
  struct Open {
    int id;  ///< greater than 0, used for one alert only
    AlertRequest request;
    Alert alert;
  };

  /// Shows the last alert in `open`, `shown`, above the other alerts. May call `answer` before it returns.
  virtual void show(const Open& shown) = 0;

  /// Brings the open alerts to the front. Called when the user requests an alert that is open or must wait.
  virtual void raise() = 0;

  /// Called when no other alert was opened after a press or an answer. The user then goes on with the last
  /// alert in `open`, or with the menu if no alert is open.
  virtual void resume() {}

  /// Performs the action of a button in the view of the alert `id`, unless the alert is not open.
  void press(int id, const std::string& action);

  /// Removes the alert `id` and calls its completion. Does nothing when the alert is not open. A button
  /// number that the alert does not have counts as a cancelled alert.
  void answer(int id, AlertAnswer answer);

  /// Drops the open and the waiting alerts without calling their completions.
  void forget();

  DispatchQueue& queue;
  std::vector<Open> open;  ///< from bottom to top

 private:
  bool isThere(const std::string& identifier) const;
  void showNext();
  void goOn();
  std::vector<Open>::iterator find(int id);

  std::deque<AlertRequest> waiting;
  std::deque<AlertRequest> stacking;  ///< requested by a button inside an open alert; shown before `waiting`
  bool performing = false;            ///< whether the action of a button inside an alert is running
  int lastId = 0;
};

}  // namespace kestrune
