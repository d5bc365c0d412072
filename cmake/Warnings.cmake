# Warnings are errors for the project's own code.
add_library(rfevent_warnings INTERFACE)
target_compile_options(rfevent_warnings INTERFACE -Wall -Wextra -Werror
                                               $<$<CXX_COMPILER_ID:GNU>:-Wshadow=local>)
