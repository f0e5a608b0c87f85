set(PROGRAMS KestruneMenuClient)
if(KESTRUNE_DIALOGS)
  # The client looks for it in its own folder.
  list(APPEND PROGRAMS KestruneMenuDialogs)
endif()

set(PACKAGE kestrune-menu-client)
set(PACKAGING ${CMAKE_SOURCE_DIR}/packaging)
set(IDENTIFIER com.dovrel.kestrune.menuclient)
set(KESTRUNE_MAINTAINER "The Kestrune Menu Client developers <kestrune-menu-client@example.org>"
    CACHE STRING "Maintainer of the Debian package")
# Sorts before the revisions of a distribution's own package.
set(DEBIAN_REVISION 0kestrune2)
set(DEBIAN_VERSION ${PROJECT_VERSION}-${DEBIAN_REVISION})

# compress(FILE NAME): NAME.gz in the build folder, without a timestamp, so that builds are reproducible.
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
# cmake --install then also works after building the client alone.
add_dependencies(KestruneMenuClient kestrune_texts)

# Into a prefix: cmake --install build/release --prefix PREFIX
# Each component is also a Debian package: client, and dialogs with the program that shows the windows.
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME client)
install(FILES ${LOGOS} DESTINATION ${CMAKE_INSTALL_DATADIR}/${PACKAGE})

# Desktop entry, AppStream metadata, user unit and shell completion. They run the programs by name, so any prefix works.
install(FILES ${PACKAGING}/${IDENTIFIER}.desktop DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
install(FILES ${PACKAGING}/${IDENTIFIER}.metainfo.xml DESTINATION ${CMAKE_INSTALL_DATADIR}/metainfo)
# systemd searches this path on every architecture.
install(FILES ${PACKAGING}/${PACKAGE}.service DESTINATION lib/systemd/user)

# install_program(PROGRAM COMPONENT): the program, its manual page and completion, and the documents of its package.
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
# hicolor has no 44x44: this is 22x22 at twice the scale.
install(FILES ${RESOURCES}/codex-menubar-44.png RENAME KestruneMacClient.png DESTINATION ${ICONS}/22x22@2/apps)

# Below the folder of one backend, which the client then finds from its own path:
#   cmake --install build/release --component backend --prefix REPOSITORY/dist
set(BACKEND_FOLDER "Kestrune Menu Client")
install(TARGETS ${PROGRAMS} RUNTIME DESTINATION ${BACKEND_FOLDER} COMPONENT backend EXCLUDE_FROM_ALL)
install(FILES ${LOGOS} DESTINATION ${BACKEND_FOLDER}/resources COMPONENT backend EXCLUDE_FROM_ALL)
