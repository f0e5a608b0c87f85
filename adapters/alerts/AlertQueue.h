#pragma once

#include <deque>
#include <string>
#include <vector>

#include "ports/Alert.h"
#include "ports/DispatchQueue.h"

namespace kestrune {

/// The order of alerts: one at a time, those that a button inside an alert asks for on top of it. A face
/// derives from this: it shows an alert when it is told to, and says how it ended. Main thread.
class AlertQueue : public Alerts {
 public:
  /// `mainQueue` outlives this.
  explicit AlertQueue(DispatchQueue& mainQueue) : queue(mainQueue) {}

  void present(AlertRequest request) override;

 protected:
  struct Open {
    int id;  ///< greater than 0, and never used twice
    AlertRequest request;
    Alert alert;
  };

  /// Shows `shown`, the last of `open`, on top of the others. May answer it before it returns.
  virtual void show(const Open& shown) = 0;

  /// Brings the open alerts to the front: the user has asked for one that is among them or has to wait for
  /// them.
  virtual void raise() = 0;

  /// What was pressed or answered has led to no other alert: the last of `open` has the user's attention
  /// again, or, when none is open, the menu.
  virtual void resume() {}

  /// A button inside the alert `id` was pressed. Ignored if the alert is not open.
  void press(int id, const std::string& action);

  /// The alert `id` has ended. Calls its completion. Ignored if the alert is not open; a button that the
  /// alert does not have counts as none.
  void answer(int id, AlertAnswer answer);

  /// Forgets the open alerts and those that wait. Calls no completion.
  void forget();

  DispatchQueue& queue;
  std::vector<Open> open;  ///< each on top of the one before

 private:
  bool isThere(const std::string& identifier) const;
  void showNext();
  void goOn();
  std::vector<Open>::iterator find(int id);

  std::deque<AlertRequest> waiting;
  std::deque<AlertRequest> stacking;  ///< asked for by a button inside an open alert; the next to be shown
  bool performing = false;            ///< a button inside an open alert is doing what it does
  int lastId = 0;
};

}  // namespace kestrune
