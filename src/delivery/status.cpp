#include "delivery/status.h"
#include "delivery/status_internal.h"

#include <chrono>
#include <cstdint>
#include <ctime>
#include <map>
#include <mutex>
#include <set>

#include <json/json.h>

#include "base/guard.h"
#include "base/log.h"
#include "base/paths.h"
#include "delivery/status_file.h"

namespace rfevent {

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kWriteSpacing = std::chrono::seconds(1);

enum class Outcome { Delivered, Refused, Failed };

// One subscription's line of the table.
struct Entry {
    std::string destination; // without user-info
    std::string lastAttempt;
    Outcome outcome = Outcome::Delivered;
    long httpStatus = 0; // 0: no answer came
    std::string error;   // libcurl's text, for a failed transfer
    Json::UInt64 consecutiveProblems = 0;
    Json::UInt64 delivered = 0;
    Json::UInt64 refused = 0;
    Json::UInt64 failed = 0;
    std::uint64_t change = 0; // the table's change number when this entry last changed
};

struct Table {
    std::mutex mutex;
    std::map<std::string, Entry> entries;
    std::uint64_t changes = 0; // numbers every recorded outcome
    std::uint64_t written = 0; // the last change the file holds
    bool writing = false;      // one thread writes at a time, off the mutex
    bool lastWriteFailed = false;
    Clock::time_point lastWrite{};
};

Table& table() {
    static Table& instance = *new Table; // used by threads that outlive the unload
    return instance;
}

// What one outcome changed for the operator; said after the table's mutex is released.
enum class Transition { None, Refusing, Failing, Recovered };

// Local time with its offset, e.g. "2026-11-24T05:14:25+01:00".
std::string isoTimeNow() {
    const std::time_t now = std::time(nullptr);
    std::tm local = {};
    char text[40] = {};
    if (::localtime_r(&now, &local) == nullptr ||
        std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &local) == 0) {
        return "";
    }
    std::string iso = text; // the offset as +hhmm; ISO 8601's extended form wants +hh:mm
    if (iso.size() >= 5) {
        iso.insert(iso.size() - 2, ":");
    }
    return iso;
}

Transition update(Entry& entry, Outcome outcome, long httpStatus, const char* error) {
    const Outcome before = entry.outcome;
    const long statusBefore = entry.httpStatus;
    entry.outcome = outcome;
    entry.httpStatus = httpStatus;
    entry.error = outcome == Outcome::Failed ? error : "";
    switch (outcome) {
    case Outcome::Delivered:
        entry.delivered++;
        entry.consecutiveProblems = 0;
        return before != Outcome::Delivered ? Transition::Recovered : Transition::None;
    case Outcome::Refused:
        entry.refused++;
        entry.consecutiveProblems++;
        return before != Outcome::Refused || statusBefore != httpStatus ? Transition::Refusing
                                                                        : Transition::None;
    case Outcome::Failed:
        entry.failed++;
        entry.consecutiveProblems++;
        return before != Outcome::Failed ? Transition::Failing : Transition::None;
    }
    return Transition::None;
}

void sayTransition(Transition transition, const std::string& destination, const std::string& id,
                   long httpStatus, const char* error) {
    switch (transition) {
    case Transition::Refusing:
        RF_LOG(kLogError,
               "[%s():%d]Destination %s of subscription %s refused the delivery: HTTP %ld; "
               "counted as delivered",
               destination.c_str(), id.c_str(), httpStatus);
        break;
    case Transition::Failing:
        RF_LOG(kLogError, "[%s():%d]Destination %s of subscription %s failed: %s",
               destination.c_str(), id.c_str(), error);
        break;
    case Transition::Recovered:
        RF_LOG(kLogError, "[%s():%d]Destination %s of subscription %s accepts deliveries again",
               destination.c_str(), id.c_str());
        break;
    case Transition::None:
        break;
    }
}

const char* outcomeName(Outcome outcome) {
    switch (outcome) {
    case Outcome::Delivered:
        return "delivered";
    case Outcome::Refused:
        return "refused";
    case Outcome::Failed:
        return "failed";
    }
    return "";
}

Json::Value entryJson(const Entry& entry) {
    Json::Value member(Json::objectValue);
    member["Destination"] = entry.destination;
    member["LastAttempt"] = entry.lastAttempt;
    member["LastOutcome"] = outcomeName(entry.outcome);
    if (entry.httpStatus != 0) {
        member["LastHttpStatus"] = static_cast<Json::Int>(entry.httpStatus);
    }
    if (entry.outcome == Outcome::Failed) {
        member["LastError"] = entry.error;
    }
    member["ConsecutiveProblems"] = entry.consecutiveProblems;
    member["Delivered"] = entry.delivered;
    member["Refused"] = entry.refused;
    member["Failed"] = entry.failed;
    return member;
}

// The file's text: the entries whose subscription the store still holds (all of them when
// the store could not be read).
std::string render(const std::map<std::string, Entry>& entries,
                   const std::set<std::string>* stored) {
    Json::Value root(Json::objectValue);
    for (const auto& [id, entry] : entries) {
        if (stored == nullptr || stored->count(id) != 0) {
            root[id] = entryJson(entry);
        }
    }
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "  ";
    return Json::writeString(writer, root) + "\n";
}

// Forgets the entries of subscriptions gone from the store, unless they changed after the
// snapshot that was written (their subscription may be newer than the store that was read).
void dropRemoved(Table& status, const std::set<std::string>& stored, std::uint64_t upTo) {
    for (auto it = status.entries.begin(); it != status.entries.end();) {
        if (it->second.change <= upTo && stored.count(it->first) == 0) {
            it = status.entries.erase(it);
        } else {
            ++it;
        }
    }
}

// Ends a write: the next one may start; what the file now holds and what the store no longer
// holds are taken into account. A first failure after a success is said at level 2.
void finishWrite(Table& status, bool ok, const std::set<std::string>* stored, std::uint64_t upTo) {
    bool sayFailure = false;
    {
        std::lock_guard<std::mutex> lock(status.mutex);
        status.writing = false;
        if (ok) {
            status.written = upTo;
        }
        if (stored != nullptr) {
            dropRemoved(status, *stored, upTo);
        }
        sayFailure = !ok && !status.lastWriteFailed;
        status.lastWriteFailed = !ok;
    }
    if (sayFailure) {
        RF_LOG(kLogError, "[%s():%d]Cannot write the delivery status file %s",
               fixedPath(FixedPath::DeliveryStatus));
    }
}

// Writes the table when it changed and, unless forced, the last write is a second old. The
// snapshot is taken under the mutex; the file is written outside it, by one thread at a time.
void writeIfDue(bool force) {
    Table& status = table();
    std::map<std::string, Entry> snapshot;
    std::uint64_t upTo = 0;
    {
        std::lock_guard<std::mutex> lock(status.mutex);
        const Clock::time_point now = Clock::now();
        if (status.writing || status.changes == status.written ||
            (!force && now - status.lastWrite < kWriteSpacing)) {
            return;
        }
        snapshot = status.entries;
        upTo = status.changes;
        status.writing = true;
        status.lastWrite = now;
    }
    std::set<std::string> stored;
    bool storeKnown = false;
    bool ok = false;
    try {
        storeKnown = storedSubscriptionIds(stored);
        ok = replaceStatusFile(render(snapshot, storeKnown ? &stored : nullptr));
    } catch (...) {
        // An allocation that failed half-way is a write that failed: said once, tried again.
        ok = false;
        storeKnown = false;
    }
    finishWrite(status, ok, storeKnown ? &stored : nullptr, upTo);
}

void record(const std::string& id, const char* destination, CURL* curl, CURLcode result) {
    long httpStatus = 0;
    if (curl != nullptr) {
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &httpStatus);
    }
    Outcome outcome = Outcome::Failed;
    if (result == CURLE_OK) {
        outcome = httpStatus >= 200 && httpStatus < 300 ? Outcome::Delivered : Outcome::Refused;
    }
    const char* error = result == CURLE_OK ? "" : curl_easy_strerror(result);
    const std::string shown = withoutUserInfo(destination != nullptr ? destination : "");
    std::string when = isoTimeNow();
    Transition transition = Transition::None;
    {
        Table& status = table();
        std::lock_guard<std::mutex> lock(status.mutex);
        Entry& entry = status.entries[id];
        entry.destination = shown;
        entry.lastAttempt = std::move(when);
        entry.change = ++status.changes;
        transition = update(entry, outcome, httpStatus, error);
    }
    sayTransition(transition, shown, id, httpStatus, error);
}

} // namespace

std::string withoutUserInfo(const std::string& url) {
    const std::size_t scheme = url.find("://");
    const std::size_t start = scheme == std::string::npos ? 0 : scheme + 3;
    const std::size_t end = url.find_first_of("/?#", start);
    const std::string authority = url.substr(start, end == std::string::npos ? end : end - start);
    const std::size_t at = authority.rfind('@');
    if (at == std::string::npos) {
        return url;
    }
    return url.substr(0, start) + url.substr(start + at + 1);
}

void recordDeliveryOutcome(const std::string& id, const char* destination, CURL* curl,
                           CURLcode result) noexcept {
    if (id.empty()) {
        return;
    }
    guarded(RF_HERE, "Delivery status not recorded",
            [&] { record(id, destination, curl, result); });
}

void flushDeliveryStatus() noexcept {
    guarded(RF_HERE, "Delivery status not written", [] { writeIfDue(false); });
}

void writeDeliveryStatusNow() noexcept {
    guarded(RF_HERE, "Delivery status not written", [] { writeIfDue(true); });
}

} // namespace rfevent
