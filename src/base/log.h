// Logging through the platform logger, module 139.
//   RF_LOG(level, "[%s():%d]text %d", value)  -- __func__ and __LINE__ fill the leading pair
//   RF_LOG_AT(spot, level, ...)                -- the same for a caller's spot (RF_HERE), so
//                                                 shared code logs under its caller's name
//   RF_ENTER() / RF_EXIT()                     -- "[%s:%d]Entering %s Function" and "Exiting"
#ifndef RFEVENT_BASE_LOG_H
#define RFEVENT_BASE_LOG_H

#include "platform/platform.h"

namespace rfevent {

constexpr int kLogModule = 139;
constexpr int kLogError = 2;
constexpr int kLogDebug = 4;
constexpr int kLogInfo = 5;

// Base name of a source path, for the entry and exit lines.
constexpr const char* sourceBaseName(const char* path) {
    const char* base = path;
    for (const char* p = path; *p != '\0'; ++p) {
        if (*p == '/') {
            base = p + 1;
        }
    }
    return base;
}

// Where a log line is said to come from: a function name and a line.
struct SourceSpot {
    const char* function;
    int line;
};

} // namespace rfevent

#define RF_HERE (::rfevent::SourceSpot{__func__, __LINE__})

#define RF_LOG_AT(spot, level, format, ...)                                                        \
    ::orvaprintf((level), ::rfevent::kLogModule, format, (spot).function, (spot).line,             \
                 ##__VA_ARGS__)

#define RF_LOG(level, format, ...)                                                                 \
    ::orvaprintf((level), ::rfevent::kLogModule, format, __func__, __LINE__, ##__VA_ARGS__)

#define RF_ENTER()                                                                                 \
    ::orvaprintf(::rfevent::kLogDebug, ::rfevent::kLogModule, "[%s:%d]Entering %s Function",       \
                 ::rfevent::sourceBaseName(__FILE__), __LINE__, __func__)

#define RF_EXIT()                                                                                  \
    ::orvaprintf(::rfevent::kLogDebug, ::rfevent::kLogModule, "[%s:%d]Exiting %s Function",        \
                 ::rfevent::sourceBaseName(__FILE__), __LINE__, __func__)

#endif // RFEVENT_BASE_LOG_H
