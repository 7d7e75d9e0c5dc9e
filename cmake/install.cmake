# Install rules: a prefix laid out as Debian's -dev packages lay it out.
#   runtime  libkelquote, libquoter, libutils (on Windows the DLLs)
#   dev      the headers a host includes, the link libraries, the CMake
#            package (find_package(kelquote) gives kelquote::kelquote) and
#            kelquote.pc
#   sim      the simulated quote service (DataApi), the configuration
#            stand-in (uaAuth), the service's control header, a configuration
#            for it, and their CMake targets and kelquote-sim.pc; the replay
#            service, a DataApi of its own in lib/kelquote-replay/ (Windows:
#            bin/replay/). A deployment leaves this out and puts the vendor's
#            libraries in its place.
include(CMakePackageConfigHelpers)

set(KELQUOTE_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kelquote)
set(KELQUOTE_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS kelquote quoter utils EXPORT kelquote-targets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
install(TARGETS DataApi uaAuth EXPORT kelquote-sim-targets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT sim
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT sim
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT sim)
# Under the vendor's name, beside nothing that would load it by mistake.
install(TARGETS DataApiReplay
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}/replay COMPONENT sim
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/kelquote-replay COMPONENT sim)

# Headers keep the paths they are included by: "kelquote/...", "quoter/quoter.h", "utils/utils.h".
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/kelquote DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev
  FILES_MATCHING PATTERN "*.h")
install(FILES ${PROJECT_SOURCE_DIR}/quoter/quoter.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quoter COMPONENT dev)
install(FILES ${PROJECT_SOURCE_DIR}/utils/utils.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/utils COMPONENT dev)
install(FILES ${PROJECT_SOURCE_DIR}/dataapi/sim/sim_control.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/dataapi/sim
  COMPONENT sim)
install(FILES ${PROJECT_SOURCE_DIR}/config/dravikcfg.dat DESTINATION ${CMAKE_INSTALL_DATADIR}/kelquote COMPONENT sim)

# CMake package.
install(EXPORT kelquote-targets NAMESPACE kelquote:: DESTINATION ${KELQUOTE_CMAKE_DIR}
  FILE kelquoteTargets.cmake COMPONENT dev)
install(EXPORT kelquote-sim-targets NAMESPACE kelquote:: DESTINATION ${KELQUOTE_CMAKE_DIR}
  FILE kelquoteSimTargets.cmake COMPONENT sim)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/kelquoteConfig.cmake.in
  ${PROJECT_BINARY_DIR}/kelquoteConfig.cmake INSTALL_DESTINATION ${KELQUOTE_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kelquoteConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kelquoteConfig.cmake ${PROJECT_BINARY_DIR}/kelquoteConfigVersion.cmake
  DESTINATION ${KELQUOTE_CMAKE_DIR} COMPONENT dev)

# pkg-config files; the prefix is found from the file's own place, so an
# unpacked package works wherever it lies.
file(RELATIVE_PATH KELQUOTE_PC_TO_PREFIX /${KELQUOTE_PKGCONFIG_DIR} /)
string(REGEX REPLACE "/$" "" KELQUOTE_PC_TO_PREFIX "${KELQUOTE_PC_TO_PREFIX}")
foreach(pc kelquote kelquote-sim)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc @ONLY)
endforeach()
install(FILES ${PROJECT_BINARY_DIR}/kelquote.pc DESTINATION ${KELQUOTE_PKGCONFIG_DIR} COMPONENT dev)
install(FILES ${PROJECT_BINARY_DIR}/kelquote-sim.pc DESTINATION ${KELQUOTE_PKGCONFIG_DIR} COMPONENT sim)
