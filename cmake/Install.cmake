set(PROGRAMS KestruneMenuClient)
if(KESTRUNE_DIALOGS)
  # The client looks for KestruneMenuDialogs in its own folder.
  list(APPEND PROGRAMS KestruneMenuDialogs)
endif()

set(PACKAGE kestrune-menu-client)
set(PACKAGING ${CMAKE_SOURCE_DIR}/packaging)
set(IDENTIFIER com.dovrel.kestrune.menuclient)
set(KESTRUNE_MAINTAINER "The Kestrune Menu Client developers <kestrune-menu-client@example.org>"
    CACHE STRING "Maintainer of the Debian package")
# Sorts before the revisions of a distribution's own package, which then replaces this package.
set(DEBIAN_REVISION 0kestrune2)
set(DEBIAN_VERSION ${PROJECT_VERSION}-${DEBIAN_REVISION})

# compress(FILE NAME): makes NAME.gz from FILE in the build folder; without a timestamp, so builds are reproducible.
set(COMPRESSED "")
find_program(GZIP gzip REQUIRED)
function(compress file name)
  set(result ${CMAKE_BINARY_DIR}/packaging/${name}.gz)
  add_custom_command(OUTPUT ${result} COMMAND ${GZIP} -9nc ${file} > ${result} DEPENDS ${file} VERBATIM)
  set(COMPRESSED ${COMPRESSED} ${result} PARENT_SCOPE)
endfunction()
foreach(text KestruneMenuClient.1 KestruneMenuDialogs.1 changelog.Debian)
  configure_file(${PACKAGING}/${text}.in ${CMAKE_BINARY_DIR}/packaging/${text} @ONLY)
  compress(${CMAKE_BINARY_DIR}/packaging/${text} ${text})
endforeach()
compress(${CMAKE_SOURCE_DIR}/CHANGELOG.md changelog)
add_custom_target(kestrune_texts ALL DEPENDS ${COMPRESSED})
# Build these texts with the client, so that cmake --install also works after building the client alone.
add_dependencies(KestruneMenuClient kestrune_texts)

# To install into a prefix: cmake --install build/release --prefix PREFIX
# The two components are also Debian packages: client, and dialogs, which is the program that shows the windows.
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME client)
install(FILES ${LOGOS} DESTINATION ${CMAKE_INSTALL_DATADIR}/${PACKAGE})

# The desktop entry, the AppStream metadata and the user unit run the programs by name, so any prefix works.
install(FILES ${PACKAGING}/${IDENTIFIER}.desktop DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
install(FILES ${PACKAGING}/${IDENTIFIER}.metainfo.xml DESTINATION ${CMAKE_INSTALL_DATADIR}/metainfo)
# systemd searches lib/systemd/user on every architecture.
install(FILES ${PACKAGING}/${PACKAGE}.service DESTINATION lib/systemd/user)

# install_program(PROGRAM COMPONENT): installs the program, its manual page and completion, and its package's documents.
function(install_program program component)
  set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME ${component})
  install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES ${PACKAGING}/${program}.bash-completion RENAME ${program}
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
  install(FILES ${CMAKE_BINARY_DIR}/packaging/${program}.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  install(FILES ${PACKAGING}/copyright ${CMAKE_BINARY_DIR}/packaging/changelog.gz
                ${CMAKE_BINARY_DIR}/packaging/changelog.Debian.gz
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/kestrune-menu-${component})
endfunction()
install_program(KestruneMenuClient client)
if(KESTRUNE_DIALOGS)
  install_program(KestruneMenuDialogs dialogs)
endif()

set(ICONS ${CMAKE_INSTALL_DATADIR}/icons/hicolor)
set(RESOURCES ${CMAKE_SOURCE_DIR}/resources)
install(FILES ${RESOURCES}/codex-menubar.svg RENAME KestruneMacClient.svg DESTINATION ${ICONS}/scalable/apps)
install(FILES ${RESOURCES}/codex-menubar.png RENAME KestruneMacClient.png DESTINATION ${ICONS}/22x22/apps)
foreach(side 16 24 32 48 64)
  install(FILES ${RESOURCES}/codex-menubar-${side}.png RENAME KestruneMacClient.png
          DESTINATION ${ICONS}/${side}x${side}/apps)
endforeach()
# The theme hicolor has no folder 44x44, so the icon of 44 pixels is a 22x22 icon at twice the scale.
install(FILES ${RESOURCES}/codex-menubar-44.png RENAME KestruneMacClient.png DESTINATION ${ICONS}/22x22@2/apps)

# Installs the programs below the folder of a backend, so that the client finds the backend from its own path:
#   cmake --install build/release --component backend --prefix REPOSITORY/dist
set(BACKEND_FOLDER "Kestrune Menu Client")
install(TARGETS ${PROGRAMS} RUNTIME DESTINATION ${BACKEND_FOLDER} COMPONENT backend EXCLUDE_FROM_ALL)
install(FILES ${LOGOS} DESTINATION ${BACKEND_FOLDER}/resources COMPONENT backend EXCLUDE_FROM_ALL)
