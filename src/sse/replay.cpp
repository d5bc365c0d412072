#include "sse/replay.h"

#include <errno.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iterator>
#include <list>
#include <memory>

#include "frame/lifecycle.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "sse/filter.h"
#include "sse/transport.h"
#include "telemetry/json_reader.h"
#include "telemetry/report_db.h"

using rfevent::kLogDebug;
using rfevent::kLogError;
using rfevent::kLogInfo;

namespace {

constexpr unsigned kPacingSeconds = 2;
constexpr unsigned kRetrySeconds = 1;

// The name a filter text asks for: after its last "/", without any "'" or ")".
std::string reportNameOf(const std::string& filter) {
    std::size_t slash = filter.rfind('/');
    std::string name = slash == std::string::npos ? filter : filter.substr(slash + 1);
    RF_LOG(kLogDebug, "[%s():%d]Substring after slash:[%s]\n", name.c_str());
    std::string kept;
    for (char c : name) {
        if (c != '\'') {
            kept.push_back(c);
        }
    }
    name.clear();
    for (char c : kept) {
        if (c != ')') {
            name.push_back(c);
        }
    }
    RF_LOG(kLogDebug, "[%s():%d]After the removals [%s]\n", name.c_str());
    return name;
}

// The serial-log and CPU-register reports live in files; the name is compared over its own
// length, so an empty or shortened name lands here too and then finds no file.
bool isStoredLogName(const std::string& name) {
    return strncasecmp(name.c_str(), "seriallog", name.size()) == 0 ||
           strncasecmp(name.c_str(), "CPURegisters", name.size()) == 0;
}

char* lookUpReport(const std::string& name) {
    return execute_report_views(name.c_str());
}

// One pass of the FIFO cycle: create, open, read until the read fails, close.
void sseInfraFifoPass(const char* path, char* buffer) {
    RF_LOG(kLogInfo, "[%s():%d]Redfish SSE infra  FIFO CREATION");
    int status = mkfifo(path, 0660);
    int error = errno;
    RF_LOG(kLogInfo, "[%s():%d]Redfish SSE infra FIFO  status = %d , errno = %d  %s", status, error,
           strerror(error));
    if (status != 0 && error != EEXIST) {
        return;
    }
    RF_LOG(kLogInfo, "[%s():%d]Redfish SSE infra FIFO created");
    RF_LOG(kLogInfo, "[%s():%d]waiting on TELEMETRYFIFO  %s", path);
    int fd = open(path, O_RDONLY);
    RF_LOG(kLogInfo, "[%s():%d]SSEINFRAFIFO Opened %s", path);
    if (fd < 0) {
        RF_LOG(kLogInfo, "[%s():%d]Named pipe open failed");
        return;
    }
    ssize_t count;
    while ((count = read(fd, buffer, kSseInfraReadSize)) >= 0) {
        sseInfraHandleRead(buffer, count);
        sleep(kPacingSeconds);
    }
    close(fd);
}

} // namespace

void sseInfraHandleRead(char* buffer, ssize_t count) {
    RF_LOG(kLogInfo, "[%s():%d]SSEINFRAFIFO read happened %s", buffer);
    buffer[kSseInfraBufferSize - 1] = '\0';
    if (count > 0) {
        RF_LOG(kLogInfo, "[%s():%d]SSEInfra to RF %s, %d\n", buffer, static_cast<int>(count));
        try {
            process_last_event_id(buffer);
        } catch (const std::exception& e) {
            RF_LOG(kLogError, "[%s():%d]Replay request dropped: %s", e.what());
        } catch (...) {
            RF_LOG(kLogError, "[%s():%d]Replay request dropped");
        }
    }
    std::memset(buffer, 0, kSseInfraBufferSize);
}

void sseInfraNotifyLoop() {
    char buffer[kSseInfraBufferSize] = {};
    const char* path = rfevent::fixedPath(rfevent::FixedPath::SseInfraFifo);
    while (rfevent::g_sseInfraFlag.load(std::memory_order_relaxed) == 0) {
        sseInfraFifoPass(path, buffer);
        if (rfevent::g_sseInfraFlag.load(std::memory_order_relaxed) == 0) {
            sleep(kRetrySeconds);
        }
    }
}

void* RedfishSSEInfraNotifyThread(void* unused) {
    (void)unused;
    RF_LOG(kLogInfo, "[%s():%d]SSE Infra notify thread start");
    try {
        sseInfraNotifyLoop();
    } catch (const std::exception& e) {
        RF_LOG(kLogError, "[%s():%d]SSE Infra notify loop stopped: %s", e.what());
    } catch (...) {
        RF_LOG(kLogError, "[%s():%d]SSE Infra notify loop stopped");
    }
    // The thread lives as long as the process, even once its flag is raised.
    for (;;) {
        sleep(3600);
    }
}

void process_last_event_id(const char* request) {
    const std::string text(request);
    const std::list<std::string> fields = split(text, "|");
    if (fields.size() < 2) {
        RF_LOG(kLogError, "[%s():%d]Replay request without filter text dropped: [%s]",
               text.c_str());
        return;
    }
    const std::string& lastEventId = fields.front();
    const std::string& filter = *std::next(fields.begin());
    RF_LOG(kLogDebug, "[%s():%d]Substring after slash:[%s]\n", text.c_str());
    const std::string name = reportNameOf(filter);

    // Owned here until the message is built, also when reading the sequence throws.
    std::unique_ptr<char, decltype(&std::free)> report(
        isStoredLogName(name) ? sendLastLogToSSE(name) : lookUpReport(name), &std::free);
    if (report == nullptr) {
        RF_LOG(kLogDebug, "[%s():%d]report_json is NULL");
        return;
    }
    const std::string sequence = getReportSequence(report.get());
    RF_LOG(kLogDebug, "[%s():%d]Report Sequence [%s]\n", sequence.c_str());
    if (sequence != lastEventId) {
        RF_LOG(kLogDebug, "[%s():%d]Last Event Id is not matched");
        return;
    }
    const std::string prefix = filter + "=";
    const std::string message = prefix + "<id:" + sequence + ">:" + report.get();
    report.reset();
    RF_LOG(kLogDebug, "[%s():%d]SSE Filter size:%d\n", static_cast<int>(message.size()));
    if (message.size() <= static_cast<std::size_t>(kSsePieceSize)) {
        // A short replay carries only the end marker for the client's key.
        const std::size_t at = message.find("<id:");
        send_to_sock_sse((message.substr(0, at) + "<END>").c_str());
    } else {
        sse_chunk_send(message.c_str());
    }
}

char* sendLastLogToSSE(std::string name) {
    RF_ENTER();
    std::string path;
    if (name == "seriallog") {
        path = rfevent::fixedPath(rfevent::FixedPath::SerialLogReport);
    } else if (name == "CPURegisters") {
        path = rfevent::fixedPath(rfevent::FixedPath::CpuRegisterReport);
    }
    struct stat fileStat;
    std::memset(&fileStat, 0, sizeof fileStat);
    if (stat(path.c_str(), &fileStat) != 0) {
        RF_LOG(kLogInfo, "[%s():%d]errno: %d", errno);
        RF_LOG(kLogInfo, "[%s():%d]fileStat.st_size: %lld",
               static_cast<long long>(fileStat.st_size));
        return nullptr;
    }
    if (fileStat.st_size < 1) {
        return nullptr;
    }
    RF_LOG(kLogInfo, "[%s():%d]seriallog json file exists");
    FILE* file = std::fopen(path.c_str(), "r");
    if (file == nullptr || std::fseek(file, 0, SEEK_END) != 0) {
        RF_LOG(kLogError, "[%s():%d]File operation seek failed in local export function ");
        if (file != nullptr) {
            std::fclose(file);
        }
        return nullptr;
    }
    long size = std::ftell(file);
    RF_LOG(kLogInfo, "[%s():%d]lSize :%ld", size);
    if (size == -1) {
        RF_LOG(kLogError, "[%s():%d]File operation ftell failed in local export function ");
        std::fclose(file);
        return nullptr;
    }
    if (std::fseek(file, 0, SEEK_SET) != 0) {
        RF_LOG(kLogError, "[%s():%d]File operation seek failed in local export function ");
        std::fclose(file);
        return nullptr;
    }
    char* buffer = static_cast<char*>(std::calloc(static_cast<std::size_t>(size) + 1, 1));
    if (buffer == nullptr) {
        RF_LOG(kLogError, "[%s():%d]File memory allocation failed in local export function ");
        std::fclose(file);
        return nullptr;
    }
    if (std::fread(buffer, 1, static_cast<std::size_t>(size), file) !=
        static_cast<std::size_t>(size)) {
        RF_LOG(kLogError, "[%s():%d]File could not be read in local export function ");
        std::free(buffer);
        std::fclose(file);
        return nullptr;
    }
    std::fclose(file);
    RF_EXIT();
    return buffer;
}
