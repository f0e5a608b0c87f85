#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>

#include "dialogs/DialogWindow.h"
#include "ports/Alert.h"

namespace kestrune::dialogs {

/// The window of an alert. It fits on the screen with all its buttons, however long the alert's texts are.
class AlertWindow final : public DialogWindow {
 public:
  /// Creates the window, and does not show it yet. `beneath`: the window that it will cover; null if none.
  AlertWindow(int number, const Alert& alert, QWidget* beneath);

  /// Called when a button in the alert's accessory view is pressed.
  std::function<void(const std::string& action)> onPressed;
  std::function<void(const AlertAnswer& answer)> onAnswered;  ///< called once, after the window is hidden

 protected:
  /// Closing an alert that has a single button counts as pressing that button.
  void reject() override { answer(buttonCount == 1 ? std::optional<std::size_t>(0) : std::nullopt); }
  void keyPressEvent(QKeyEvent* event) override;

 private:
  void makeBody(const Alert& alert, QSize room);
  QWidget* makeButtons(const Alert& alert, int room);
  void answer(std::optional<std::size_t> button);

  const std::size_t buttonCount;
  QWidget* body = nullptr;  ///< all of the window except the row of buttons
};

}  // namespace kestrune::dialogs
