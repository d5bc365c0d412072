#include "delivery/jxlog.h"

#include <cstdarg>
#include <cstdint>

#include "base/config.h"
#include "base/log.h"

using rfevent::kLogDebug;
using rfevent::kLogError;

namespace {

constexpr uint32_t kMaxArguments = 5;
constexpr int kArgumentsItemType = 6;

} // namespace

int SubmitJXLog(const char* msgId, int argCount, ...) {
    RF_ENTER();
    char* args[kMaxArguments] = {};
    uint32_t count = 0;
    char buffer[1024] = {};
    uint32_t bufferSize = sizeof buffer;
    JXLogTLVList* list = nullptr;

    if (msgId == nullptr) {
        RF_LOG(kLogError, "[%s():%d]JX Msgid is NULL.");
        RF_EXIT();
        return kStatusNullObject;
    }

    va_list ap;
    va_start(ap, argCount);
    // Callers pass at most five arguments; further ones would have no slot and are not taken.
    while (static_cast<int>(count) < argCount && count < kMaxArguments) {
        char* arg = va_arg(ap, char*);
        if (arg == nullptr) {
            RF_LOG(kLogDebug, "[%s():%d]Breaking for argcount = %d", count);
            break;
        }
        RF_LOG(kLogDebug, "[%s():%d]arg = %s", arg);
        args[count++] = arg;
    }
    va_end(ap);

    int status = JXLOGWRAPBuildMsgArgsBuffer(args, count, buffer, &bufferSize);
    if (status != 0) {
        RF_LOG(kLogError, "[%s():%d]JXLOGWRAPBuildMsgArgsBuffer Failed with status [%d]\n", status);
        RF_EXIT();
        return status;
    }
    RF_LOG(kLogDebug, "[%s():%d]JXLOGWRAPBuildMsgArgsBuffer Success\n");

    status = JXLOGWRAPCreateTLVList(&list);
    if (status != 0) {
        RF_LOG(kLogError, "[%s():%d]JXLOGWRAPCreateTLVList Failed with status [%d]\n", status);
        RF_EXIT();
        return status;
    }
    RF_LOG(kLogDebug, "[%s():%d]JXLOGWRAPCreateTLVList Success\n");

    status =
        JXLOGWRAPAddTLVToList(kArgumentsItemType, static_cast<uint16_t>(bufferSize), buffer, list);
    if (status != 0) {
        RF_LOG(kLogError, "[%s():%d]JXLOGWRAPAddTLVToList Failed:[%d],Freeing TLVlist\n", status);
        if (list != nullptr) {
            JXLOGWRAPFreeTLVList(list);
        }
        RF_EXIT();
        return status;
    }
    RF_LOG(kLogDebug, "[%s():%d]JXLOGWRAPAddTLVToList Success\n");

    status = JXLOGWRAPSubmitEvent(65, 4, 2, msgId, 0, 0, list);
    if (status != 0) {
        RF_LOG(kLogError, "[%s():%d]JXLOGWRAPSubmitEvent() failed with status [%d] \n", status);
    } else {
        RF_LOG(kLogDebug, "[%s():%d]JXLOGWRAPSubmitEvent() Success\n");
    }
    if (list != nullptr) {
        JXLOGWRAPFreeTLVList(list);
    }
    RF_EXIT();
    return status;
}
