#include "telemetry/log_reports.h"
#include "telemetry/log_reports_internal.h"

#include <errno.h>
#include <sys/time.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include <json/json.h>

#include "base/builtin_reports.h"
#include "base/clock.h"
#include "base/durable_file.h"
#include "base/file.h"
#include "base/heap_text.h"
#include "base/json.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/report.h"
#include "platform/platform.h"
#include "publish/publish.h"
#include "rfevent/redfish_event.h"

namespace rfevent {

namespace {

constexpr const char* kReportContext = "/redfish/v1/$metadata#MetricReport.MetricReport";

// The builder's lines are written under its name.
constexpr SourceSpot kBuilderSpot = {"GenerateLogEntryJsonForTelemetry", __LINE__};

// "2024-05-01T13:45:10.123Z"; the three digits are the microseconds modulo 1000.
Json::Value reportTimestamp() {
    struct timeval now = {};
    if (!readWallClock(&now)) {
        RF_LOG(kLogInfo, "[%s():%d]fetching time failed,setting timestamp to NULL");
        return Json::Value(Json::nullValue);
    }
    struct tm utc = {};
    gmtime_r(&now.tv_sec, &utc);
    char seconds[32] = {};
    std::strftime(seconds, sizeof seconds, "%Y-%m-%dT%H:%M:%S", &utc);
    RF_LOG(kLogDebug, "[%s():%d]Time created in string format:%s\n", seconds);
    char stamp[32] = {};
    int written = std::snprintf(stamp, sizeof stamp, "%s.%03dZ", seconds,
                                static_cast<int>(now.tv_usec % 1000));
    (void)written; // at most 24 characters: the buffer always holds them
    RF_LOG(kLogDebug, "[%s():%d]Time created in string format:%s\n", stamp);
    return Json::Value(stamp);
}

// Loads the type's counter from its file, returns it and stores the next value. After the
// largest int the sequence starts again at 1, the number of a type's first report.
int takeSequence(std::atomic<int>& counter, const char* path) {
    counter.store(GetReportSequence(path), std::memory_order_relaxed);
    int value = counter.load(std::memory_order_relaxed);
    SetReportSequence(path, value == INT_MAX ? 1 : value + 1);
    return value;
}

const rfevent::WholeFileTexts kSerialLogRead = {"File operation ftell failed in  function ", true};
const rfevent::WholeFileTexts kCpuDumpRead = {
    "File operation ftell failed in local export function ", false};

// The serial-log lock that a run left held because the capture could not be opened. It stays
// held by the process, and the next run takes it over instead of locking again, so repeated
// runs never pile up descriptors.
std::atomic<int> g_heldSerialLogLock{-1};

int takeSerialLogLock() {
    int held = g_heldSerialLogLock.exchange(-1, std::memory_order_relaxed);
    return held >= 0 ? held : utl_trylock_write(fixedPath(FixedPath::SerialLogLock));
}

void unlockSerialLog(int lockFd, int* result) {
    if (utl_close_unlock(lockFd) != 0) {
        RF_LOG(kLogInfo, "[%s():%d]Error unlocking to log\n");
        if (result != nullptr) {
            *result = 3;
        }
    }
}

} // namespace

int sendSerialLogToSSE() {
    RF_ENTER();
    int lockFd = takeSerialLogLock();
    if (lockFd < 0) {
        RF_LOG(kLogInfo, "[%s():%d]Error in serial log file open/lock:%d\n", errno);
        return -1;
    }
    // A link at the capture path is refused: it would send another file out and truncate it.
    rfevent::UniqueFile capture =
        rfevent::openForReading(fixedPath(FixedPath::SerialLogCapture), true);
    if (capture == nullptr) {
        // The lock stays held by the process on this path.
        RF_LOG(kLogError, "[%s():%d]File could not be read in local export function Exit");
        g_heldSerialLogLock.store(lockFd, std::memory_order_relaxed);
        return -1;
    }
    std::string capturedText;
    if (!rfevent::readWholeFileLogged(capture.get(), capturedText, RF_HERE, kSerialLogRead)) {
        capture.reset();
        unlockSerialLog(lockFd, nullptr);
        return -1;
    }
    // The payload ends at the first NUL byte of the capture.
    std::string document = GenerateLogEntryJsonForTelemetry(
        capturedText.substr(0, capturedText.find('\0')), kSerialLogReport.type);
    capture.reset();
    utl_echo_write(document.c_str(), document.size(), fixedPath(FixedPath::SerialLogReport), 1, 1);

    int result = 0;
    if (utl_trunc_file(fixedPath(FixedPath::SerialLogCapture)) != 0) {
        RF_LOG(kLogInfo, "[%s():%d]Error truncating to log\n");
        result = 3;
    }
    unlockSerialLog(lockFd, &result);

    publishBuiltInReport(ParsedReport(document.c_str()), kSerialLogReport);
    RF_EXIT();
    return result;
}

void sendCPUDumpToTelemetry() {
    RF_ENTER();
    rfevent::UniqueFile dump =
        rfevent::openForReading(fixedPath(FixedPath::CpuRegisterCapture), true);
    if (dump == nullptr) {
        RF_LOG(kLogError, "[%s():%d]File could not be read in local export function Exit");
        return;
    }
    std::string dumpText;
    if (!rfevent::readWholeFileLogged(dump.get(), dumpText, RF_HERE, kCpuDumpRead)) {
        return;
    }
    const HeapText encoded(base64Encode(reinterpret_cast<const unsigned char*>(dumpText.data()),
                                        dumpText.size(), nullptr));
    int status = sendCPURegisterReport(encoded.get(), kCpuRegistersReport.type);
    dump.reset();
    RF_LOG(kLogInfo, "[%s():%d]status:%d", status);
    RF_EXIT();
}

int sendCPURegisterReport(const char* base64Payload, const char* type) {
    std::string document = GenerateLogEntryJsonForTelemetry(base64Payload, type);
    utl_echo_write(document.c_str(), document.size(), fixedPath(FixedPath::CpuRegisterReport), 1,
                   1);
    publishBuiltInReport(ParsedReport(document.c_str()), kCpuRegistersReport);
    return 0;
}

namespace {

// The report's members up to its sequence; an unknown type gets the context as "@odata.id" and
// no sequence.
void describeReport(Json::Value& report, const char* type) {
    report["Timestamp"] = reportTimestamp();
    report["@odata.context"] = kReportContext;
    const BuiltInReport* builtIn = builtInReportOfType(type, BuiltInOrder::CpuRegistersFirst);
    std::string resource = builtIn != nullptr ? builtIn->resource : kReportContext;
    if (builtIn == nullptr) {
        RF_LOG_AT(kBuilderSpot, kLogInfo, "[%s():%d]invalid type:%s", type);
    }
    GetEncodedURIsegment(resource);
    report["@odata.id"] = resource;
    report["@odata.type"] = "#MetricReport.v1_5_0.MetricReport";
    report["Name"] = std::string(type) + " Report";
    report["Id"] = type;
    if (builtIn != nullptr) {
        const int sequence = takeSequence(*builtIn->counter, fixedPath(builtIn->sequenceFile));
        report["ReportSequence"] = std::to_string(sequence);
    } else {
        RF_LOG_AT(kBuilderSpot, kLogInfo, "[%s():%d]invalid type:%s", type);
    }
}

} // namespace

std::string GenerateLogEntryJsonForTelemetry(std::string payload, const char* type) {
    Json::Value report(Json::objectValue);
    describeReport(report, type);
    Json::Value oem(Json::objectValue);
    oem["Orva"]["@odata.type"] = "#OrvaMetricReport.v1_0_0.OrvaMetricReport";
    oem["Orva"]["Label"] = type;
    Json::Value metric(Json::objectValue);
    metric["MetricValue"] = payload;
    metric["MetricId"] = std::string(type) + "Buffer";
    metric["Oem"] = oem;
    Json::Value values(Json::arrayValue);
    values.append(metric);
    report["MetricValues"] = values;
    report["MetricValues@odata.count"] = values.size();
    return writeCompactJson(report);
}

namespace {

// The number a sequence file starts with, read as "%d" reads it but with the range checked.
// Returns what fscanf would: 1 when there is a number that fits an int, 0 when there is none,
// EOF for an empty file.
int readSequenceNumber(std::FILE* file, int& sequence) {
    char text[32] = {};
    const int scanned = std::fscanf(file, "%31s", text);
    if (scanned != 1) {
        return scanned;
    }
    errno = 0;
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    if (end == text || errno != 0 || value < INT_MIN || value > INT_MAX) {
        return 0;
    }
    sequence = static_cast<int>(value);
    return 1;
}

} // namespace

int GetReportSequence(const char* path) {
    rfevent::UniqueFile file = rfevent::openForReading(path);
    if (file == nullptr) {
        return 1;
    }
    // A failed or partial read, or a number too large for an int, gives the first sequence, 1.
    int sequence = 1;
    int scanned = readSequenceNumber(file.get(), sequence);
    RF_LOG(kLogInfo, "[%s():%d]fscanf:%d seq:%d", scanned, sequence);
    return sequence;
}

int SetReportSequence(const char* path, int value) {
    // Replaced whole, so a crash or power cut never leaves an empty or half-written number.
    const RewriteOutcome outcome = rewriteFileDurably(path, std::to_string(value), 0644);
    if (!outcome.done()) {
        RF_LOG(kLogError, "[%s():%d]Writing the report sequence %s failed", path);
        return 0;
    }
    return 1;
}

void sendBuiltInReport(const BuiltInReport& type) {
    if (&type == &kSerialLogReport) {
        sendSerialLogToSSE();
    } else {
        sendCPUDumpToTelemetry();
    }
}

char* base64Encode(const unsigned char* data, std::size_t length, std::size_t* outLength) {
    static const char kAlphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::size_t quarter = length * 4 / 3;
    std::size_t capacity = quarter + 5 + (quarter + 4) / 72;
    if (capacity < length) {
        return nullptr;
    }
    HeapText block = heapBlock(capacity);
    if (!block) {
        return nullptr;
    }
    char* out = block.get();
    char* position = out;
    std::size_t i = 0;
    for (; i + 3 <= length; i += 3) {
        unsigned int triple = (data[i] << 16) | (data[i + 1] << 8) | data[i + 2];
        *position++ = kAlphabet[(triple >> 18) & 0x3F];
        *position++ = kAlphabet[(triple >> 12) & 0x3F];
        *position++ = kAlphabet[(triple >> 6) & 0x3F];
        *position++ = kAlphabet[triple & 0x3F];
    }
    if (i < length) {
        unsigned int triple = static_cast<unsigned int>(data[i]) << 16;
        if (i + 1 < length) {
            triple |= static_cast<unsigned int>(data[i + 1]) << 8;
        }
        *position++ = kAlphabet[(triple >> 18) & 0x3F];
        *position++ = kAlphabet[(triple >> 12) & 0x3F];
        *position++ = (i + 1 < length) ? kAlphabet[(triple >> 6) & 0x3F] : '=';
        *position++ = '=';
    }
    *position = '\0';
    if (outLength != nullptr) {
        *outLength = static_cast<std::size_t>(position - out);
    }
    return block.release();
}

} // namespace rfevent
