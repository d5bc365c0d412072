#include "base/json.h"

#include <unistd.h>

#include <cerrno>
#include <exception>
#include <memory>

#include "base/file.h"

namespace rfevent {
namespace {

// The whole content of path; false when it cannot be opened or read.
bool readFileText(const char* path, std::string& text) {
    return readWholeFile(path, text).done();
}

} // namespace

bool loadJsonObject(SourceSpot spot, const char* path, const JsonFileTexts& texts,
                    Json::Value& root) {
    std::string text;
    if (::access(path, F_OK) != 0) {
        RF_LOG_AT(spot, texts.missingLevel, "[%s():%d]%s", texts.missing);
        return false;
    }
    if (texts.present != nullptr) {
        RF_LOG_AT(spot, kLogDebug, "[%s():%d]%s", texts.present);
    }
    RF_Json_Reader reader;
    if (!readFileText(path, text) || !reader.parse(std::move(text), root)) {
        RF_LOG_AT(spot, kLogError, "[%s():%d]%s", texts.unparsable);
        return false;
    }
    if (texts.parsed != nullptr) {
        RF_LOG_AT(spot, kLogDebug, "[%s():%d]%s", texts.parsed);
    }
    if (!root.isObject()) {
        root = Json::Value(Json::objectValue);
    }
    return true;
}

QuietLoad loadJsonObjectQuietly(const char* path, Json::Value& root) {
    std::string text;
    const FileReadOutcome read = readWholeFile(path, text);
    if (!read.done()) {
        return read.error == ENOENT ? QuietLoad::Absent : QuietLoad::Unparsable;
    }
    std::string errors;
    if (!parseJsonQuietly(text.data(), text.size(), root, errors)) {
        return QuietLoad::Unparsable;
    }
    if (!root.isObject()) {
        root = Json::Value(Json::objectValue);
    }
    return QuietLoad::Parsed;
}

std::string writeCompactJson(const Json::Value& value) {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, value);
}

bool parseJsonQuietly(const char* text, std::size_t length, Json::Value& root,
                      std::string& errors) {
    try {
        Json::CharReaderBuilder builder;
        std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        return reader->parse(text, text + length, &root, &errors);
    } catch (const std::exception& error) {
        // Too deep nesting, for one: a failed parse, never an exception for the caller.
        errors = error.what();
        return false;
    }
}

// Written under the name of RF_Json_Reader::parse, which writes them around its parse.
void writeParseLines(const std::string& errors) {
    ::orvaprintf(kLogDebug, kLogModule, "[%s:%d]Entering %s Function", sourceBaseName(__FILE__),
                 __LINE__, "parse");
    if (!errors.empty()) {
        RF_LOG_AT((SourceSpot{"parse", __LINE__}), kLogError, "[%s():%d]Errors found : %s",
                  errors.c_str());
    }
    ::orvaprintf(kLogDebug, kLogModule, "[%s:%d]Exiting %s Function", sourceBaseName(__FILE__),
                 __LINE__, "parse");
}

} // namespace rfevent

RF_Json_Reader::RF_Json_Reader() = default;
RF_Json_Reader::~RF_Json_Reader() = default;

namespace {

// Runs one parse of the library. Every failure it reports, and anything it throws (too deep
// nesting, for one), becomes a logged failed parse: nothing thrown reaches the caller.
template <typename Parse> bool parseReportingErrors(rfevent::SourceSpot spot, Parse parse) {
    std::string errors;
    bool ok = false;
    try {
        ok = parse(errors);
    } catch (const std::exception& error) {
        errors = error.what();
    }
    if (!errors.empty()) {
        RF_LOG_AT(spot, rfevent::kLogError, "[%s():%d]Errors found : %s", errors.c_str());
    }
    return ok;
}

} // namespace

bool RF_Json_Reader::parse(std::string text, Json::Value& root, bool collectComments) {
    (void)collectComments;
    std::string errors;
    const bool ok = rfevent::parseJsonQuietly(text.data(), text.size(), root, errors);
    rfevent::writeParseLines(errors);
    return ok;
}

bool RF_Json_Reader::parse(std::ifstream& in, Json::Value& root, bool collectComments) {
    (void)collectComments;
    RF_ENTER();
    bool ok = parseReportingErrors(RF_HERE, [&](std::string& errors) {
        Json::CharReaderBuilder builder;
        return Json::parseFromStream(builder, in, &root, &errors);
    });
    RF_EXIT();
    return ok;
}
