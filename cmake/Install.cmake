set(PROGRAMS KestruneMenuClient)
if(KESTRUNE_DIALOGS)
  # Beside the client, which looks for it there.
  list(APPEND PROGRAMS KestruneMenuDialogs)
endif()

set(PACKAGE kestrune-menu-client)
set(PACKAGING ${CMAKE_SOURCE_DIR}/packaging)
set(IDENTIFIER com.dovrel.kestrune.menuclient)
set(KESTRUNE_MAINTAINER "The Kestrune Menu Client developers <kestrune-menu-client@example.org>"
    CACHE STRING "Who answers for the Debian package")
# Older than any that a distribution gives its own.
set(DEBIAN_REVISION 0kestrune1)
set(DEBIAN_VERSION ${PROJECT_VERSION}-${DEBIAN_REVISION})

# compress(FILE NAME): NAME.gz in the build folder, without the time of day, which would make each build another.
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
# Whoever builds the client alone may install it.
add_dependencies(KestruneMenuClient kestrune_texts)

# Into a prefix, the ordinary way: cmake --install build/release --prefix PREFIX
install(TARGETS ${PROGRAMS} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${LOGOS} DESTINATION ${CMAKE_INSTALL_DATADIR}/${PACKAGE})

# What a desktop, a service manager and a shell know the programs by. Wherever the prefix is, they call them by name.
install(FILES ${PACKAGING}/${IDENTIFIER}.desktop DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
install(FILES ${PACKAGING}/${IDENTIFIER}.metainfo.xml DESTINATION ${CMAKE_INSTALL_DATADIR}/metainfo)
# Service managers look here on every architecture.
install(FILES ${PACKAGING}/${PACKAGE}.service DESTINATION lib/systemd/user)
foreach(program IN LISTS PROGRAMS)
  install(FILES ${PACKAGING}/${program}.bash-completion RENAME ${program}
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
  install(FILES ${CMAKE_BINARY_DIR}/packaging/${program}.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endforeach()

set(ICONS ${CMAKE_INSTALL_DATADIR}/icons/hicolor)
set(RESOURCES ${CMAKE_SOURCE_DIR}/resources)
install(FILES ${RESOURCES}/codex-menubar.svg RENAME KestruneMacClient.svg DESTINATION ${ICONS}/scalable/apps)
install(FILES ${RESOURCES}/codex-menubar.png RENAME KestruneMacClient.png DESTINATION ${ICONS}/22x22/apps)
foreach(side 16 24 32 44 48 64)
  install(FILES ${RESOURCES}/codex-menubar-${side}.png RENAME KestruneMacClient.png
          DESTINATION ${ICONS}/${side}x${side}/apps)
endforeach()

install(FILES ${PACKAGING}/copyright ${CMAKE_BINARY_DIR}/packaging/changelog.gz
              ${CMAKE_BINARY_DIR}/packaging/changelog.Debian.gz
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${PACKAGE})

# For a backend's own use, where the client finds the backend by the path of its program:
#   cmake --install build/release --component backend --prefix REPOSITORY/dist
set(BACKEND_FOLDER "Kestrune Menu Client")
install(TARGETS ${PROGRAMS} RUNTIME DESTINATION ${BACKEND_FOLDER} COMPONENT backend EXCLUDE_FROM_ALL)
install(FILES ${LOGOS} DESTINATION ${BACKEND_FOLDER}/resources COMPONENT backend EXCLUDE_FROM_ALL)
