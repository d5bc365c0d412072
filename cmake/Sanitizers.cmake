# One sanitizer flavour per build tree, applied to everything built here.
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
