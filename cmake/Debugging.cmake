# What lets developers see inside a running or crashed firmware:
#
#   QUORVIN_TRACEPOINTS  static tracepoints (USDT, <sys/sdt.h> from Debian's
#                        systemtap-sdt-dev, header-only); without the header
#                        or with the option off the probe macros are empty
#   tools/gdb/quorvin.py the gdb commands, installed where gdb auto-loads them
#                        for the installed library:
#                        <datadir>/gdb/auto-load/<libdir>/libquorvin.so.9.x.y-gdb.py
#   tools/bpftrace/*.bt  bpftrace scripts, in <datadir>/quorvin/bpftrace
#
# Both land in the runtime package, beside the library they read.

option(QUORVIN_TRACEPOINTS "Build the static tracepoints (USDT) into the library" ON)
include(CheckIncludeFileCXX)
check_include_file_cxx(sys/sdt.h QUORVIN_HAVE_SDT_H)
set(quorvin_sdt ${QUORVIN_HAVE_SDT_H})
if(NOT quorvin_sdt AND CMAKE_CROSSCOMPILING)
  # The header is written for every architecture (Debian installs it per
  # architecture only by custom): a cross build borrows the host's copy.
  file(GLOB quorvin_host_sdt /usr/include/sys/sdt.h /usr/include/*-linux-gnu*/sys/sdt.h)
  if(quorvin_host_sdt)
    list(GET quorvin_host_sdt 0 quorvin_host_sdt)
    get_filename_component(quorvin_host_sdt_dir ${quorvin_host_sdt} DIRECTORY)
    file(COPY ${quorvin_host_sdt_dir}/sdt.h ${quorvin_host_sdt_dir}/sdt-config.h
         DESTINATION ${PROJECT_BINARY_DIR}/sdt/sys)
    target_include_directories(quorvin_objects SYSTEM PRIVATE ${PROJECT_BINARY_DIR}/sdt)
    set(quorvin_sdt ON)
  endif()
endif()
if(QUORVIN_TRACEPOINTS AND NOT quorvin_sdt)
  message(STATUS "quorvin: <sys/sdt.h> not found (Debian: systemtap-sdt-dev); building without tracepoints")
endif()
target_compile_definitions(quorvin_objects PRIVATE
  QUORVIN_TRACEPOINTS=$<AND:$<BOOL:${QUORVIN_TRACEPOINTS}>,$<BOOL:${quorvin_sdt}>>)

# gdb looks for <its data dir>/auto-load/<real path of the library>-gdb.py. A
# libdir inside the prefix is taken relative to the prefix used at install
# time, so that packages made by cpack (which installs under its own prefix)
# name the path the package installs the library at.
file(RELATIVE_PATH quorvin_libdir_in_prefix "${CMAKE_INSTALL_PREFIX}" "${CMAKE_INSTALL_FULL_LIBDIR}")
if(quorvin_libdir_in_prefix MATCHES "^\\.\\.")
  set(QUORVIN_GDB_AUTOLOAD_DIR "${CMAKE_INSTALL_DATADIR}/gdb/auto-load${CMAKE_INSTALL_FULL_LIBDIR}")
else()
  set(QUORVIN_GDB_AUTOLOAD_DIR "${CMAKE_INSTALL_DATADIR}/gdb/auto-load\${CMAKE_INSTALL_PREFIX}/${quorvin_libdir_in_prefix}")
endif()
install(FILES ${PROJECT_SOURCE_DIR}/tools/gdb/quorvin.py
  DESTINATION ${QUORVIN_GDB_AUTOLOAD_DIR}
  RENAME libquorvin.so.${PROJECT_VERSION}-gdb.py
  COMPONENT runtime)
file(GLOB QUORVIN_BPFTRACE_SCRIPTS CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tools/bpftrace/*.bt)
install(PROGRAMS ${QUORVIN_BPFTRACE_SCRIPTS}
  DESTINATION ${CMAKE_INSTALL_DATADIR}/quorvin/bpftrace
  COMPONENT runtime)
