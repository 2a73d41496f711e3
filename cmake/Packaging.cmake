# What `cmake --install` puts in place, and the two Debian packages CPack makes of it
# (`make package`): "ferrovane" (the command line, scheduled runs, manual, completions, log rotation;
# no display library) and "ferrovane-gui" (the window, its menu entry, icons and AppStream data).
# A window-less build installs and packages only the first.
include(GNUInstallDirs)

set(FERROVANE_PACKAGE_MAINTAINER "Ferrovane developers <ferrovane@quillmarsh.invalid>"
    CACHE STRING "Maintainer field of the Debian package")

set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME cli)

set(PACKAGING_OUT ${CMAKE_BINARY_DIR}/packaging)
configure_file(resources/ferrovane.1 ${PACKAGING_OUT}/ferrovane.1 @ONLY)
configure_file(resources/ferrovane-gui.1 ${PACKAGING_OUT}/ferrovane-gui.1 COPYONLY)
configure_file(packaging/changelog.in ${PACKAGING_OUT}/changelog @ONLY)
# Manuals and changelogs are installed compressed; -n keeps the archive free of time stamps.
add_custom_command(
  OUTPUT ${PACKAGING_OUT}/ferrovane.1.gz ${PACKAGING_OUT}/ferrovane-gui.1.gz ${PACKAGING_OUT}/changelog.gz
  COMMAND gzip -9nf -k ${PACKAGING_OUT}/ferrovane.1 ${PACKAGING_OUT}/ferrovane-gui.1 ${PACKAGING_OUT}/changelog
  DEPENDS ${PACKAGING_OUT}/ferrovane.1 ${PACKAGING_OUT}/ferrovane-gui.1 ${PACKAGING_OUT}/changelog)
add_custom_target(ferrovane_documents ALL
  DEPENDS ${PACKAGING_OUT}/ferrovane.1.gz ${PACKAGING_OUT}/ferrovane-gui.1.gz ${PACKAGING_OUT}/changelog.gz)

# A stripped install (the packages) also drops the compilers' version notes, as Debian's own
# packaging does.
function(ferrovane_install_program target component)
  install(TARGETS ${target} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ${component})
  set(installed "\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}/${target}")
  install(CODE "if(CMAKE_INSTALL_DO_STRIP)
    execute_process(COMMAND \"${CMAKE_OBJCOPY}\" --remove-section=.comment \"${installed}\" COMMAND_ERROR_IS_FATAL ANY)
  endif()" COMPONENT ${component})
endfunction()

ferrovane_install_program(ferrovane cli)
install(FILES ${PACKAGING_OUT}/ferrovane.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT cli)
install(FILES resources/ferrovane.bash-completion DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
        RENAME ferrovane COMPONENT cli)
install(FILES resources/_ferrovane DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions COMPONENT cli)
install(FILES resources/ferrovane.fish DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT cli)
# Under the prefix /usr the rule belongs in /etc, which only the full form of the folder says.
install(FILES resources/ferrovane.logrotate DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/logrotate.d
        RENAME ferrovane COMPONENT cli)
install(FILES packaging/copyright ${PACKAGING_OUT}/changelog.gz DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/ferrovane
        COMPONENT cli)

if(FERROVANE_BUILD_APP)
  ferrovane_install_program(ferrovane-gui gui)
  install(FILES ${PACKAGING_OUT}/ferrovane-gui.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT gui)
  install(FILES packaging/copyright ${PACKAGING_OUT}/changelog.gz
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/ferrovane-gui COMPONENT gui)
  install(FILES resources/ferrovane.desktop DESTINATION ${CMAKE_INSTALL_DATADIR}/applications COMPONENT gui)
  install(FILES resources/com.quillmarsh.ferrovane.metainfo.xml DESTINATION ${CMAKE_INSTALL_DATADIR}/metainfo
          COMPONENT gui)
  install(FILES resources/ferrovane.svg DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps COMPONENT gui)
  # Menus and docks that cannot draw SVG take the PNG sizes, rendered from the same drawing.
  find_program(RSVG_CONVERT rsvg-convert)
  if(RSVG_CONVERT)
    set(ICON_PNGS)
    foreach(size 16 24 32 48 64 128 256)
      set(png ${PACKAGING_OUT}/icons/${size}x${size}/ferrovane.png)
      add_custom_command(
        OUTPUT ${png}
        COMMAND ${CMAKE_COMMAND} -E make_directory ${PACKAGING_OUT}/icons/${size}x${size}
        COMMAND ${RSVG_CONVERT} -w ${size} -h ${size} -o ${png} ${CMAKE_SOURCE_DIR}/resources/ferrovane.svg
        DEPENDS resources/ferrovane.svg)
      list(APPEND ICON_PNGS ${png})
      install(FILES ${png} DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/${size}x${size}/apps COMPONENT gui)
    endforeach()
    add_custom_target(ferrovane_icons ALL DEPENDS ${ICON_PNGS})
  else()
    message(STATUS "rsvg-convert not found: only the scalable icon is installed (scripts/install-deps package)")
  endif()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ferrovane)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL cli)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${FERROVANE_PACKAGE_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# dpkg-shlibdeps finds the libraries each executable links.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)

# Each description's first line is its summary.
set(CPACK_DEBIAN_CLI_PACKAGE_NAME ferrovane)
set(CPACK_DEBIAN_CLI_DESCRIPTION [[backup tool that mirrors folders and keeps replaced versions
Ferrovane makes a destination, usually a folder on another disk, an up-to-date
mirror of the folders and files you choose. Before a run overwrites or removes
anything in the destination, it moves the old version into an archive on the
same disk, so a version that was backed up is never lost.

The destination keeps its own configuration. Runs start from the command line,
from systemd timers or from the window (package ferrovane-gui). A search finds
a file with all its archived versions.

This package holds the command line and what scheduled runs need; it uses no
display library.]])
# Scheduled runs need systemctl; root's run log is rotated by logrotate.
set(CPACK_DEBIAN_CLI_PACKAGE_RECOMMENDS "systemd, logrotate")
# The log rotation rule is the administrator's to edit; an upgrade asks before replacing it.
file(WRITE ${PACKAGING_OUT}/conffiles "${CMAKE_INSTALL_FULL_SYSCONFDIR}/logrotate.d/ferrovane\n")
set(CPACK_DEBIAN_CLI_PACKAGE_CONTROL_EXTRA ${PACKAGING_OUT}/conffiles)

if(FERROVANE_BUILD_APP)
  list(APPEND CPACK_COMPONENTS_ALL gui)
  set(CPACK_DEBIAN_GUI_PACKAGE_NAME ferrovane-gui)
  set(CPACK_DEBIAN_GUI_PACKAGE_SECTION x11)
  set(CPACK_DEBIAN_GUI_DESCRIPTION [[window of the Ferrovane backup tool
Ferrovane makes a destination, usually a folder on another disk, an up-to-date
mirror of the folders and files you choose, and keeps every version it replaces
in an archive on the same disk.

This package holds the Qt window: choosing sources, running and stopping
backups, options and schedules, searching, browsing and restoring versions,
with a menu entry. The command line and scheduled runs are in the package
ferrovane, which it depends on.]])
  # The jobs the window schedules run the command line of the very same build.
  set(CPACK_DEBIAN_GUI_PACKAGE_DEPENDS "ferrovane (= ${PROJECT_VERSION})")
endif()
include(CPack)
