// Configuration manager backed by var/lib/rfevent/attributes.json, read anew on every call.
// The file is one JSON object keyed by attribute key:
//   "key": "text"                                  string attribute
//   "key": 10                                      integer attribute
//   "key": {"type": "enumeration", "value": "Yes"} enumeration attribute
//   "key": {"type": 12345, "value": ...}           attribute of that raw type code
// A string, enumeration or integer whose value is null gives an object without a resolvable
// string or without a body, as a damaged configuration would.
#include <cstdlib>
#include <cstring>
#include <new>
#include <sstream>
#include <string>

#include <json/json.h>

#include "platform/platform.h"
#include "platform/standalone/data_dir.h"

namespace {

using rfevent::platform::dataFile;

const char* const kAttributesFile = "attributes.json";

bool loadAttributes(Json::Value& root) {
    std::string text;
    if (!rfevent::platform::readWholeFile(dataFile(kAttributesFile), text)) {
        return false;
    }
    Json::CharReaderBuilder builder;
    std::istringstream in(text);
    std::string errors;
    return Json::parseFromStream(builder, in, &root, &errors) && root.isObject();
}

struct Attribute {
    uint16_t typeCode = 0;
    bool hasValue = false;
    Json::Value value;
};

bool findAttribute(const char* key, Attribute& out) {
    Json::Value root;
    if (key == nullptr || !loadAttributes(root) || !root.isMember(key)) {
        return false;
    }
    const Json::Value& entry = root[key];
    if (entry.isObject()) {
        const Json::Value& type = entry["type"];
        if (type.isString() && type.asString() == "enumeration") {
            out.typeCode = CFG_TYPE_ENUMERATION;
        } else if (type.isIntegral()) {
            out.typeCode = static_cast<uint16_t>(type.asUInt());
        } else {
            return false;
        }
        out.value = entry["value"];
    } else if (entry.isIntegral()) {
        out.typeCode = CFG_TYPE_INTEGER;
        out.value = entry;
    } else if (entry.isString()) {
        out.typeCode = CFG_TYPE_STRING;
        out.value = entry;
    } else {
        return false;
    }
    out.hasValue = !out.value.isNull();
    return true;
}

// Lays out header, body and text in one heap block.
SMILObj* buildObject(const Attribute& attribute) {
    std::string text;
    bool withText = false;
    if (attribute.hasValue && attribute.value.isString()) {
        text = attribute.value.asString();
        withText = true;
    }
    size_t bodyOffset = sizeof(SMILObj);
    size_t textOffset = bodyOffset + sizeof(uint32_t) * 2;
    size_t size = textOffset + text.size() + 1;
    auto* block = static_cast<unsigned char*>(std::calloc(1, size));
    if (block == nullptr) {
        return nullptr;
    }
    auto* object = reinterpret_cast<SMILObj*>(block);
    object->size = static_cast<uint32_t>(size);
    object->typeCode = attribute.typeCode;
    std::memcpy(block + textOffset, text.c_str(), text.size() + 1);
    bool integerBody = attribute.typeCode == CFG_TYPE_INTEGER && attribute.value.isIntegral();
    if (integerBody) {
        object->bodyOffset = static_cast<uint32_t>(bodyOffset);
        int32_t value = attribute.value.asInt();
        std::memcpy(block + bodyOffset, &value, sizeof value);
    } else if (attribute.typeCode != CFG_TYPE_INTEGER && attribute.hasValue) {
        object->bodyOffset = static_cast<uint32_t>(bodyOffset);
        uint32_t ref = withText ? static_cast<uint32_t>(textOffset) : 0;
        std::memcpy(block + bodyOffset, &ref, sizeof ref);
    }
    return object;
}

} // namespace

extern "C" {

int client_get_obj_by_key(const char* service, const char* key, SMILObj** object, int flags) {
    (void)service;
    (void)flags;
    if (object == nullptr) {
        return 22;
    }
    *object = nullptr;
    Attribute attribute;
    if (!findAttribute(key, attribute)) {
        return 2; // no such attribute
    }
    *object = buildObject(attribute);
    return *object ? 0 : 12;
}

int client_get_obj_body_ptr(SMILObj* object, void** body, uint16_t expectedType) {
    if (object == nullptr || body == nullptr || object->typeCode != expectedType) {
        return 22;
    }
    *body = object->bodyOffset ? reinterpret_cast<unsigned char*>(object) + object->bodyOffset
                               : nullptr;
    return 0;
}

int client_get_string_ptr(SMILObj* object, uint32_t stringRef, char** text) {
    if (object == nullptr || text == nullptr || stringRef == 0 || stringRef >= object->size) {
        return 22;
    }
    *text = reinterpret_cast<char*>(object) + stringRef;
    return 0;
}

void SMILFreeGeneric(SMILObj* object) {
    std::free(object);
}

int CfgGetAttribute(const char* key, char* buffer, uint32_t* length) {
    if (buffer == nullptr || length == nullptr) {
        return 22;
    }
    Attribute attribute;
    if (!findAttribute(key, attribute) || !attribute.hasValue) {
        return 2;
    }
    std::string text =
        attribute.value.isString() ? attribute.value.asString() : attribute.value.toStyledString();
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    if (text.size() + 1 > *length) {
        return 75; // the value and its terminator do not fit: never hand out a cut value
    }
    std::memcpy(buffer, text.c_str(), text.size() + 1);
    *length = static_cast<uint32_t>(text.size());
    return 0;
}

int CfgSetAttribute(const char* key, const char* value, int flags, uint32_t* status) {
    (void)flags;
    if (key == nullptr || value == nullptr) {
        return 22;
    }
    Json::Value root(Json::objectValue);
    loadAttributes(root); // a missing file starts an empty set
    if (!root.isObject()) {
        root = Json::Value(Json::objectValue);
    }
    root[key] = value;
    Json::StreamWriterBuilder writer;
    bool ok = rfevent::platform::replaceFile(dataFile(kAttributesFile),
                                             Json::writeString(writer, root) + "\n");
    if (status != nullptr) {
        *status = ok ? 0 : 5;
    }
    return ok ? 0 : 5;
}

} // extern "C"
