#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>

#include "dialogs/DialogWindow.h"
#include "ports/Alert.h"

class QLabel;

namespace kestrune::dialogs {

class LongText;

/// The window of an alert. It fits the screen with all its buttons, however long its texts are.
class AlertWindow final : public DialogWindow {
 public:
  /// On top of `beneath`, or alone when that is null.
  AlertWindow(int number, const Alert& alert, AlertWindow* beneath);

  const int id;

  std::function<void(const std::string& action)> onPressed;   ///< for a button in the accessory view
  std::function<void(const AlertAnswer& answer)> onAnswered;  ///< called once; the window is hidden by then

 protected:
  /// Called for Escape and for the close button of the frame.
  void reject() override;
  void keyPressEvent(QKeyEvent* event) override;
  void furnish() override;

 private:
  void makeBody(const Alert& alert, QSize room);
  QWidget* makeButtons(const Alert& alert, int room);
  void answer(std::optional<std::size_t> button);

  const AlertStyle alertStyle;
  const std::size_t buttonCount;
  QLabel* icon = nullptr;
  LongText* longText = nullptr;
  QWidget* body = nullptr;  ///< all but the buttons
  bool flexible = false;    ///< a part of it scrolls
};

}  // namespace kestrune::dialogs
