# 64-bit time and file offsets on a 32-bit target. Where the C library's time_t or off_t is
# 32 bits wide by default but it offers 64-bit ones behind _TIME_BITS=64 and
# _FILE_OFFSET_BITS=64 (glibc 2.34 and later), everything this project builds (plug-in,
# platform library, tests, tools, benchmarks) is compiled with both: timestamps, waits and
# file sizes then stay right after 2038-01-19 and beyond 2 GiB. A target whose types are
# already 64 bits wide (x86-64, aarch64) gets nothing added.
#
# RFEVENT_TIME64_DEFINITIONS holds what was added (empty when nothing was). The public header
# declares no type whose size depends on these settings, so a host need not share them.
include(CheckCSourceCompiles)
include(CMakePushCheckState)

set(rfevent_time64_probe "
#include <sys/types.h>
#include <time.h>
_Static_assert(sizeof(time_t) == 8 && sizeof(off_t) == 8, \"64-bit time_t and off_t\");
int main(void) { return 0; }
")

cmake_push_check_state(RESET)
set(CMAKE_REQUIRED_QUIET ON)
check_c_source_compiles("${rfevent_time64_probe}" RFEVENT_TIME64_NATIVE)
if(NOT RFEVENT_TIME64_NATIVE)
    set(CMAKE_REQUIRED_DEFINITIONS -D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64)
    check_c_source_compiles("${rfevent_time64_probe}" RFEVENT_TIME64_BY_DEFINITIONS)
endif()
cmake_pop_check_state()

set(RFEVENT_TIME64_DEFINITIONS "")
if(RFEVENT_TIME64_NATIVE)
    message(STATUS "time_t and off_t: 64 bits without extra definitions")
elseif(RFEVENT_TIME64_BY_DEFINITIONS)
    set(RFEVENT_TIME64_DEFINITIONS _TIME_BITS=64 _FILE_OFFSET_BITS=64)
    add_compile_definitions(${RFEVENT_TIME64_DEFINITIONS})
    message(STATUS "time_t and off_t: 64 bits with ${RFEVENT_TIME64_DEFINITIONS}")
else()
    message(WARNING "The C library offers no 64-bit time_t: timestamps of this build are wrong "
                    "after 2038-01-19 (glibc 2.34 or later has one)")
endif()
