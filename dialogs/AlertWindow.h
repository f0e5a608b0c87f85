#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "dialogs/DialogWindow.h"
#include "ports/Alert.h"

class QLabel;
class QLineEdit;
class QPushButton;

namespace kestrune::dialogs {

class LongText;

/// An alert. It always fits the screen with its buttons, whatever it says.
class AlertWindow final : public DialogWindow {
 public:
  /// On top of the alert `beneath`, or by itself.
  AlertWindow(int number, const Alert& alert, AlertWindow* beneath);

  const int id;

  std::function<void(const std::string& action)> onPressed;   ///< a button inside the view
  std::function<void(const AlertAnswer& answer)> onAnswered;  ///< called once; the window is hidden by then

 protected:
  /// Escape, and the close button of the frame.
  void reject() override;
  void keyPressEvent(QKeyEvent* event) override;
  void furnish() override;

 private:
  QWidget* makeBody(const Alert& alert, QSize room);
  QWidget* makeButtons(const Alert& alert, int room);
  void answer(std::optional<std::size_t> button);

  const AlertStyle alertStyle;
  const std::size_t buttonCount;
  std::map<std::string, QLineEdit*> fields;
  QLabel* icon = nullptr;
  QPushButton* firstButton = nullptr;
  QWidget* firstFocus = nullptr;
  LongText* longText = nullptr;
  bool flexible = false;  ///< there is something in it that scrolls
};

}  // namespace kestrune::dialogs
