#include "dialogs/Session.h"

#include <QTimer>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <string_view>
#include <utility>
#include <variant>

#include "dialogs/AlertWindow.h"

namespace kestrune::dialogs {

void Session::read() {
  // One read does not block: QSocketNotifier has said that standard input is readable. Do not set O_NONBLOCK,
  // because it would also apply to other processes that share standard input, such as a shell.
  char piece[65536];  // the default capacity of a pipe
  const ssize_t count = ::read(STDIN_FILENO, piece, sizeof piece);
  if (count < 0 && (errno == EINTR || errno == EAGAIN)) return;
  if (count <= 0) return end(0);
  std::string_view rest(piece, static_cast<std::size_t>(count));
  for (auto at = rest.find('\n'); at != rest.npos && input.isEnabled(); at = rest.find('\n')) {
    begun += rest.substr(0, at);
    rest.remove_prefix(at + 1);
    const auto decoded = decode<Request>(std::exchange(begun, {}));
    if (const auto* const reason = std::get_if<std::string>(&decoded)) {
      std::fprintf(stderr, "KestruneMenuDialogs: not understood: %s\n", reason->c_str());
      tell(Refused{*reason});
      return end(1);
    }
    std::visit([this](const auto& request) { perform(request); }, std::get<Request>(decoded));
  }
  begun += rest;
}

void Session::perform(const ShowAlert& request) {
  auto* const window = new AlertWindow(request.id, request.alert, windows.empty() ? nullptr : windows.back());
  window->onShown = [this, window] { tell(Shown{window->id}); };
  window->onPressed = [this, window](const std::string& action) { tell(Pressed{window->id, action}); };
  window->onAnswered = [this, window](const AlertAnswer& answer) {
    // A user cannot click the buttons of a covered alert, but a screen reader can press them. So close the
    // alerts that cover the answered alert too, as cancelled.
    for (; windows.back() != window; windows.pop_back()) {
      tell(Answered{windows.back()->id, {}});
      delete windows.back();
    }
    windows.pop_back();
    window->deleteLater();
    tell(Answered{window->id, answer});
    if (windows.empty()) return end(0);
    // Give the focus to the alert that the answered alert covered. Not every desktop session has a window
    // manager that does this.
    windows.back()->activateWindow();
  };
  windows.push_back(window);
  window->present();
}

void Session::perform(const Raise& request) {
  // Qt reads the activation token from this environment variable when a window is next activated.
  if (!request.activationToken.empty())
    qputenv("XDG_ACTIVATION_TOKEN", QByteArray::fromStdString(request.activationToken));
  if (windows.empty()) return;
  DialogWindow* const top = windows.back();
  // `onShown` is set until the window has appeared. On Wayland, do not map such a window again: it may have
  // used a token already, and a token works only once. On X11, raise it: perhaps it has not appeared because
  // another window covers it.
  if (top->onShown && isOnWayland()) {
    if (!request.activationToken.empty()) top->activateWindow();
    return;
  }
  if (raise() || !isOnWayland()) return;
  // `raise` has not mapped the windows again, because Qt reports the top window as active. But this may be
  // wrong: Qt learns only a moment later that a window has lost the focus. So try again after a delay.
  QTimer::singleShot(std::chrono::milliseconds(100), &input, [this] { raise(); });
}

bool Session::raise() {
  // A Wayland program is not told whether its window is minimised or its activation token was refused. So
  // hide the windows: then `present` maps them again, on the current workspace. Do not hide an active window,
  // because the user may be typing in it.
  const bool mapsAgain = isOnWayland() && !windows.empty() && !windows.back()->isActiveWindow();
  if (mapsAgain) {
    for (auto each = windows.rbegin(); each != windows.rend(); ++each) (*each)->hide();
  }
  // Only the top window asks for the focus: the first window that asks uses up the activation token.
  for (auto* const each : windows) each->present(each == windows.back());
  return mapsAgain;
}

void Session::perform(const ShowMenu& request) {
  if (menu != nullptr) return menu->setMenu(request.menu);

  menu = new MenuWindow(request.menu);
  menu->onShown = [this] { tell(Shown{}); };
  menu->onChosen = [this](int item) {
    tell(Chosen{item});
    end(0);
  };
  QObject::connect(menu, &QDialog::rejected, &input, [this] { end(0); });
  windows.push_back(menu);
  menu->present();
}

}  // namespace kestrune::dialogs
