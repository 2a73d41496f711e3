# What `cmake --install` puts in place, and the Debian package CPack makes of it (`make package`).
# A window-less build installs the program, its manual, completion and log rotation; the desktop
# entry, icons and AppStream data only come with the window.
include(GNUInstallDirs)

set(FERROVANE_PACKAGE_MAINTAINER "Ferrovane developers <ferrovane@quillmarsh.invalid>"
    CACHE STRING "Maintainer field of the Debian package")

set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(PACKAGING_OUT ${CMAKE_BINARY_DIR}/packaging)
configure_file(resources/ferrovane.1 ${PACKAGING_OUT}/ferrovane.1 @ONLY)
configure_file(packaging/changelog.in ${PACKAGING_OUT}/changelog @ONLY)
# Manuals and changelogs are installed compressed; -n keeps the archive free of time stamps.
add_custom_command(
  OUTPUT ${PACKAGING_OUT}/ferrovane.1.gz ${PACKAGING_OUT}/changelog.gz
  COMMAND gzip -9nf -k ${PACKAGING_OUT}/ferrovane.1 ${PACKAGING_OUT}/changelog
  DEPENDS ${PACKAGING_OUT}/ferrovane.1 ${PACKAGING_OUT}/changelog)
add_custom_target(ferrovane_documents ALL DEPENDS ${PACKAGING_OUT}/ferrovane.1.gz ${PACKAGING_OUT}/changelog.gz)

install(TARGETS ferrovane RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${PACKAGING_OUT}/ferrovane.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES resources/ferrovane.bash-completion DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
        RENAME ferrovane)
# Under the prefix /usr the rule belongs in /etc, which only the full form of the folder says.
install(FILES resources/ferrovane.logrotate DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/logrotate.d
        RENAME ferrovane)
install(FILES packaging/copyright ${PACKAGING_OUT}/changelog.gz DESTINATION ${CMAKE_INSTALL_DOCDIR})

if(FERROVANE_BUILD_APP)
  install(FILES resources/ferrovane.desktop DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
  install(FILES resources/com.quillmarsh.ferrovane.metainfo.xml DESTINATION ${CMAKE_INSTALL_DATADIR}/metainfo)
  install(FILES resources/ferrovane.svg DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps)
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
      install(FILES ${png} DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/${size}x${size}/apps)
    endforeach()
    add_custom_target(ferrovane_icons ALL DEPENDS ${ICON_PNGS})
  else()
    message(STATUS "rsvg-convert not found: only the scalable icon is installed (scripts/install-deps package)")
  endif()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ferrovane)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "backup tool that mirrors folders and keeps replaced versions")
set(CPACK_PACKAGE_DESCRIPTION [[
Ferrovane makes a destination, usually a folder on another disk, an up-to-date
mirror of the folders and files you choose. Before a run overwrites or removes
anything in the destination, it moves the old version into an archive on the
same disk, so a version that was backed up is never lost.

The destination keeps its own configuration. Runs start from a Qt window, from
the command line or from systemd timers. A search finds a file with all its
archived versions.]])
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${FERROVANE_PACKAGE_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# dpkg-shlibdeps finds the libraries the program links; scheduled runs also need systemctl.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "systemd")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "logrotate")
# The log rotation rule is the administrator's to edit; an upgrade asks before replacing it.
file(WRITE ${PACKAGING_OUT}/conffiles "${CMAKE_INSTALL_FULL_SYSCONFDIR}/logrotate.d/ferrovane\n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${PACKAGING_OUT}/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
include(CPack)
