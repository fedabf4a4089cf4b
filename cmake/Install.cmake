# Installation of libquorvin for applications built outside this tree
# (<libdir> is CMAKE_INSTALL_LIBDIR: lib/x86_64-linux-gnu or
# lib/aarch64-linux-gnu on Debian, see the top CMakeLists.txt):
#
#   <prefix>/<libdir>/libquorvin.so.9.0.0, libquorvin.so.9, libquorvin.so
#   <prefix>/include/quorvin/*.h
#   <prefix>/<libdir>/cmake/quorvin/   find_package(quorvin) -> target quorvin::quorvin
#   <prefix>/<libdir>/pkgconfig/quorvin.pc
#
# Only the shared library is installed; quorvin_objects and quorvin_internal
# exist for the build and the white-box tests. Both package descriptions
# locate the prefix from their own place in it, so a tree installed with
# `cmake --install <build> --prefix <dir>` can be moved; quorvin.pc names /usr
# outright when installed there (see below).

include(CMakePackageConfigHelpers)

set(QUORVIN_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/quorvin"
    CACHE STRING "Where the CMake package files go, relative to the prefix")
set(QUORVIN_INSTALL_PKGCONFIGDIR "${CMAKE_INSTALL_LIBDIR}/pkgconfig"
    CACHE STRING "Where quorvin.pc goes, relative to the prefix")

install(TARGETS quorvin EXPORT quorvinTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    COMPONENT runtime
    NAMELINK_COMPONENT development)

install(FILES ${QUORVIN_PUBLIC_HEADERS}
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quorvin
  COMPONENT development)

# CMake package. The target carries the include directory and Threads::Threads,
# so the configuration file has to find Threads for the consumer.
install(EXPORT quorvinTargets
  NAMESPACE quorvin::
  DESTINATION ${QUORVIN_INSTALL_CMAKEDIR}
  COMPONENT development)

file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/package/quorvinConfig.cmake @ONLY CONTENT [=[
# quorvin @PROJECT_VERSION@: provides the imported target quorvin::quorvin.
include(CMakeFindDependencyMacro)
find_dependency(Threads)
include("${CMAKE_CURRENT_LIST_DIR}/quorvinTargets.cmake")
]=])
write_basic_package_version_file(${PROJECT_BINARY_DIR}/package/quorvinConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/package/quorvinConfig.cmake
    ${PROJECT_BINARY_DIR}/package/quorvinConfigVersion.cmake
  DESTINATION ${QUORVIN_INSTALL_CMAKEDIR}
  COMPONENT development)

# pkg-config. Installed under /usr (the Debian packages), quorvin.pc names the
# system's own folders, which pkg-config leaves out: `pkg-config --cflags
# --libs quorvin` prints just -lquorvin. Under any other prefix the prefix is
# found from the file's own place, so the installed tree can be moved. One
# build tree serves both, so the choice is made when installing. Absolute
# install directories are written as they are.
set(QUORVIN_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
set(QUORVIN_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
if(IS_ABSOLUTE "${QUORVIN_INSTALL_PKGCONFIGDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}"
   OR IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(QUORVIN_PC_SYSTEM_PREFIX "${CMAKE_INSTALL_PREFIX}")
  set(QUORVIN_PC_RELOCATABLE_PREFIX "${CMAKE_INSTALL_PREFIX}")
  set(QUORVIN_PC_LIBDIR "${CMAKE_INSTALL_FULL_LIBDIR}")
  set(QUORVIN_PC_INCLUDEDIR "${CMAKE_INSTALL_FULL_INCLUDEDIR}")
else()
  file(RELATIVE_PATH up "/prefix/${QUORVIN_INSTALL_PKGCONFIGDIR}" "/prefix")
  string(REGEX REPLACE "/$" "" up "${up}")
  set(QUORVIN_PC_SYSTEM_PREFIX /usr)
  set(QUORVIN_PC_RELOCATABLE_PREFIX "\${pcfiledir}/${up}")
endif()
# The library brings its own dependency on the threads library; -pthread is
# only needed by someone linking it statically.
foreach(kind SYSTEM RELOCATABLE)
  set(QUORVIN_PC_PREFIX "${QUORVIN_PC_${kind}_PREFIX}")
  file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/package/quorvin-${kind}.pc @ONLY CONTENT [=[
prefix=@QUORVIN_PC_PREFIX@
libdir=@QUORVIN_PC_LIBDIR@
includedir=@QUORVIN_PC_INCLUDEDIR@

Name: quorvin
Description: @PROJECT_DESCRIPTION@
Version: @PROJECT_VERSION@
Cflags: -I${includedir}
Libs: -L${libdir} -lquorvin
Libs.private: -pthread
]=])
endforeach()
install(CODE "
  set(kind RELOCATABLE)
  if(CMAKE_INSTALL_PREFIX MATCHES \"^/usr/?$\")
    set(kind SYSTEM)
  endif()
  file(COPY_FILE \"${PROJECT_BINARY_DIR}/package/quorvin-\${kind}.pc\" \"${PROJECT_BINARY_DIR}/package/quorvin.pc\")"
  COMPONENT development)
install(FILES ${PROJECT_BINARY_DIR}/package/quorvin.pc
  DESTINATION ${QUORVIN_INSTALL_PKGCONFIGDIR}
  COMPONENT development)
