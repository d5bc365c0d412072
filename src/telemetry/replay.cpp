#include "telemetry/replay.h"
#include "telemetry/replay_internal.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <iterator>
#include <list>

#include "base/builtin_reports.h"
#include "base/file.h"
#include "base/guard.h"
#include "base/heap_text.h"
#include "base/json.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/pipe_thread.h"
#include "base/report.h"
#include "base/run_flags.h"
#include "sse/filter.h"
#include "sse/message.h"
#include "sse/transport.h"
#include "telemetry/report_db.h"

namespace rfevent {

namespace {

constexpr unsigned kPacingSeconds = 2;

// The replay's lines are written under the name of the function that handles a request.
constexpr SourceSpot kReplaySpot = {"process_last_event_id", __LINE__};

const rfevent::WholeFileTexts kStoredReportRead = {
    "File operation ftell failed in local export function ", true};

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

// The built-in reports live in files; the name is compared with their commands over its own
// length, so an empty or shortened name lands there too and then finds no file.
HeapText lookUpReport(const std::string& name) {
    if (builtInReportCommanded(name.c_str(), name.size()) != nullptr) {
        return HeapText(sendLastLogToSSE(name));
    }
    return HeapText(execute_report_views(name.c_str()));
}

// Sends the replay of a report whose sequence matched: a short one is only the end marker for
// the client's key.
void sendReplay(const std::string& filter, const std::string& sequence, const char* report) {
    const std::string message = reportMessage(filter, sequenceMarker(sequence), report);
    RF_LOG_AT(kReplaySpot, kLogDebug, "[%s():%d]SSE Filter size:%d\n",
              static_cast<int>(message.size()));
    if (message.size() <= static_cast<std::size_t>(kSsePieceSize)) {
        send_to_sock_sse(endMarker(messagePrefix(message)).c_str());
    } else {
        sse_chunk_send(message.c_str());
    }
}

} // namespace

void sseInfraHandleRead(char* buffer, ssize_t count) {
    RF_LOG(kLogInfo, "[%s():%d]SSEINFRAFIFO read happened %s", buffer);
    buffer[kSseInfraBufferSize - 1] = '\0';
    if (count > 0) {
        RF_LOG(kLogInfo, "[%s():%d]SSEInfra to RF %s, %d\n", buffer, static_cast<int>(count));
        rfevent::guarded(RF_HERE, "Replay request dropped", [&] { process_last_event_id(buffer); });
    }
    std::memset(buffer, 0, kSseInfraBufferSize);
}

rfevent::PipeThread sseInfraPipe(char* buffer) {
    return PipeThread{
        fixedPath(FixedPath::SseInfraFifo),
        {"Redfish SSE infra ", "Redfish SSE infra", "TELEMETRYFIFO", "SSEINFRAFIFO", kLogInfo},
        buffer,
        kSseInfraReadSize,
        0,
        kPacingSeconds, // after every read, also one that found no writer
        nullptr,
        sseInfraHandleRead,
    };
}

void* RedfishSSEInfraNotifyThread(void* runFlag) {
    RF_LOG(kLogInfo, "[%s():%d]SSE Infra notify thread start");
    char buffer[kSseInfraBufferSize] = {};
    rfevent::runPipeThread(sseInfraPipe(buffer), static_cast<const rfevent::RunFlag*>(runFlag));
    // The thread lives as long as the process, even once its flag is raised.
    rfevent::parkForever();
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
    HeapText report = lookUpReport(name);
    if (!report) {
        RF_LOG(kLogDebug, "[%s():%d]report_json is NULL");
        return;
    }
    const std::string sequence = getReportSequence(report.get());
    RF_LOG(kLogDebug, "[%s():%d]Report Sequence [%s]\n", sequence.c_str());
    if (sequence != lastEventId) {
        RF_LOG(kLogDebug, "[%s():%d]Last Event Id is not matched");
        return;
    }
    sendReplay(filter, sequence, report.get());
}

char* sendLastLogToSSE(std::string name) {
    RF_ENTER();
    const BuiltInReport* builtIn = builtInReportByCommand(name);
    const std::string path = builtIn != nullptr ? fixedPath(builtIn->stored) : "";
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
    rfevent::UniqueFile file = rfevent::openForReading(path.c_str());
    if (file == nullptr) {
        RF_LOG(kLogError, "[%s():%d]File operation seek failed in local export function ");
        return nullptr;
    }
    std::string text;
    if (!rfevent::readWholeFileLogged(file.get(), text, RF_HERE, kStoredReportRead)) {
        return nullptr;
    }
    // The caller frees the copy.
    rfevent::HeapText copy = rfevent::heapCopy(text);
    if (!copy) {
        RF_LOG(kLogError, "[%s():%d]File memory allocation failed in local export function ");
        return nullptr;
    }
    RF_EXIT();
    return copy.release();
}

} // namespace rfevent
