#include "delivery/jxlog.h"

#include <cstdarg>
#include <cstdint>
#include <string>

#include "base/config.h"
#include "base/log.h"
#include "platform/platform.h"

namespace rfevent {

namespace {

constexpr uint32_t kMaxArguments = 5;
constexpr int kArgumentsItemType = 6;

} // namespace

namespace {

// Takes up to five text arguments; a null one ends the list early.
uint32_t takeArguments(va_list ap, int argCount, char* (&args)[kMaxArguments]) {
    uint32_t count = 0;
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
    return count;
}

// The item list of one entry: its argument buffer as one item. 0 and the list, or the failing
// platform status (nothing is left allocated).
int buildItemList(char* buffer, uint32_t bufferSize, JXLogTLVList** list) {
    int status = JXLOGWRAPCreateTLVList(list);
    if (status != 0) {
        RF_LOG(kLogError, "[%s():%d]JXLOGWRAPCreateTLVList Failed with status [%d]\n", status);
        return status;
    }
    RF_LOG(kLogDebug, "[%s():%d]JXLOGWRAPCreateTLVList Success\n");
    status =
        JXLOGWRAPAddTLVToList(kArgumentsItemType, static_cast<uint16_t>(bufferSize), buffer, *list);
    if (status != 0) {
        RF_LOG(kLogError, "[%s():%d]JXLOGWRAPAddTLVToList Failed:[%d],Freeing TLVlist\n", status);
        if (*list != nullptr) {
            JXLOGWRAPFreeTLVList(*list);
            *list = nullptr;
        }
        return status;
    }
    RF_LOG(kLogDebug, "[%s():%d]JXLOGWRAPAddTLVToList Success\n");
    return 0;
}

} // namespace

int SubmitJXLog(const char* msgId, int argCount, ...) {
    RF_ENTER();
    if (msgId == nullptr) {
        RF_LOG(kLogError, "[%s():%d]JX Msgid is NULL.");
        RF_EXIT();
        return kStatusNullObject;
    }
    char* args[kMaxArguments] = {};
    va_list ap;
    va_start(ap, argCount);
    const uint32_t count = takeArguments(ap, argCount, args);
    va_end(ap);

    // The 1024-byte buffer lives on the heap: this runs on an alert's caller's stack.
    std::string buffer(1024, '\0');
    uint32_t bufferSize = static_cast<uint32_t>(buffer.size());
    int status = JXLOGWRAPBuildMsgArgsBuffer(args, count, &buffer[0], &bufferSize);
    if (status != 0) {
        RF_LOG(kLogError, "[%s():%d]JXLOGWRAPBuildMsgArgsBuffer Failed with status [%d]\n", status);
        RF_EXIT();
        return status;
    }
    RF_LOG(kLogDebug, "[%s():%d]JXLOGWRAPBuildMsgArgsBuffer Success\n");

    JXLogTLVList* list = nullptr;
    status = buildItemList(buffer.data(), bufferSize, &list);
    if (status == 0) {
        status = JXLOGWRAPSubmitEvent(65, 4, 2, msgId, 0, 0, list);
        if (status != 0) {
            RF_LOG(kLogError, "[%s():%d]JXLOGWRAPSubmitEvent() failed with status [%d] \n", status);
        } else {
            RF_LOG(kLogDebug, "[%s():%d]JXLOGWRAPSubmitEvent() Success\n");
        }
        if (list != nullptr) {
            JXLOGWRAPFreeTLVList(list);
        }
    }
    RF_EXIT();
    return status;
}

} // namespace rfevent
