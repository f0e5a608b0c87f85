#include <sys/resource.h>
#include <unistd.h>

#include <QApplication>
#include <QFileInfo>
#include <QIcon>
#include <QImageReader>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "dialogs/Appearance.h"
#include "dialogs/ColorScheme.h"
#include "dialogs/MenuRow.h"
#include "dialogs/SecretKeeper.h"
#include "dialogs/Session.h"
#include "dialogs/ToolkitWords.h"

namespace {

constexpr auto usage =
    "Usage: KestruneMenuDialogs\n"
    "Shows the windows of KestruneMenuClient, which starts it when it needs one. Takes requests on standard\n"
    "input and writes what became of them to standard output.\n"
    "\n"
    "  --help     show this and exit\n"
    "  --version  show the version and exit\n";

/// What the user types here must not lie in a file after a crash. A limit of one byte also keeps the system
/// from handing the memory to a crash reporter, which a limit of nothing would not. To make the process one
/// that cannot be dumped or traced at all would cost more: desktop portals refuse such a process, and with
/// them goes what the desktop says of its colours.
void forbidCoreDumps() {
  rlimit limit{};
  if (getrlimit(RLIMIT_CORE, &limit) != 0 || limit.rlim_max == 0) return;
  limit = {1, 1};
  setrlimit(RLIMIT_CORE, &limit);
}

/// The bus library starts a bus of its own where there is none, which would outlive the window and hold it
/// up.
void startNoBus() {
  if (std::getenv("DBUS_SESSION_BUS_ADDRESS") != nullptr) return;
  const char* const folder = std::getenv("XDG_RUNTIME_DIR");
  if (folder == nullptr || access((std::string(folder) + "/bus").c_str(), F_OK) != 0) {
    setenv("DBUS_SESSION_BUS_ADDRESS", "disabled:", 0);
  }
}

QIcon programIcon() {
  // Beside the program in a build or a backend's own folder, and in the prefix that it was installed to.
  const QString folder = QCoreApplication::applicationDirPath();
  for (const auto& resources :
       {folder + QStringLiteral("/resources"), folder + QStringLiteral("/../share/kestrune-menu-client")}) {
    // A reader complains of a file that is not there.
    if (!QFileInfo(resources).isDir()) continue;
    QIcon icon;
    for (const int side : {16, 24, 32, 48, 64}) {
      QImageReader reader(resources + QStringLiteral("/codex-menubar-%1.png").arg(side), "png");
      // Asked to find the format itself, it would load the plugins of all others.
      reader.setAutoDetectImageFormat(false);
      if (const QImage image = reader.read(); !image.isNull()) icon.addPixmap(QPixmap::fromImage(image));
    }
    if (!icon.isNull()) return icon;
  }
  return {};
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

  forbidCoreDumps();
  startNoBus();
  std::signal(SIGPIPE, SIG_IGN);
  // A session that is saved must not start it again at the next login: nobody would be there to talk to.
  unsetenv("SESSION_MANAGER");
  // That of the client's own start, used up long ago.
  unsetenv("XDG_ACTIVATION_TOKEN");

  QApplication application(argumentCount, arguments);
  kestrune::dialogs::keepSecretsFromScreenReaders();
  kestrune::dialogs::preferColorEmoji();
  kestrune::dialogs::tellRowsToScreenReaders();
  kestrune::dialogs::ToolkitWords words;
  QCoreApplication::installTranslator(&words);
  QCoreApplication::setApplicationName(QStringLiteral("Kestrune"));
  QCoreApplication::setApplicationVersion(QStringLiteral(KESTRUNE_VERSION));
  QGuiApplication::setDesktopFileName(QStringLiteral("com.dovrel.kestrune.menuclient"));
  QGuiApplication::setQuitOnLastWindowClosed(false);
  QGuiApplication::setWindowIcon(programIcon());

  const kestrune::dialogs::ColorScheme scheme;
  const kestrune::dialogs::Session session(STDIN_FILENO, STDOUT_FILENO);
  return QCoreApplication::exec();
}
