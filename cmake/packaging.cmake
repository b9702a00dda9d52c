# What `cmake --install` puts where, and the Debian packages CPack makes of it
# (scripts/package). Two packages:
#   firmware-updater      the program, its man page and documentation, and every
#                         install component other than `sim` (support/'s units and
#                         update module included, whatever they name theirs);
#   firmware-updater-sim  camd-sim and tallyvane-sim (component `sim`).
include(GNUInstallDirs)

install(TARGETS firmware-updater RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT updater)
install(TARGETS camd-sim tallyvane-sim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT sim)

# Debian wants man pages compressed, and without a time stamp so that two builds agree.
configure_file(${PROJECT_SOURCE_DIR}/support/man/firmware-updater.1 ${PROJECT_BINARY_DIR}/man/firmware-updater.1 @ONLY)
add_custom_command(OUTPUT ${PROJECT_BINARY_DIR}/man/firmware-updater.1.gz
  COMMAND gzip -9nkf ${PROJECT_BINARY_DIR}/man/firmware-updater.1
  DEPENDS ${PROJECT_BINARY_DIR}/man/firmware-updater.1)
add_custom_target(man-page ALL DEPENDS ${PROJECT_BINARY_DIR}/man/firmware-updater.1.gz)
install(FILES ${PROJECT_BINARY_DIR}/man/firmware-updater.1.gz
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT updater)

install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT updater)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs COMPONENT updater)

# Each package carries the copyright file and changelog Debian requires.
foreach(component updater sim)
  set(FWU_DEB_PACKAGE firmware-updater)
  if(component STREQUAL "sim")
    set(FWU_DEB_PACKAGE firmware-updater-sim)
  endif()
  set(doc ${PROJECT_BINARY_DIR}/debian-doc/${FWU_DEB_PACKAGE})
  configure_file(${PROJECT_SOURCE_DIR}/support/debian/changelog.in ${doc}/changelog @ONLY)
  add_custom_command(OUTPUT ${doc}/changelog.gz COMMAND gzip -9nkf ${doc}/changelog DEPENDS ${doc}/changelog)
  add_custom_target(debian-changelog-${component} ALL DEPENDS ${doc}/changelog.gz)
  install(FILES ${doc}/changelog.gz ${PROJECT_SOURCE_DIR}/support/debian/copyright
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${FWU_DEB_PACKAGE} COMPONENT ${component})
endforeach()

# --- CPack: Debian packages, one per component group ---
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME firmware-updater)
set(CPACK_PACKAGE_VENDOR "Quorvex")
set(CPACK_PACKAGE_CONTACT "firmware-updater maintainers <firmware-updater@quorvex.example>")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)  # <name>_<version>_<arch>.deb
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_RELEASE "")
if(CMAKE_CROSSCOMPILING)
  # CPack would otherwise ask this machine's dpkg for its own architecture.
  if(CMAKE_LIBRARY_ARCHITECTURE STREQUAL "aarch64-linux-gnu")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
  elseif(CMAKE_LIBRARY_ARCHITECTURE STREQUAL "arm-linux-gnueabihf")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
  endif()
endif()

set(CPACK_DEBIAN_UPDATER_PACKAGE_NAME firmware-updater)
set(CPACK_DEBIAN_UPDATER_DESCRIPTION "firmware updater for the device's cameras and counter-link board
firmware-updater updates the firmware of one target per run: a camera, through
the camera daemon camd on the D-Bus session bus, or the counter-link board,
through its character devices.")
# The Mender Update Modules and the inventory script read JSON with jq (the
# shared libraries are found by shlibdeps).
set(CPACK_DEBIAN_UPDATER_PACKAGE_DEPENDS "jq")
set(CPACK_DEBIAN_SIM_PACKAGE_NAME firmware-updater-sim)
set(CPACK_DEBIAN_SIM_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_SIM_PACKAGE_SUGGESTS "dbus-daemon")
set(CPACK_DEBIAN_SIM_DESCRIPTION "simulators of the camera daemon and the counter-link board
camd-sim serves camd's firmware interface on a D-Bus session bus;
tallyvane-sim plays the counter-link board on the far side of two FIFOs.
Both assemble the image they receive and judge it, and can inject faults.
They stand in for the device in tests and demonstrations.")

include(CPack)

# Every component but the simulators lands in the main package, including
# components that support/ or later rules name.
cpack_add_component_group(updater)
cpack_add_component_group(sim)
get_cmake_property(_fwu_components COMPONENTS)
foreach(component IN LISTS _fwu_components)
  if(component STREQUAL "sim")
    cpack_add_component(sim GROUP sim)
  else()
    cpack_add_component(${component} GROUP updater)
  endif()
endforeach()
