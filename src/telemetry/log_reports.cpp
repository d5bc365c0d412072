#include "telemetry/log_reports.h"

#include <errno.h>
#include <sys/time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <string>

#include <json/json.h>

#include "platform/log.h"
#include "platform/paths.h"
#include "rfevent/redfish_event.h"
#include "sse/transport.h"
#include "subscriptions/report_delivery.h"

using rfevent::fixedPath;
using rfevent::FixedPath;
using rfevent::kLogDebug;
using rfevent::kLogError;
using rfevent::kLogInfo;

std::atomic<int> serialLogSequence{0};
std::atomic<int> cpuRegisterSequence{0};

namespace {
int systemClock(struct timeval* now) {
    return gettimeofday(now, nullptr);
}
} // namespace

ReportClock g_reportClock = systemClock;

namespace {

constexpr const char* kSerialLogType = "SerialLog";
constexpr const char* kCpuRegistersType = "CPURegisters";

constexpr const char* kSerialLogFilter =
    "MetricReportDefinition eq '/redfish/v1/TelemetryService/MetricReportDefinitions/SerialLog'";
constexpr const char* kCpuRegistersFilter =
    "MetricReportDefinition eq "
    "'/redfish/v1/TelemetryService/MetricReportDefinitions/CPURegisters'";

constexpr const char* kReportContext = "/redfish/v1/$metadata#MetricReport.MetricReport";

// The given type names a report type when it equals the start of that type's name over its
// own length.
bool isType(const char* type, const char* name) {
    return std::strncmp(type, name, std::strlen(type)) == 0;
}

// "2024-05-01T13:45:10.123Z"; the three digits are the microseconds modulo 1000.
Json::Value reportTimestamp() {
    struct timeval now = {};
    if (g_reportClock(&now) != 0) {
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

// Loads the type's counter from its file, returns it and stores the next value.
int takeSequence(std::atomic<int>& counter, const char* path) {
    counter.store(GetReportSequence(path), std::memory_order_relaxed);
    int value = counter.load(std::memory_order_relaxed);
    SetReportSequence(path, value + 1);
    return value;
}

// Reads a whole file into a zeroed block one byte longer than the file; null on failure,
// which is logged. Used by the CPU register dump, which is never locked.
char* readWholeFile(FILE* file, long* size) {
    if (std::fseek(file, 0, SEEK_END) != 0) {
        RF_LOG(kLogError, "[%s():%d]File operation seek failed in local export function ");
        return nullptr;
    }
    *size = std::ftell(file);
    if (*size == -1) {
        RF_LOG(kLogError, "[%s():%d]File operation ftell failed in local export function ");
        return nullptr;
    }
    if (std::fseek(file, 0, SEEK_SET) != 0) {
        RF_LOG(kLogError, "[%s():%d]File operation seek failed in local export function ");
        return nullptr;
    }
    char* buffer = static_cast<char*>(std::calloc(static_cast<std::size_t>(*size) + 1, 1));
    if (buffer == nullptr) {
        RF_LOG(kLogError, "[%s():%d]File memory allocation failed in local export function ");
        return nullptr;
    }
    if (std::fread(buffer, 1, static_cast<std::size_t>(*size), file) !=
        static_cast<std::size_t>(*size)) {
        RF_LOG(kLogError, "[%s():%d]File could not be read in local export function ");
        std::free(buffer);
        return nullptr;
    }
    return buffer;
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
    int lockFd = utl_trylock_write(fixedPath(FixedPath::SerialLogLock));
    if (lockFd < 0) {
        RF_LOG(kLogInfo, "[%s():%d]Error in serial log file open/lock:%d\n", errno);
        return -1;
    }
    FILE* capture = std::fopen(fixedPath(FixedPath::SerialLogCapture), "rb");
    if (capture == nullptr) {
        // The lock stays held by the process on this path.
        RF_LOG(kLogError, "[%s():%d]File could not be read in local export function Exit");
        return -1;
    }
    if (std::fseek(capture, 0, SEEK_END) != 0) {
        RF_LOG(kLogError, "[%s():%d]File operation seek failed in local export function ");
        std::fclose(capture);
        unlockSerialLog(lockFd, nullptr);
        return -1;
    }
    long size = std::ftell(capture);
    RF_LOG(kLogInfo, "[%s():%d]lSize :%ld", size);
    if (size == -1) {
        RF_LOG(kLogError, "[%s():%d]File operation ftell failed in  function ");
        std::fclose(capture);
        unlockSerialLog(lockFd, nullptr);
        return -1;
    }
    if (std::fseek(capture, 0, SEEK_SET) != 0) {
        RF_LOG(kLogError, "[%s():%d]File operation seek failed in local export function ");
        std::fclose(capture);
        unlockSerialLog(lockFd, nullptr);
        return -1;
    }
    char* buffer = static_cast<char*>(std::calloc(static_cast<std::size_t>(size) + 1, 1));
    if (buffer == nullptr) {
        RF_LOG(kLogError, "[%s():%d]File memory allocation failed in local export function ");
        std::fclose(capture);
        unlockSerialLog(lockFd, nullptr);
        return -1;
    }
    if (std::fread(buffer, 1, static_cast<std::size_t>(size), capture) !=
        static_cast<std::size_t>(size)) {
        RF_LOG(kLogError, "[%s():%d]File could not be read in local export function ");
        std::free(buffer);
        std::fclose(capture);
        unlockSerialLog(lockFd, nullptr);
        return -1;
    }
    // The payload ends at the first NUL byte of the capture.
    std::string document = GenerateLogEntryJsonForTelemetry(std::string(buffer), kSerialLogType);
    std::fclose(capture);
    utl_echo_write(document.c_str(), document.size(), fixedPath(FixedPath::SerialLogReport), 1, 1);

    int result = 0;
    if (utl_trunc_file(fixedPath(FixedPath::SerialLogCapture)) != 0) {
        RF_LOG(kLogInfo, "[%s():%d]Error truncating to log\n");
        result = 3;
    }
    unlockSerialLog(lockFd, &result);

    sendLog_to_sse(document.c_str(), kSerialLogType);
    send_report_to_subscription(document.c_str());
    std::free(buffer);
    RF_EXIT();
    return result;
}

void sendCPUDumpToTelemetry() {
    RF_ENTER();
    FILE* dump = std::fopen(fixedPath(FixedPath::CpuRegisterCapture), "rb");
    if (dump == nullptr) {
        RF_LOG(kLogError, "[%s():%d]File could not be read in local export function Exit");
        return;
    }
    long size = 0;
    char* buffer = readWholeFile(dump, &size);
    if (buffer == nullptr) {
        std::fclose(dump);
        return;
    }
    char* encoded = base64Encode(reinterpret_cast<const unsigned char*>(buffer),
                                 static_cast<std::size_t>(size), nullptr);
    int status = sendCPURegisterReport(encoded, kCpuRegistersType);
    std::fclose(dump);
    RF_LOG(kLogInfo, "[%s():%d]status:%d", status);
    std::free(buffer);
    std::free(encoded);
    RF_EXIT();
}

int sendCPURegisterReport(const char* base64Payload, const char* type) {
    std::string document = GenerateLogEntryJsonForTelemetry(base64Payload, type);
    utl_echo_write(document.c_str(), document.size(), fixedPath(FixedPath::CpuRegisterReport), 1,
                   1);
    sendLog_to_sse(document.c_str(), kCpuRegistersType);
    send_report_to_subscription(document.c_str());
    return 0;
}

std::string GenerateLogEntryJsonForTelemetry(std::string payload, const char* type) {
    Json::Value report(Json::objectValue);
    report["Timestamp"] = reportTimestamp();
    report["@odata.context"] = kReportContext;

    std::string resource;
    if (isType(type, kCpuRegistersType)) {
        resource = "/redfish/v1/TelemetryService/MetricReports/CPURegisters";
    } else if (isType(type, kSerialLogType)) {
        resource = "/redfish/v1/TelemetryService/MetricReports/SerialLog";
    } else {
        RF_LOG(kLogInfo, "[%s():%d]invalid type:%s", type);
        resource = kReportContext;
    }
    GetEncodedURIsegment(resource);
    report["@odata.id"] = resource;
    report["@odata.type"] = "#MetricReport.v1_5_0.MetricReport";
    report["Name"] = std::string(type) + " Report";
    report["Id"] = type;

    if (isType(type, kCpuRegistersType)) {
        int sequence = takeSequence(cpuRegisterSequence, fixedPath(FixedPath::CpuRegisterSequence));
        report["ReportSequence"] = std::to_string(sequence);
    } else if (isType(type, kSerialLogType)) {
        int sequence = takeSequence(serialLogSequence, fixedPath(FixedPath::SerialLogSequence));
        report["ReportSequence"] = std::to_string(sequence);
    } else {
        RF_LOG(kLogInfo, "[%s():%d]invalid type:%s", type);
    }

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

    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, report);
}

int GetReportSequence(const char* path) {
    FILE* file = std::fopen(path, "r");
    if (file == nullptr) {
        return 1;
    }
    int sequence = 1;
    // A failed or partial read keeps the first sequence, 1.
    int scanned = std::fscanf(file, "%d", &sequence); // NOLINT(cert-err34-c)
    if (scanned != 1) {
        sequence = 1;
    }
    RF_LOG(kLogInfo, "[%s():%d]fscanf:%d seq:%d", scanned, sequence);
    std::fclose(file);
    return sequence;
}

int SetReportSequence(const char* path, int value) {
    FILE* file = std::fopen(path, "w");
    if (file == nullptr) {
        return 0;
    }
    std::fprintf(file, "%d", value);
    std::fclose(file);
    return 1;
}

int sendLog_to_sse(const char* reportJson, const char* type) {
    const char* filter = nullptr;
    std::atomic<int>* counter = nullptr;
    if (isType(type, kSerialLogType)) {
        filter = kSerialLogFilter;
        counter = &serialLogSequence;
    } else if (isType(type, kCpuRegistersType)) {
        filter = kCpuRegistersFilter;
        counter = &cpuRegisterSequence;
    } else {
        RF_LOG(kLogError, "[%s():%d]invalid type");
        return -1;
    }
    std::string prefix = std::string(filter) + "=";
    int id = counter->fetch_add(1, std::memory_order_relaxed);
    std::string message = prefix + "<id:" + std::to_string(id) + ">:" + reportJson;
    EncodeStr(message);
    if (message.size() > static_cast<std::size_t>(kSsePieceSize)) {
        sse_chunk_send(message.c_str());
    } else {
        send_to_sock_sse(message.c_str());
        send_to_sock_sse((prefix + "<END>").c_str());
    }
    return 0;
}

void EncodeStr(std::string& message) {
    RF_ENTER();
    const std::map<std::string, std::string> substitutions = {{";", "%3B"}};
    for (const auto& [from, to] : substitutions) {
        std::size_t position = message.find(from);
        while (position != std::string::npos) {
            message.replace(position, from.size(), to);
            position = message.find(from);
        }
    }
    RF_EXIT();
}

char* base64Encode(const unsigned char* data, std::size_t length, std::size_t* outLength) {
    static const char kAlphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::size_t quarter = length * 4 / 3;
    std::size_t capacity = quarter + 5 + (quarter + 4) / 72;
    if (capacity < length) {
        return nullptr;
    }
    char* out = static_cast<char*>(std::malloc(capacity));
    if (out == nullptr) {
        return nullptr;
    }
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
    return out;
}
