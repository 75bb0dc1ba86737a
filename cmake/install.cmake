# Installation of kzlib:
#   include/kz/*.h                          the public headers (kz/features.h generated)
#   lib/libkz.so.6.3.x, libkz.so.6, libkz.so  the shared library
#   lib/libkz.a                             the static library
#   lib/cmake/kzlib/                        find_package(kzlib): kzlib::kz, kzlib::kz_static
#   lib/pkgconfig/kzlib.pc                  pkg-config --cflags --libs [--static] kzlib
#
#   cmake --install build/release --prefix /opt/kzlib

include(CMakePackageConfigHelpers)

set(KZ_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/kzlib)
set(KZ_INSTALL_PKGCONFIGDIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# ---- portable link interface for the static library ------------------------
#
# In the build tree kz_static carries its dependencies as found on this machine
# (libtrio.a by absolute path, Threads::Threads, m, dl). An installed package must
# not carry build-machine paths, so every item is rewritten:
#   TRIO_LIBRARY      -> kzlib::trio (created by kzlibConfig.cmake)
#   other full paths  -> the bare library name
#   Package::Target   -> kept; kzlibConfig.cmake runs find_dependency(Package)
#   plain names       -> kept
# At the same time the pkg-config Libs.private line is assembled.
get_target_property(_kz_static_links kz_static INTERFACE_LINK_LIBRARIES)
if(NOT _kz_static_links)
  set(_kz_static_links "")
endif()

set(_kz_links "")
set(_kz_pc_libs_private "")
set(_kz_dependencies "")

function(_kz_library_name path out)
  get_filename_component(_name "${path}" NAME)
  string(REGEX REPLACE "^lib" "" _name "${_name}")
  string(REGEX REPLACE "\\.(a|so)(\\.[0-9]+)*$" "" _name "${_name}")
  set(${out} "${_name}" PARENT_SCOPE)
endfunction()

foreach(_item IN LISTS _kz_static_links)
  if(_item MATCHES "^\\$<")
    # Already a generator expression: the author decided; keep it as it is.
    list(APPEND _kz_links "${_item}")
  elseif(TRIO_LIBRARY AND _item STREQUAL TRIO_LIBRARY)
    list(APPEND _kz_links "$<BUILD_INTERFACE:${_item}>" "$<INSTALL_INTERFACE:kzlib::trio>")
    list(APPEND _kz_pc_libs_private "-ltrio")
  elseif(IS_ABSOLUTE "${_item}")
    _kz_library_name("${_item}" _name)
    list(APPEND _kz_links "$<BUILD_INTERFACE:${_item}>" "$<INSTALL_INTERFACE:${_name}>")
    list(APPEND _kz_pc_libs_private "-l${_name}")
  elseif(_item MATCHES "^([A-Za-z0-9_]+)::(.+)$")
    set(_package "${CMAKE_MATCH_1}")
    set(_component "${CMAKE_MATCH_2}")
    list(APPEND _kz_links "${_item}")
    if(_package STREQUAL "Threads")
      list(APPEND _kz_dependencies "find_dependency(Threads)")
      list(APPEND _kz_pc_libs_private "-lpthread")
    elseif(_package STREQUAL "OpenSSL")
      list(APPEND _kz_dependencies "find_dependency(OpenSSL 3)")
      if(_component STREQUAL "SSL")
        list(APPEND _kz_pc_libs_private "-lssl" "-lcrypto")
      else()
        list(APPEND _kz_pc_libs_private "-lcrypto")
      endif()
    elseif(_package STREQUAL "ZLIB")
      list(APPEND _kz_dependencies "find_dependency(ZLIB)")
      list(APPEND _kz_pc_libs_private "-lz")
    else()
      message(WARNING "kz_static links ${_item}: the installed package does not know "
                      "how to find ${_package}; teach cmake/install.cmake about it")
    endif()
  elseif(_item MATCHES "^-")
    list(APPEND _kz_links "${_item}")
    list(APPEND _kz_pc_libs_private "${_item}")
  else()
    list(APPEND _kz_links "${_item}")
    list(APPEND _kz_pc_libs_private "-l${_item}")
  endif()
endforeach()

# The library is written in C++: a program linking libkz.a needs the C++ runtime
# too. A C++ consumer's link line has it already; a C-only one (CMake does not
# switch the linker of a project that never enabled C++) gets it named here, and
# pkg-config users get it through Libs.private.
if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang" AND NOT CMAKE_CXX_FLAGS MATCHES "-stdlib=libc\\+\\+")
  list(APPEND _kz_links "$<INSTALL_INTERFACE:$<$<NOT:$<LINK_LANGUAGE:CXX>>:stdc++>>")
  list(APPEND _kz_pc_libs_private "-lstdc++")
endif()

list(REMOVE_DUPLICATES _kz_pc_libs_private)
list(REMOVE_DUPLICATES _kz_dependencies)
set_property(TARGET kz_static PROPERTY INTERFACE_LINK_LIBRARIES "${_kz_links}")

# ---- files --------------------------------------------------------------------

install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/kz
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.h")
# Generated from include/kz/features.h.in: the optional parts of this build.
install(FILES ${KZ_GENERATED_INCLUDE}/kz/features.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kz)

install(TARGETS kz kz_static
        EXPORT kzlibTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

install(EXPORT kzlibTargets
        NAMESPACE kzlib::
        FILE kzlibTargets.cmake
        DESTINATION ${KZ_INSTALL_CMAKEDIR})

# ---- find_package(kzlib) --------------------------------------------------------

list(JOIN _kz_dependencies "\n" KZ_CONFIG_DEPENDENCIES)
configure_package_config_file(
  ${CMAKE_CURRENT_LIST_DIR}/kzlibConfig.cmake.in
  ${PROJECT_BINARY_DIR}/cmake/kzlibConfig.cmake
  INSTALL_DESTINATION ${KZ_INSTALL_CMAKEDIR})
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/cmake/kzlibConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES
          ${PROJECT_BINARY_DIR}/cmake/kzlibConfig.cmake
          ${PROJECT_BINARY_DIR}/cmake/kzlibConfigVersion.cmake
        DESTINATION ${KZ_INSTALL_CMAKEDIR})

# ---- pkg-config -------------------------------------------------------------------
#
# The prefix is only known at install time (cmake --install --prefix), so the file
# is written then, with the prefix actually used.
list(JOIN _kz_pc_libs_private " " KZ_PC_LIBS_PRIVATE)
install(CODE "
  set(KZ_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  set(KZ_PC_LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
  set(KZ_PC_INCLUDEDIR \"${CMAKE_INSTALL_INCLUDEDIR}\")
  foreach(_dir KZ_PC_LIBDIR KZ_PC_INCLUDEDIR)
    if(NOT IS_ABSOLUTE \"\${\${_dir}}\")
      set(\${_dir} \"\\\${prefix}/\${\${_dir}}\")
    endif()
  endforeach()
  set(KZ_PC_VERSION \"${PROJECT_VERSION}\")
  set(KZ_PC_LIBS_PRIVATE \"${KZ_PC_LIBS_PRIVATE}\")
  configure_file(\"${CMAKE_CURRENT_LIST_DIR}/kzlib.pc.in\"
                 \"${PROJECT_BINARY_DIR}/pkgconfig/kzlib.pc\" @ONLY)
  set(_destination \"${KZ_INSTALL_PKGCONFIGDIR}\")
  if(NOT IS_ABSOLUTE \"\${_destination}\")
    set(_destination \"\${CMAKE_INSTALL_PREFIX}/\${_destination}\")
  endif()
  file(INSTALL DESTINATION \"\${_destination}\" TYPE FILE FILES \"${PROJECT_BINARY_DIR}/pkgconfig/kzlib.pc\")
")

unset(_kz_static_links)
unset(_kz_links)
unset(_kz_pc_libs_private)
unset(_kz_dependencies)
