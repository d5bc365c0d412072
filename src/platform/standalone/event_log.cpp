// Event log: a submitted event becomes one JSON line in var/lib/rfevent/eventlog.jsonl.
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <json/json.h>

#include "platform/platform.h"
#include "platform/standalone/data_dir.h"

struct JXLogTLVList {
    struct Item {
        int type;
        std::string data;
    };
    std::vector<Item> items;
};

namespace {

// Message arguments travel packed: each argument followed by its NUL.
Json::Value unpackArguments(const std::string& packed) {
    Json::Value args(Json::arrayValue);
    size_t start = 0;
    while (start < packed.size()) {
        size_t end = packed.find('\0', start);
        if (end == std::string::npos) {
            end = packed.size();
        }
        args.append(packed.substr(start, end - start));
        start = end + 1;
    }
    return args;
}

} // namespace

extern "C" {

int JXLOGWRAPBuildMsgArgsBuffer(char** args, uint32_t argCount, char* buffer,
                                uint32_t* bufferSize) {
    if (buffer == nullptr || bufferSize == nullptr || (argCount > 0 && args == nullptr)) {
        return 22;
    }
    uint32_t used = 0;
    for (uint32_t i = 0; i < argCount; ++i) {
        const char* arg = args[i] ? args[i] : "";
        size_t length = std::strlen(arg) + 1;
        if (used + length > *bufferSize) {
            return 75;
        }
        std::memcpy(buffer + used, arg, length);
        used += static_cast<uint32_t>(length);
    }
    *bufferSize = used;
    return 0;
}

int JXLOGWRAPCreateTLVList(JXLogTLVList** list) {
    if (list == nullptr) {
        return 22;
    }
    *list = new (std::nothrow) JXLogTLVList;
    return *list ? 0 : 12;
}

int JXLOGWRAPAddTLVToList(int type, uint16_t length, const void* data, JXLogTLVList* list) {
    if (list == nullptr || (length > 0 && data == nullptr)) {
        return 22;
    }
    list->items.push_back({type, std::string(static_cast<const char*>(data), length)});
    return 0;
}

int JXLOGWRAPSubmitEvent(int category, int severityCode, int eventType, const char* messageId,
                         int reserved1, int reserved2, JXLogTLVList* list) {
    if (messageId == nullptr) {
        return 22;
    }
    Json::Value entry(Json::objectValue);
    entry["MessageId"] = messageId;
    entry["MessageArgs"] = Json::Value(Json::arrayValue);
    if (list != nullptr) {
        for (const auto& item : list->items) {
            if (item.type == 6) {
                entry["MessageArgs"] = unpackArguments(item.data);
            }
        }
    }
    entry["Category"] = category;
    entry["SeverityCode"] = severityCode;
    entry["EventType"] = eventType;
    entry["Reserved"] = Json::Value(Json::arrayValue);
    entry["Reserved"].append(reserved1);
    entry["Reserved"].append(reserved2);
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    bool ok = rfevent::platform::appendLine(rfevent::platform::dataFile("eventlog.jsonl"),
                                            Json::writeString(writer, entry));
    return ok ? 0 : 5;
}

void JXLOGWRAPFreeTLVList(JXLogTLVList* list) {
    delete list;
}

} // extern "C"
