cmake_minimum_required(VERSION 3.25)

# Install a kzlib build into a scratch prefix and use it from outside, the way a
# downstream project would:
#   1. cmake --install into a temporary prefix; the expected files are there and
#      the package files carry no path of the build machine's source or build tree;
#   2. tests/install/ configured with CMAKE_PREFIX_PATH=<prefix>, find_package(kzlib),
#      linked once with kzlib::kz and once with kzlib::kz_static, built and run;
#   3. the same program compiled by hand with `pkg-config --cflags --libs kzlib`,
#      then, with only libkz.a left in the prefix, with `pkg-config --static`.
# The shared programs must load libkz.so.6 from the prefix; the static ones must
# not need libkz.so at all. The prefix is removed afterwards, pass or fail.
#
#   cmake -DKZ_BUILD_DIR=... -DKZ_SOURCE_DIR=... -DKZ_VERSION=6.3.x -DKZ_SOVERSION=6
#         -DKZ_LIBDIR=lib -DKZ_INCLUDEDIR=include -DKZ_C_COMPILER=cc
#         [-DKZ_CONFIG=<config>] [-DKZ_GENERATOR=...] [-DKZ_MAKE_PROGRAM=...]
#         [-DKZ_EXTRA_FLAGS="-fsanitize=..."] [-DKZ_KEEP=ON] -P install.cmake

foreach(variable KZ_BUILD_DIR KZ_SOURCE_DIR KZ_VERSION KZ_SOVERSION KZ_LIBDIR KZ_INCLUDEDIR
                 KZ_C_COMPILER)
  if(NOT DEFINED ${variable} OR "${${variable}}" STREQUAL "")
    message(FATAL_ERROR "install.cmake needs -D${variable}=...")
  endif()
endforeach()

find_program(PKG_CONFIG_EXECUTABLE NAMES pkg-config pkgconf)
find_program(READELF readelf)
find_program(LDD ldd)
foreach(tool PKG_CONFIG_EXECUTABLE READELF LDD)
  if(NOT ${tool})
    message(FATAL_ERROR "${tool} not found (scripts/deps installs what the tests need)")
  endif()
endforeach()

if(DEFINED ENV{TMPDIR} AND IS_DIRECTORY "$ENV{TMPDIR}")
  set(temp_root "$ENV{TMPDIR}")
else()
  set(temp_root "/tmp")
endif()
string(RANDOM LENGTH 10 ALPHABET "abcdefghijklmnopqrstuvwxyz0123456789" suffix)
set(work "${temp_root}/kzlib-install-${suffix}")
set(prefix "${work}/prefix")
set(libdir "${prefix}/${KZ_LIBDIR}")
file(REMOVE_RECURSE "${work}")
file(MAKE_DIRECTORY "${work}")

separate_arguments(extra_flags UNIX_COMMAND "${KZ_EXTRA_FLAGS}")

macro(cleanup)
  if(KZ_KEEP)
    message(STATUS "kept ${work}")
  else()
    file(REMOVE_RECURSE "${work}")
  endif()
endmacro()

macro(fail)
  cleanup()
  message(FATAL_ERROR ${ARGN})
endmacro()

# run(<step> COMMAND ...): run a command, fail with its output when it fails; the
# standard output is left in step_output.
macro(run step)
  execute_process(${ARGN} RESULT_VARIABLE step_result OUTPUT_VARIABLE step_output
                  ERROR_VARIABLE step_error)
  if(NOT step_result EQUAL 0)
    fail("${step} failed (${step_result}):\n${step_output}\n${step_error}")
  endif()
endmacro()

# Which libkz the program resolves, by ldd; `expected` is a path or "none".
macro(check_libkz program expected)
  run("ldd ${program}" COMMAND "${LDD}" "${program}")
  set(resolved "none")
  if(step_output MATCHES "libkz\\.so[^ \t\n]* => ([^ \t\n]+)")
    set(resolved "${CMAKE_MATCH_1}")
  elseif(step_output MATCHES "libkz\\.so")
    set(resolved "unresolved")
  endif()
  if(NOT "${expected}" STREQUAL "none")
    file(REAL_PATH "${expected}" expected_real)
    if(EXISTS "${resolved}")
      file(REAL_PATH "${resolved}" resolved)
    endif()
  else()
    set(expected_real "none")
  endif()
  if(NOT resolved STREQUAL expected_real)
    fail("${program} loads libkz from ${resolved}, expected ${expected_real}:\n${step_output}")
  endif()
endmacro()

macro(check_runs program)
  run("running ${program}" COMMAND "${program}")
  if(NOT step_output MATCHES "all checks passed")
    fail("${program} printed:\n${step_output}")
  endif()
endmacro()

# ---- 1. install --------------------------------------------------------------------

set(install_command "${CMAKE_COMMAND}" --install "${KZ_BUILD_DIR}" --prefix "${prefix}")
if(KZ_CONFIG)
  list(APPEND install_command --config "${KZ_CONFIG}")
endif()
run("cmake --install" COMMAND ${install_command})

set(expected_files
  "${prefix}/${KZ_INCLUDEDIR}/kz/base.h"
  "${prefix}/${KZ_INCLUDEDIR}/kz/memory.h"
  "${libdir}/libkz.so.${KZ_VERSION}"
  "${libdir}/libkz.so.${KZ_SOVERSION}"
  "${libdir}/libkz.so"
  "${libdir}/libkz.a"
  "${libdir}/cmake/kzlib/kzlibConfig.cmake"
  "${libdir}/cmake/kzlib/kzlibConfigVersion.cmake"
  "${libdir}/cmake/kzlib/kzlibTargets.cmake"
  "${libdir}/pkgconfig/kzlib.pc")
foreach(file IN LISTS expected_files)
  if(NOT EXISTS "${file}")
    fail("not installed: ${file}")
  endif()
endforeach()
foreach(link "libkz.so" "libkz.so.${KZ_SOVERSION}")
  if(NOT IS_SYMLINK "${libdir}/${link}")
    fail("${libdir}/${link} should be a symbolic link")
  endif()
endforeach()

# Every header of the tree is installed.
file(GLOB source_headers RELATIVE "${KZ_SOURCE_DIR}/include/kz" "${KZ_SOURCE_DIR}/include/kz/*.h")
foreach(header IN LISTS source_headers)
  if(NOT EXISTS "${prefix}/${KZ_INCLUDEDIR}/kz/${header}")
    fail("header not installed: kz/${header}")
  endif()
endforeach()

# The package files must work on another machine: no source or build tree paths,
# no absolute path of the static trio library found on this one.
file(GLOB package_files "${libdir}/cmake/kzlib/*.cmake" "${libdir}/pkgconfig/kzlib.pc")
foreach(file IN LISTS package_files)
  file(READ "${file}" content)
  foreach(forbidden "${KZ_SOURCE_DIR}" "${KZ_BUILD_DIR}" "/libtrio.a")
    string(FIND "${content}" "${forbidden}" position)
    if(NOT position EQUAL -1)
      fail("${file} refers to ${forbidden}")
    endif()
  endforeach()
endforeach()
file(STRINGS "${libdir}/cmake/kzlib/kzlibTargets.cmake" link_lines REGEX "INTERFACE_LINK_LIBRARIES")
foreach(line IN LISTS link_lines)
  string(REGEX REPLACE "^[^\"]*\"(.*)\"[^\"]*$" "\\1" items "${line}")
  foreach(item IN LISTS items)
    if(IS_ABSOLUTE "${item}")
      fail("kzlibTargets.cmake links ${item} by the path it has on this machine")
    endif()
  endforeach()
endforeach()

# ---- 2. find_package(kzlib) ---------------------------------------------------------

set(generator_args "")
if(KZ_GENERATOR)
  list(APPEND generator_args -G "${KZ_GENERATOR}")
endif()
if(KZ_MAKE_PROGRAM)
  list(APPEND generator_args "-DCMAKE_MAKE_PROGRAM=${KZ_MAKE_PROGRAM}")
endif()

foreach(variant shared static)
  set(consumer_build "${work}/cmake-${variant}")
  if(variant STREQUAL "static")
    set(static_option ON)
  else()
    set(static_option OFF)
  endif()
  run("configuring the ${variant} find_package consumer"
      COMMAND "${CMAKE_COMMAND}" -S "${KZ_SOURCE_DIR}/tests/install" -B "${consumer_build}"
              ${generator_args}
              "-DCMAKE_C_COMPILER=${KZ_C_COMPILER}"
              "-DCMAKE_C_FLAGS=${KZ_EXTRA_FLAGS}"
              "-DCMAKE_EXE_LINKER_FLAGS=${KZ_EXTRA_FLAGS}"
              "-DCMAKE_PREFIX_PATH=${prefix}"
              -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF
              "-DKZ_CONSUMER_STATIC=${static_option}")
  # The package must be the one just installed, not one elsewhere on the machine.
  file(STRINGS "${consumer_build}/CMakeCache.txt" found_dir REGEX "^kzlib_DIR:")
  string(REGEX REPLACE "^[^=]*=" "" found_dir "${found_dir}")
  file(REAL_PATH "${found_dir}" found_dir)
  file(REAL_PATH "${libdir}/cmake/kzlib" wanted_dir)
  if(NOT found_dir STREQUAL wanted_dir)
    fail("find_package(kzlib) used ${found_dir}, not ${wanted_dir}")
  endif()
  run("building the ${variant} find_package consumer"
      COMMAND "${CMAKE_COMMAND}" --build "${consumer_build}")
  set(program "${consumer_build}/kz_consumer")
  check_runs("${program}")
  if(variant STREQUAL "shared")
    check_libkz("${program}" "${libdir}/libkz.so.${KZ_SOVERSION}")
  else()
    check_libkz("${program}" none)
  endif()
endforeach()

# ---- 3. pkg-config -------------------------------------------------------------------

set(ENV{PKG_CONFIG_PATH} "${libdir}/pkgconfig")
unset(ENV{PKG_CONFIG_SYSROOT_DIR})

run("pkg-config --modversion kzlib" COMMAND "${PKG_CONFIG_EXECUTABLE}" --modversion kzlib)
string(STRIP "${step_output}" pc_version)
if(NOT pc_version STREQUAL KZ_VERSION)
  fail("pkg-config reports kzlib ${pc_version}, expected ${KZ_VERSION}")
endif()

set(c_flags -std=c99 -Wall -Wextra -pedantic -Werror ${extra_flags})

# Shared: rpath to the prefix, the way an installed application would point at it.
run("pkg-config --cflags --libs kzlib"
    COMMAND "${PKG_CONFIG_EXECUTABLE}" --cflags --libs kzlib)
string(STRIP "${step_output}" pc_flags)
separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")
set(program "${work}/pc-shared")
run("compiling with pkg-config (shared)"
    COMMAND "${KZ_C_COMPILER}" ${c_flags} "${KZ_SOURCE_DIR}/tests/install/consumer.c"
            -o "${program}" ${pc_flags} "-Wl,-rpath,${libdir}")
check_runs("${program}")
check_libkz("${program}" "${libdir}/libkz.so.${KZ_SOVERSION}")

# Static: with the shared library gone, -lkz can only mean libkz.a, so the link
# succeeds only if Libs.private names every dependency.
file(GLOB shared_files "${libdir}/libkz.so*")
file(REMOVE ${shared_files})
run("pkg-config --static --cflags --libs kzlib"
    COMMAND "${PKG_CONFIG_EXECUTABLE}" --static --cflags --libs kzlib)
string(STRIP "${step_output}" pc_flags)
separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")
set(program "${work}/pc-static")
run("compiling with pkg-config (static)"
    COMMAND "${KZ_C_COMPILER}" ${c_flags} "${KZ_SOURCE_DIR}/tests/install/consumer.c"
            -o "${program}" ${pc_flags})
check_runs("${program}")
check_libkz("${program}" none)

cleanup()
message(STATUS "kzlib ${KZ_VERSION}: install, find_package (shared, static) and pkg-config (shared, static) all work")
