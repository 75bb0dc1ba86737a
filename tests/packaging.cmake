# Packaging checks (included from tests/CMakeLists.txt):
#   packaging.exports  libkz.so exports plain C names only, SONAME libkz.so.<major>
#   packaging.install  an install into a scratch prefix works from an outside C
#                      project through find_package(kzlib) and pkg-config
# Both run the drivers in tests/packaging/ as CMake scripts; neither needs the network.

# CMake's binutils for this toolchain; the driver looks in PATH when these are empty.
set(KZ_NM "${CMAKE_NM}")
set(KZ_READELF "${CMAKE_READELF}")

add_test(NAME packaging.exports
  COMMAND ${CMAKE_COMMAND}
          -DKZ_LIBRARY=$<TARGET_FILE:kz>
          -DKZ_SONAME=libkz.so.${KZ_SOVERSION}
          "-DNM=${KZ_NM}" "-DREADELF=${KZ_READELF}"
          -P ${CMAKE_CURRENT_SOURCE_DIR}/packaging/exports.cmake)

# The consumer is built with the same sanitizers as the library it links.
set(KZ_PACKAGING_FLAGS "")
if(KZ_SANITIZE)
  set(KZ_PACKAGING_FLAGS "-fsanitize=${KZ_SANITIZE} -fno-omit-frame-pointer")
endif()

add_test(NAME packaging.install
  COMMAND ${CMAKE_COMMAND}
          -DKZ_BUILD_DIR=${PROJECT_BINARY_DIR}
          -DKZ_SOURCE_DIR=${PROJECT_SOURCE_DIR}
          -DKZ_VERSION=${PROJECT_VERSION}
          -DKZ_SOVERSION=${KZ_SOVERSION}
          -DKZ_LIBDIR=${CMAKE_INSTALL_LIBDIR}
          -DKZ_INCLUDEDIR=${CMAKE_INSTALL_INCLUDEDIR}
          -DKZ_C_COMPILER=${CMAKE_C_COMPILER}
          -DKZ_CONFIG=$<CONFIG>
          -DKZ_GENERATOR=${CMAKE_GENERATOR}
          -DKZ_MAKE_PROGRAM=${CMAKE_MAKE_PROGRAM}
          "-DKZ_EXTRA_FLAGS=${KZ_PACKAGING_FLAGS}"
          -P ${CMAKE_CURRENT_SOURCE_DIR}/packaging/install.cmake)
set_tests_properties(packaging.exports packaging.install PROPERTIES LABELS packaging)
set_tests_properties(packaging.install PROPERTIES TIMEOUT 600)
