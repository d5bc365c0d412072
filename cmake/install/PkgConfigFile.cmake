# Runs at install time (install(CODE) in cmake/Install.cmake): writes one pkg-config file for
# the prefix of this install, so that `cmake --install --prefix DIR` gives files that point
# into DIR. Relative install folders are written below ${prefix}; absolute ones as they are.
function(rfevent_write_pkgconfig template output version libdir includedir)
    set(RFEVENT_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
    set(RFEVENT_PC_VERSION "${version}")
    foreach(kind libdir includedir)
        if(IS_ABSOLUTE "${${kind}}")
            set(value "${${kind}}")
        else()
            set(value "\${prefix}/${${kind}}")
        endif()
        string(TOUPPER "${kind}" upper)
        set(RFEVENT_PC_${upper} "${value}")
    endforeach()
    configure_file("${template}" "${output}" @ONLY)
endfunction()
