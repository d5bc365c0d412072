# One sanitizer flavour per build tree, applied to everything built here (the plug-in, the
# stand-alone platform, the tests and the tools), so that no frame goes unchecked.
if(RFEVENT_SANITIZE STREQUAL "address")
    add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined
                        -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined)
elseif(RFEVENT_SANITIZE STREQUAL "thread")
    add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
    add_link_options(-fsanitize=thread)
elseif(NOT RFEVENT_SANITIZE STREQUAL "")
    message(FATAL_ERROR "RFEVENT_SANITIZE must be '', 'address' or 'thread'")
endif()
if(NOT RFEVENT_SANITIZE STREQUAL "" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # GCC's flow-based -Wmaybe-uninitialized misfires on instrumented code (for example in
    # <regex>), as GCC's manual warns for -fsanitize; the plain builds keep the warning.
    add_compile_options(-Wno-maybe-uninitialized)
endif()

# libFuzzer builds: every object gets coverage instrumentation; only the fuzz targets link the
# fuzzer's main (fuzz/CMakeLists.txt).
if(RFEVENT_BUILD_FUZZERS)
    if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        message(FATAL_ERROR "RFEVENT_BUILD_FUZZERS needs clang (use the 'fuzz' preset)")
    endif()
    add_compile_options(-fsanitize=fuzzer-no-link)
endif()
