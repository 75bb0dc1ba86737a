# Cross-building kzlib for 64-bit Windows with mingw-w64 (Debian's POSIX-threads
# GCC). The outside libraries come from scripts/deps-windows: OpenSSL, trio and
# GoogleTest in KZ_WINDOWS_DEPS, zlib in the mingw-w64 tree. Test programs run
# under Wine through scripts/wine-run.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(KZ_MINGW_HOST x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${KZ_MINGW_HOST}-gcc-posix)
set(CMAKE_CXX_COMPILER ${KZ_MINGW_HOST}-g++-posix)
set(CMAKE_RC_COMPILER ${KZ_MINGW_HOST}-windres)
set(CMAKE_AR ${KZ_MINGW_HOST}-ar CACHE FILEPATH "")
set(CMAKE_RANLIB ${KZ_MINGW_HOST}-ranlib CACHE FILEPATH "")

if(NOT KZ_WINDOWS_DEPS)
  if(DEFINED ENV{KZ_WINDOWS_DEPS})
    set(KZ_WINDOWS_DEPS "$ENV{KZ_WINDOWS_DEPS}")
  elseif(DEFINED ENV{KZ_WINDOWS_CACHE})
    set(KZ_WINDOWS_DEPS "$ENV{KZ_WINDOWS_CACHE}/current")
  else()
    set(KZ_WINDOWS_DEPS /var/cache/kzlib-windows/current)
  endif()
endif()
set(KZ_WINDOWS_DEPS "${KZ_WINDOWS_DEPS}" CACHE PATH "Cross-built Windows libraries (scripts/deps-windows)")

set(CMAKE_FIND_ROOT_PATH ${KZ_WINDOWS_DEPS} /usr/${KZ_MINGW_HOST})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Static zlib and OpenSSL: no DLLs of theirs to ship beside libkz.dll.
set(ZLIB_USE_STATIC_LIBS ON)
set(OPENSSL_USE_STATIC_LIBS ON)

# The C++ runtime, libgcc and winpthreads are linked in, so libkz.dll and the
# programs need no DLLs beyond the system's (and libkz.dll).
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")

get_filename_component(_kz_source_dir "${CMAKE_CURRENT_LIST_DIR}/.." ABSOLUTE)
set(CMAKE_CROSSCOMPILING_EMULATOR ${_kz_source_dir}/scripts/wine-run)
