# Run by ctest (tests/install/CMakeLists.txt passes the build's settings with -D):
#  1. installs the build into one scratch prefix per component, and once with no component,
#     and checks that each holds exactly its files;
#  2. checks the libraries' ELF names: the platform library's SONAME carries the major
#     version, the plug-in keeps the file name the host loads;
#  3. compiles a C host and two C++ hosts with nothing but `pkg-config --cflags`, and again
#     with 64-bit time and file offsets asked for (the header must not care which a 32-bit
#     host picks, so the files carry no such flag), and runs the C host against the plug-in
#     of the runtime-only prefix;
#  4. configures and builds a host project that uses find_package(rfevent CONFIG), whose
#     targets carry no compile definitions.

foreach(dir LIBDIR INCLUDEDIR BINDIR DATADIR DOCDIR)
    if(IS_ABSOLUTE "${${dir}}")
        # An absolute folder lies outside any scratch prefix: nothing here can be checked
        # without writing there.
        message(STATUS "install test skipped: CMAKE_INSTALL_${dir} is absolute (${${dir}})")
        return()
    endif()
endforeach()

function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE out
                    ERROR_VARIABLE out)
    if(NOT status EQUAL 0)
        string(JOIN " " command ${ARGN})
        message(FATAL_ERROR "failed (${status}): ${command}\n${out}")
    endif()
    set(output "${out}" PARENT_SCOPE)
endfunction()

function(expect_tree prefix)
    set(expected ${ARGN})
    list(SORT expected)
    file(GLOB_RECURSE found LIST_DIRECTORIES false RELATIVE ${prefix} ${prefix}/*)
    list(SORT found)
    if(NOT found STREQUAL expected)
        string(REPLACE ";" "\n  " found "${found}")
        string(REPLACE ";" "\n  " expected "${expected}")
        message(FATAL_ERROR "${prefix} holds\n  ${found}\nexpected\n  ${expected}")
    endif()
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})

# 1. The trees.
set(runtime_files ${LIBDIR}/libredfishevent.so)
if(PLATFORM_VERSION)
    string(REGEX MATCH "^[0-9]+" major ${PLATFORM_VERSION})
    list(APPEND runtime_files ${LIBDIR}/librfevent-platform.so.${major}
         ${LIBDIR}/librfevent-platform.so.${PLATFORM_VERSION})
endif()
set(dev_files
    ${INCLUDEDIR}/rfevent/redfish_event.h
    ${LIBDIR}/pkgconfig/rfevent.pc
    ${LIBDIR}/pkgconfig/rfevent-json.pc
    ${LIBDIR}/cmake/rfevent/rfeventConfig.cmake
    ${LIBDIR}/cmake/rfevent/rfeventConfigVersion.cmake
    ${LIBDIR}/cmake/rfevent/rfeventTargets.cmake
    ${DATADIR}/rfevent/schema/delivery-status.schema.json
    ${DOCDIR}/LICENSE)
set(tools_files "")
if(WITH_TOOLS)
    set(tools_files ${BINDIR}/rfevent-sim ${DATADIR}/rfevent/samples/report.json)
endif()
set(all_files ${runtime_files} ${dev_files} ${tools_files})

foreach(component runtime dev tools all)
    set(prefix_${component} ${WORK_DIR}/${component})
    if(component STREQUAL "all")
        run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix_all})
    else()
        run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix_${component}}
            --component ${component})
    endif()
    expect_tree(${prefix_${component}} ${${component}_files})
endforeach()

# 2. ELF names.
if(READELF)
    run(${READELF} -d ${prefix_runtime}/${LIBDIR}/libredfishevent.so)
    if(NOT output MATCHES "soname: \\[libredfishevent\\.so\\]")
        message(FATAL_ERROR "the plug-in's SONAME is not libredfishevent.so:\n${output}")
    endif()
    if(PLATFORM_VERSION)
        if(NOT output MATCHES "NEEDED[^\n]*\\[librfevent-platform\\.so\\.${major}\\]")
            message(FATAL_ERROR "the plug-in does not need librfevent-platform.so.${major}:\n"
                                "${output}")
        endif()
        run(${READELF} -d ${prefix_runtime}/${LIBDIR}/librfevent-platform.so.${PLATFORM_VERSION})
        if(NOT output MATCHES "soname: \\[librfevent-platform\\.so\\.${major}\\]")
            message(FATAL_ERROR "the platform library's SONAME lacks the major version:\n"
                                "${output}")
        endif()
    endif()
    # No thread-local storage of their own: a loaded library's is allocated at a thread's first
    # use, and the C library ends the whole process when that allocation fails.
    set(loaded ${prefix_runtime}/${LIBDIR}/libredfishevent.so)
    if(PLATFORM_VERSION)
        list(APPEND loaded ${prefix_runtime}/${LIBDIR}/librfevent-platform.so.${PLATFORM_VERSION})
    endif()
    foreach(library ${loaded})
        run(${READELF} -lW ${library})
        if(output MATCHES "\n *TLS ")
            message(FATAL_ERROR "${library} has thread-local storage (a TLS segment):\n"
                                "${output}")
        endif()
    endforeach()
endif()

# 3. pkg-config only: the dev prefix alone, nothing of this build's include paths.
set(ENV{PKG_CONFIG_PATH} ${prefix_dev}/${LIBDIR}/pkgconfig)
unset(ENV{PKG_CONFIG_SYSROOT_DIR})
run(${PKG_CONFIG} --cflags rfevent)
string(STRIP "${output}" rfevent_cflags)
if(NOT rfevent_cflags STREQUAL "-I${prefix_dev}/${INCLUDEDIR}")
    message(FATAL_ERROR "pkg-config --cflags rfevent gives '${rfevent_cflags}'")
endif()
run(${PKG_CONFIG} --cflags rfevent-json)
string(STRIP "${output}" json_cflags)
if(json_cflags MATCHES "_TIME_BITS|_FILE_OFFSET_BITS")
    message(FATAL_ERROR "pkg-config --cflags rfevent-json imposes a time or offset size: "
                        "'${json_cflags}'")
endif()
run(${PKG_CONFIG} --variable=plugin rfevent)
string(STRIP "${output}" plugin)
if(NOT plugin STREQUAL "${prefix_dev}/${LIBDIR}/libredfishevent.so")
    message(FATAL_ERROR "pkg-config --variable=plugin rfevent gives '${plugin}'")
endif()

separate_arguments(rfevent_cflags UNIX_COMMAND "${rfevent_cflags}")
separate_arguments(json_cflags UNIX_COMMAND "${json_cflags}")
separate_arguments(c_flags UNIX_COMMAND "${C_FLAGS}")
separate_arguments(cxx_flags UNIX_COMMAND "${CXX_FLAGS}")
separate_arguments(link_flags UNIX_COMMAND "${LINK_FLAGS}")
separate_arguments(emulator UNIX_COMMAND "${EMULATOR}")
set(warnings -Wall -Wextra -Werror -pedantic)

set(c_host ${WORK_DIR}/c_host)
run(${CC} ${c_flags} -std=c11 ${warnings} ${rfevent_cflags} ${SOURCE_DIR}/host.c ${link_flags}
    -l${DL_LIBS} -o ${c_host})
run(${CXX} ${cxx_flags} -std=c++17 ${warnings} ${rfevent_cflags} -c ${SOURCE_DIR}/host.cpp
    -o ${WORK_DIR}/host.o)
run(${CXX} ${cxx_flags} -std=c++17 ${warnings} ${json_cflags} -c ${SOURCE_DIR}/json_host.cpp
    -o ${WORK_DIR}/json_host.o)
# A host that chose 64-bit time and file offsets, as a 32-bit host may (or may not).
set(time64 -D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64)
run(${CC} ${c_flags} ${time64} -std=c11 ${warnings} ${rfevent_cflags} -c ${SOURCE_DIR}/host.c
    -o ${WORK_DIR}/host_time64.o)
run(${CXX} ${cxx_flags} ${time64} -std=c++17 ${warnings} ${json_cflags} -c
    ${SOURCE_DIR}/json_host.cpp -o ${WORK_DIR}/json_host_time64.o)

# The runtime component alone must load: the plug-in finds the platform library beside it.
set(ENV{RFEVENT_ROOT} ${WORK_DIR}/root)
set(ENV{RFEVENT_LOG_FILE} ${WORK_DIR}/plugin.log)
file(MAKE_DIRECTORY ${WORK_DIR}/root)
run(${emulator} ${c_host} ${prefix_runtime}/${LIBDIR}/libredfishevent.so)
string(STRIP "${output}" output)
message(STATUS "C host: ${output}")

# 4. find_package, with the dev prefix on CMAKE_PREFIX_PATH.
set(host_build ${WORK_DIR}/find_package)
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/find_package -B ${host_build} -G ${GENERATOR}
    -DCMAKE_MAKE_PROGRAM=${MAKE_PROGRAM} -DCMAKE_PREFIX_PATH=${prefix_dev}
    -DEXPECTED_PACKAGE_DIR=${prefix_dev}/${LIBDIR}/cmake/rfevent
    -DCMAKE_C_COMPILER=${CC} -DCMAKE_CXX_COMPILER=${CXX} "-DCMAKE_C_FLAGS=${C_FLAGS}"
    "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${LINK_FLAGS}")
run(${CMAKE_COMMAND} --build ${host_build})
message(STATUS "find_package(rfevent CONFIG) host built")
