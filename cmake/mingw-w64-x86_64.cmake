# Cross-build for Windows x64 with Debian's MinGW-w64 (posix thread model,
# needed for std::thread and friends).
#   cmake -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake [-DKELQUOTE_WIN_DEPS=<prefix>] ...
# The dependency prefix is made by scripts/windows/build-deps.sh.

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)

set(_kq_triplet x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${_kq_triplet}-gcc-posix)
set(CMAKE_CXX_COMPILER ${_kq_triplet}-g++-posix)
set(CMAKE_RC_COMPILER ${_kq_triplet}-windres)

# Cache variable, else environment, else the default cache folder.
if(NOT KELQUOTE_WIN_DEPS)
  if(DEFINED ENV{KELQUOTE_WIN_DEPS} AND NOT "$ENV{KELQUOTE_WIN_DEPS}" STREQUAL "")
    set(KELQUOTE_WIN_DEPS "$ENV{KELQUOTE_WIN_DEPS}")
  else()
    set(KELQUOTE_WIN_DEPS "$ENV{HOME}/.cache/kelquote/win64-deps")
  endif()
endif()
set(KELQUOTE_WIN_DEPS "${KELQUOTE_WIN_DEPS}" CACHE PATH "Windows x64 dependency prefix (log4cplus, tinyxml2, googletest)")
# try_compile projects re-read this file without the cache.
set(ENV{KELQUOTE_WIN_DEPS} "${KELQUOTE_WIN_DEPS}")

set(CMAKE_FIND_ROOT_PATH /usr/${_kq_triplet} "${KELQUOTE_WIN_DEPS}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Runtime linked in statically (libgcc, libstdc++, winpthread), so the
# binaries run under Wine or on a bare Windows without MinGW DLLs.
# -static only affects -l lookups; CMake links our own import libraries
# (*.dll.a) by full path, so DLL-to-DLL linking keeps working.
set(_kq_static_rt "-static-libgcc -static-libstdc++ -static")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${_kq_static_rt}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_kq_static_rt}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${_kq_static_rt}")

# Run cross-built test programs (gtest_discover_tests, add_test) under Wine.
find_program(KELQUOTE_WINE NAMES wine wine64)
if(KELQUOTE_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${KELQUOTE_WINE}")
endif()
