# The Debian packages, which packaging/build makes: one for each component of the installation.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${PACKAGE})
set(CPACK_PACKAGE_CONTACT ${KESTRUNE_MAINTAINER})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_SOURCE_DIR}/cmake/PackageFolders.cmake)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${DEBIAN_REVISION})
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
# Adds dependencies on the packages of the linked libraries.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL client)

set(CPACK_DEBIAN_CLIENT_PACKAGE_NAME kestrune-menu-client)
# The first line of the description is the package's summary.
set(CPACK_COMPONENT_CLIENT_DESCRIPTION
"tray companion that keeps a self-hosted Codex bridge alive
Kestrune keeps a self-hosted bridge alive, so that a phone can drive the
Codex sessions of a desktop machine. It asks the local backend for its status
every 20 seconds, shows a lamp and a menu in the tray of the desktop or in a
terminal, and stops the backend when it quits. Its texts are in Traditional
Chinese.

The resident process links no GUI toolkit. The package kestrune-menu-dialogs
shows its windows; without it, the client uses notifications and the terminal.")
# The packages of the programs that the client runs. Debian policy asks packages not to depend on essential packages, so
# bash, coreutils and findutils are left out.
set(CPACK_DEBIAN_CLIENT_PACKAGE_DEPENDS "curl, lsof, procps")
# The bus and the windows are only recommended: the client also runs without them.
set(CPACK_DEBIAN_CLIENT_PACKAGE_RECOMMENDS "dbus-user-session | dbus-session-bus")

if(KESTRUNE_DIALOGS)
  list(APPEND CPACK_COMPONENTS_ALL dialogs)
  string(APPEND CPACK_DEBIAN_CLIENT_PACKAGE_RECOMMENDS ", kestrune-menu-dialogs")
  set(CPACK_DEBIAN_DIALOGS_PACKAGE_NAME kestrune-menu-dialogs)
  set(CPACK_COMPONENT_DIALOGS_DESCRIPTION
"windows of the tray companion for a self-hosted Codex bridge
Kestrune keeps a self-hosted bridge alive, so that a phone can drive the
Codex sessions of a desktop machine.

This package contains the program that shows the windows of Kestrune Menu
Client: the settings, the pairing code, the backend's report, and the menu on
desktops without a tray. A server does not need it.")
  # The dialogs depend on the client of the same version, because both must speak the same protocol.
  set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
  set(CPACK_COMPONENT_DIALOGS_DEPENDS client)
  # Only recommended: fonts, the Qt plugins for X11 and Wayland, and a program that opens folders.
  set(CPACK_DEBIAN_DIALOGS_PACKAGE_RECOMMENDS
    "fonts-noto-cjk, fonts-noto-color-emoji, qt6-qpa-plugins, qt6-wayland, xdg-utils")
  # Up to 0.1.0-0kestrune1, the package kestrune-menu-client contained both programs.
  set(CPACK_DEBIAN_DIALOGS_PACKAGE_BREAKS "kestrune-menu-client (<< 0.1.0-0kestrune2~)")
  set(CPACK_DEBIAN_DIALOGS_PACKAGE_REPLACES "kestrune-menu-client (<< 0.1.0-0kestrune2~)")
endif()

include(CPack)
