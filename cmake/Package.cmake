# The Debian package: cmake --build --preset release && cpack --config build/release/CPackConfig.cmake
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
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "tray companion that keeps a self-hosted Codex bridge alive")
set(CPACK_PACKAGE_DESCRIPTION
"Kestrune keeps a self-hosted bridge alive, so that a phone can drive the
Codex sessions of a desktop machine. It asks the local backend for its status
every 20 seconds, shows a lamp and a menu in the tray of the desktop or in a
terminal, and stops the backend when it quits. Its texts are in Traditional
Chinese.

The resident process links no GUI toolkit; a separate program shows the
windows.")

# The linked libraries, and the programs that are run. Debian policy forbids dependencies on essential packages such as
# bash, coreutils or findutils.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "curl, lsof, procps")
# Recommended only: the client runs without a session bus, readable windows or a program that opens folders.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS
  "dbus-user-session | dbus-session-bus, fonts-noto-cjk, fonts-noto-color-emoji, qt6-qpa-plugins, qt6-wayland, xdg-utils")

include(CPack)
