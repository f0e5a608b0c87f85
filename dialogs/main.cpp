#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <QAccessible>
#include <QApplication>
#include <QIcon>
#include <QImageReader>
#include <QLineEdit>
#include <QPixmap>
#include <QTranslator>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>

#include "dialogs/Appearance.h"
#include "dialogs/DialogWindow.h"
#include "dialogs/Session.h"

namespace {

constexpr auto usage =
    "Usage: KestruneMenuDialogs\n"
    "Shows the windows of KestruneMenuClient, which starts it when it needs one. Takes requests on standard\n"
    "input and writes what became of them to standard output.\n"
    "\n"
    "  --help     show this and exit\n"
    "  --version  show the version and exit\n";

/// Translates Qt's context menus for selectable text and text fields into Traditional Chinese.
class QtWords final : public QTranslator {
 public:
  QString translate(const char*, const char* text, const char*, int) const override {
    static constexpr std::pair<std::string_view, const char*> words[] = {
        {"&Undo", "復原(&U)"},  {"&Redo", "重做(&R)"}, {"Cu&t", "剪下(&T)"},   {"&Copy", "複製(&C)"},
        {"&Paste", "貼上(&P)"}, {"Delete", "刪除"},    {"Select All", "全選"}, {"Input Method", "輸入法"}};
    for (const auto& [english, chinese] : words) {
      if (english == text) return QString::fromUtf8(chinese);
    }
    return {};
  }
};

/// Masks the text of password fields for screen readers. Qt shows dots on the screen, but sends every
/// inserted and deleted character to all listeners on the accessibility bus (AT-SPI).
void tell(QAccessibleEvent* event) {
  // Qt sends an event to screen readers only while no update handler is installed.
  const auto pass = [](QAccessibleEvent* passed) {
    QAccessible::installUpdateHandler(nullptr);
    QAccessible::updateAccessibility(passed);
    QAccessible::installUpdateHandler(&tell);
  };
  const auto masked = [](const QString& text) { return QString(text.size(), QChar(0x2022)); };
  // Drop events about text from a widget without a text interface, because Qt would warn on standard error
  // about each of them. QLabel sends such events.
  if (dynamic_cast<QAccessibleTextCursorEvent*>(event) != nullptr) {
    QAccessibleInterface* const source = event->accessibleInterface();
    if (source == nullptr || source->textInterface() == nullptr) return;
  }
  auto* const field = qobject_cast<QLineEdit*>(event->object());
  if (field == nullptr || field->echoMode() == QLineEdit::Normal) return pass(event);
  if (const auto* const inserted = dynamic_cast<QAccessibleTextInsertEvent*>(event)) {
    QAccessibleTextInsertEvent safe(field, inserted->changePosition(), masked(inserted->textInserted()));
    return pass(&safe);
  }
  if (const auto* const removed = dynamic_cast<QAccessibleTextRemoveEvent*>(event)) {
    QAccessibleTextRemoveEvent safe(field, removed->changePosition(), masked(removed->textRemoved()));
    return pass(&safe);
  }
  // Drop these two, because they contain the whole text of the password field.
  if (event->type() != QAccessible::TextUpdated && event->type() != QAccessible::ValueChanged) pass(event);
}

/// Sets limits, signals and variables of the process. Call it before QApplication, which reads the variables.
void prepareProcess() {
  // Prevent core dumps, because they would contain what the user types. Set RLIMIT_CORE to 1: with 0, the
  // kernel would still pipe the dump to a crash reporter. If the hard limit is 0, call
  // prctl(PR_SET_DUMPABLE, 0) instead. That is only the second choice, because the desktop portal then
  // refuses to tell this process the desktop's colour preference.
  const rlimit limit{1, 1};
  if (setrlimit(RLIMIT_CORE, &limit) != 0) prctl(PR_SET_DUMPABLE, 0);
  // Keep libdbus from starting a session bus when there is none. Starting a bus would delay the window, and
  // the bus would outlive the program.
  const char* const folder = std::getenv("XDG_RUNTIME_DIR");
  if (folder == nullptr || access((std::string(folder) + "/bus").c_str(), F_OK) != 0)
    setenv("DBUS_SESSION_BUS_ADDRESS", "disabled:", 0);
  std::signal(SIGPIPE, SIG_IGN);
  // Keep Qt from connecting to the session manager (XSMP). The session manager would otherwise start this
  // program at the next login, but only the client may start it.
  unsetenv("SESSION_MANAGER");
  // Ignore an inherited activation token. The client sends the tokens for this program's windows in requests.
  unsetenv("XDG_ACTIVATION_TOKEN");
}

}  // namespace

int main(int argumentCount, char** arguments) {
  for (int i = 1; i < argumentCount; ++i) {
    const std::string_view argument = arguments[i];
    if (argument == "--help" || argument == "-h") {
      std::fputs(usage, stdout);
      return 0;
    }
    if (argument == "--version") {
      std::puts("KestruneMenuDialogs " KESTRUNE_VERSION);
      return 0;
    }
  }

  prepareProcess();
  QApplication application(argumentCount, arguments);
  QAccessible::installUpdateHandler(&tell);
  kestrune::dialogs::preferColorEmoji();
  QtWords words;
  QCoreApplication::installTranslator(&words);
  QCoreApplication::setApplicationName(QStringLiteral("Kestrune"));
  QGuiApplication::setDesktopFileName(QStringLiteral("com.dovrel.kestrune.menuclient"));
  QGuiApplication::setQuitOnLastWindowClosed(false);
  QIcon icon;
  for (const int side : {16, 24, 32, 48, 64}) {
    QImageReader reader(QStringLiteral(":/resources/codex-menubar-%1.png").arg(side), "png");
    // Do not detect the format, because that would load all image plugins.
    reader.setAutoDetectImageFormat(false);
    icon.addPixmap(QPixmap::fromImageReader(&reader));
  }
  QGuiApplication::setWindowIcon(icon);

  const kestrune::dialogs::ColorScheme scheme;
  const kestrune::dialogs::Session session;
  const int status = QCoreApplication::exec();
  // Skip ~QApplication on Wayland: in Qt 6.4, it can wait forever for Qt's Wayland thread to end. Run it on
  // X11, where it gives a copied text to the clipboard manager.
  if (kestrune::dialogs::isOnWayland()) std::_Exit(status);
  return status;
}
