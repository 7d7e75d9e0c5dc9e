# Packages (cpack in the build folder):
#   Linux        Debian packages: libkelquote2 (runtime), libkelquote-dev
#                (development files), kelquote-sim (simulated quote service and
#                configuration stand-in)
#   Windows x64  one zip: the five DLLs, the import libraries, the headers,
#                the CMake package and the pkg-config files
set(CPACK_PACKAGE_NAME kelquote)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "kelquote")
set(CPACK_PACKAGE_CONTACT "kelquote developers <kelquote@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Market-data client library for Chinese exchange-traded instruments")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_COMPONENTS_ALL runtime dev sim)
set(CPACK_STRIP_FILES ON)

if(WIN32)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_ARCHIVE_COMPONENT_INSTALL OFF)
  set(CPACK_PACKAGE_FILE_NAME kelquote-${PROJECT_VERSION}-win64)
  set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY ON)
else()
  set(CPACK_GENERATOR DEB)
  set(CPACK_DEB_COMPONENT_INSTALL ON)
  set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_SECTION libs)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  # The vendor's libraries (or ours, from kelquote-sim) come from no package.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libkelquote${PROJECT_VERSION_MAJOR})
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_SUGGESTS kelquote-sim)
  set(CPACK_DEBIAN_DEV_PACKAGE_NAME libkelquote-dev)
  set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
  set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libkelquote${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION})")
  set(CPACK_DEBIAN_SIM_PACKAGE_NAME kelquote-sim)
  set(CPACK_DEBIAN_SIM_PACKAGE_DEPENDS "libkelquote${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION})")
endif()

# The Python package, when it is built: python3-kelquote.
if(TARGET _kelquote AND NOT WIN32)
  list(APPEND CPACK_COMPONENTS_ALL python)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-kelquote)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
    "libkelquote${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}), python3 (>= 3.11), python3 (<< 3.12), python3-numpy, python3-pandas")
  set(CPACK_DEBIAN_PYTHON_PACKAGE_SUGGESTS "kelquote-sim, python3-matplotlib")
  set(CPACK_COMPONENT_PYTHON_DESCRIPTION "Python package kelquote: the library's data as pandas DataFrames and numpy arrays")
endif()

set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "kelquote, quoter and utils shared libraries")
set(CPACK_COMPONENT_DEV_DESCRIPTION "Headers, CMake package and pkg-config file of kelquote")
set(CPACK_COMPONENT_SIM_DESCRIPTION
  "Simulated quote service (DataApi) and plain-text configuration reader (uaAuth) in place of the vendor's libraries")
include(CPack)
