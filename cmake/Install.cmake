# What `cmake --install` lays out, by component, in the GNU install folders (lib/ may be
# lib/<triplet> on a multiarch system):
#
#   runtime  the plug-in and the stand-alone platform library: what a firmware image ships
#   dev      the public header, pkg-config files rfevent and rfevent-json, the CMake package
#            (find_package(rfevent CONFIG), target rfevent::headers), the JSON Schema of the
#            delivery status file (share/rfevent/schema/) and the licence
#   tools    the host simulator and its sample test report, for a workstation
#
# `cmake --install build --component runtime` installs the first alone; without --component
# every component is installed. Tests, benchmarks and the leak-check host are never installed.
include(CMakePackageConfigHelpers)

set(rfevent_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/rfevent)
set(rfevent_pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# runtime. The plug-in finds the platform library beside it through its RUNPATH $ORIGIN.
install(TARGETS redfishevent LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime)
if(TARGET rfevent_platform)
    # Only the plug-in links it (there is no header for it): no development symlink.
    install(TARGETS rfevent_platform LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
            COMPONENT runtime NAMELINK_SKIP)
endif()

# dev: the header, and an interface target for it in the CMake package. A plain include
# folder rather than a header file set, so that a firmware build's older CMake can use it.
install(FILES ${PROJECT_SOURCE_DIR}/include/rfevent/redfish_event.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/rfevent COMPONENT dev)
add_library(rfevent_headers INTERFACE)
add_library(rfevent::headers ALIAS rfevent_headers)
set_target_properties(rfevent_headers PROPERTIES EXPORT_NAME headers)
target_include_directories(rfevent_headers INTERFACE
                           $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
                           $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
install(TARGETS rfevent_headers EXPORT rfeventTargets COMPONENT dev)
install(EXPORT rfeventTargets NAMESPACE rfevent:: DESTINATION ${rfevent_cmake_dir} COMPONENT dev)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/install/rfeventConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/package/rfeventConfig.cmake
                              INSTALL_DESTINATION ${rfevent_cmake_dir}
                              PATH_VARS CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR)
# The package holds a header only, the same for every architecture.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/package/rfeventConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion ARCH_INDEPENDENT)
install(FILES ${PROJECT_BINARY_DIR}/package/rfeventConfig.cmake
              ${PROJECT_BINARY_DIR}/package/rfeventConfigVersion.cmake
        DESTINATION ${rfevent_cmake_dir} COMPONENT dev)

# pkg-config: rfevent gives the header's include path (enough for C, and for C++ that does not
# call RF_Json_Reader::parse); rfevent-json adds jsoncpp. Two files, so that a C host does not
# need jsoncpp installed to resolve the first. They are written at install time, for the
# prefix of that install.
foreach(pc rfevent rfevent-json)
    install(CODE "
        include(\"${PROJECT_SOURCE_DIR}/cmake/install/PkgConfigFile.cmake\")
        rfevent_write_pkgconfig(\"${PROJECT_SOURCE_DIR}/cmake/install/${pc}.pc.in\"
            \"${PROJECT_BINARY_DIR}/package/${pc}.pc\" \"${PROJECT_VERSION}\"
            \"${CMAKE_INSTALL_LIBDIR}\" \"${CMAKE_INSTALL_INCLUDEDIR}\")"
            COMPONENT dev)
    install(FILES ${PROJECT_BINARY_DIR}/package/${pc}.pc DESTINATION ${rfevent_pkgconfig_dir}
            COMPONENT dev)
endforeach()

# The schema a host checks "/var/run/rfevent/delivery-status.json" against.
install(FILES ${PROJECT_SOURCE_DIR}/schema/delivery-status.schema.json
        DESTINATION ${CMAKE_INSTALL_DATADIR}/rfevent/schema COMPONENT dev)

install(FILES ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT dev)

# tools
if(TARGET rfevent-sim)
    install(TARGETS rfevent-sim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
    install(FILES ${PROJECT_SOURCE_DIR}/tools/sim/samples/report.json
            DESTINATION ${CMAKE_INSTALL_DATADIR}/rfevent/samples COMPONENT tools)
endif()
