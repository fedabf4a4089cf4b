# Debian packages, built by `cpack` in a configured build tree:
#
#   libquorvin9      the runtime library (libquorvin.so.9.0.0 and the soname link)
#   libquorvin-dev   headers, the libquorvin.so link, quorvin.pc and the CMake
#                    package; depends on the exact same libquorvin9
#
# Both install under /usr, the library in Debian's multiarch folder
# (/usr/lib/x86_64-linux-gnu, /usr/lib/aarch64-linux-gnu: CMAKE_INSTALL_LIBDIR).
# The architecture is the target's, so the arm64 cross build makes arm64
# packages. cpack's deb generator needs the `file` program. Dependencies are written out rather than
# computed by dpkg-shlibdeps, which cannot inspect a cross-built library.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME quorvin)
set(CPACK_PACKAGE_VENDOR "quorvin developers")
set(CPACK_PACKAGE_CONTACT "quorvin developers <quorvin@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_STRIP_FILES TRUE)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)   # shlibs, and an ldconfig trigger

if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|amd64|AMD64)$")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
endif()

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libquorvin9)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libc6 (>= 2.34), libstdc++6 (>= 12), libgcc-s1")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "Runs firmware written for the kernel's interface as one Linux process (runtime library).")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libquorvin-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libquorvin9 (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "Headers, pkg-config file and CMake package for building against libquorvin.")

include(CPack)

# What tests/install/check.sh needs to build and run programs against the
# packages of this tree: the compiler, the package architecture, the
# toolchain file and the emulator of a cross build.
list(JOIN CMAKE_CROSSCOMPILING_EMULATOR "' '" quorvin_emulator)
if(quorvin_emulator)
  set(quorvin_emulator "'${quorvin_emulator}'")
endif()
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/package/build.env CONTENT [=[
package_cc='@CMAKE_C_COMPILER@'
package_arch='@CPACK_DEBIAN_PACKAGE_ARCHITECTURE@'
package_toolchain='@CMAKE_TOOLCHAIN_FILE@'
package_emulator=(@quorvin_emulator@)
]=] @ONLY)
