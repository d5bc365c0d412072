// JSON in the whole plug-in: the reader (RF_Json_Reader, public), loading a JSON file, the
// compact writer of every document sent.
#ifndef RFEVENT_BASE_JSON_H
#define RFEVENT_BASE_JSON_H

#include <cstddef>
#include <string>

#include <json/json.h>

#include "base/log.h"
#include "rfevent/redfish_event.h"

namespace rfevent {

// The log lines of one kind of JSON file, each without its "[%s():%d]" head; null = no line.
struct JsonFileTexts {
    int missingLevel;
    const char* missing;    // the file does not exist
    const char* present;    // it does (level 4)
    const char* unparsable; // it does not parse (level 2)
    const char* parsed;     // it parsed (level 4)
};

// Loads the JSON document in path into root, logging under the caller's spot. False when the
// file is absent or does not parse. A document whose top level is not an object has no
// members: it loads as an empty object.
bool loadJsonObject(SourceSpot spot, const char* path, const JsonFileTexts& texts,
                    Json::Value& root);

// What a quiet load found.
enum class QuietLoad { Absent, Unparsable, Parsed };

// loadJsonObject without a log line, for files the plug-in only consults for itself.
QuietLoad loadJsonObjectQuietly(const char* path, Json::Value& root);

// Compact JSON (no indentation), members in the library's ascending order.
std::string writeCompactJson(const Json::Value& value);

// Parses the length characters of text as RF_Json_Reader::parse does, without a line: errors
// gets what the library
// reported, or what it raised (the parse then failed).
bool parseJsonQuietly(const char* text, std::size_t length, Json::Value& root, std::string& errors);

// The lines RF_Json_Reader::parse writes around a parse that reported errors ("" = none).
void writeParseLines(const std::string& errors);

} // namespace rfevent

#endif
