// Expectations of a run and the closing summary table.
#include <algorithm>

#include "monitor.h"
#include "status_table.h"

namespace rfevent::sim {

namespace {

std::string pad(const std::string& text, std::size_t width) {
    return text.size() >= width ? text + " " : text + std::string(width - text.size(), ' ');
}

} // namespace

void Monitor::expectDestination(const std::string& name, int count) {
    for (Destination& destination : destinations_) {
        if (destination.name == name) {
            destination.expected += count;
        }
    }
}

void Monitor::expectSse(const std::string& key, int count) {
    sseKeys_[key].expected += count;
}

void Monitor::expectEventLog(const std::string& messageId, const std::string& argument, int count) {
    for (LogExpectation& expectation : logExpectations_) {
        if (expectation.messageId == messageId && expectation.argument == argument) {
            expectation.expected += count;
            return;
        }
    }
    logExpectations_.push_back({messageId, argument, count});
}

void Monitor::expectPolicy(const std::string& subscriptionId, const std::string& change) {
    policyExpectations_[subscriptionId] = change;
}

int Monitor::destinationCount(const std::string& name) const {
    for (const Destination& destination : destinations_) {
        if (destination.name == name) {
            return static_cast<int>(destination.seen);
        }
    }
    return 0;
}

int Monitor::sseCount(const std::string& key) const {
    auto it = sseKeys_.find(key);
    return it == sseKeys_.end() ? 0 : it->second.received;
}

std::string Monitor::lastSseId(const std::string& key) const {
    auto it = sseKeys_.find(key);
    return it == sseKeys_.end() ? "" : it->second.lastId;
}

std::string Monitor::destinationUrl(const std::string& name) const {
    for (const Destination& destination : destinations_) {
        if (destination.name == name) {
            return destination.url;
        }
    }
    return "";
}

int Monitor::eventLogCount(const LogExpectation& expectation) const {
    int count = 0;
    for (const Json::Value& entry : newLogEntries_) {
        if (entry.get("MessageId", "").asString() != expectation.messageId) {
            continue;
        }
        bool hasArgument = expectation.argument.empty();
        for (const Json::Value& arg : entry["MessageArgs"]) {
            hasArgument = hasArgument || (arg.isString() && arg.asString() == expectation.argument);
        }
        count += hasArgument ? 1 : 0;
    }
    return count;
}

std::vector<std::string> Monitor::missing() const {
    std::vector<std::string> gaps;
    for (const Destination& destination : destinations_) {
        if (static_cast<int>(destination.seen) < destination.expected) {
            gaps.push_back("destination " + destination.name + ": " +
                           std::to_string(destination.seen) + " of " +
                           std::to_string(destination.expected));
        }
    }
    for (const auto& [key, stats] : sseKeys_) {
        if (stats.received < stats.expected) {
            gaps.push_back("SSE \"" + key + "\": " + std::to_string(stats.received) + " of " +
                           std::to_string(stats.expected));
        }
    }
    for (const LogExpectation& expectation : logExpectations_) {
        int count = eventLogCount(expectation);
        if (count < expectation.expected) {
            gaps.push_back("event log " + expectation.messageId + ": " + std::to_string(count) +
                           " of " + std::to_string(expectation.expected));
        }
    }
    auto changes = policyChanges();
    for (const auto& [id, change] : policyExpectations_) {
        auto it = changes.find(id);
        if (it == changes.end() || it->second != change) {
            std::string gap = "subscription " + id;
            gap += ": ";
            gap += change;
            gap += " not seen";
            gaps.push_back(gap);
        }
    }
    return gaps;
}

bool Monitor::allExpectedArrived() const {
    return missing().empty();
}

int Monitor::expectedTotal() const {
    int total = static_cast<int>(policyExpectations_.size());
    for (const Destination& destination : destinations_) {
        total += destination.expected;
    }
    for (const auto& entry : sseKeys_) {
        total += entry.second.expected;
    }
    for (const LogExpectation& expectation : logExpectations_) {
        total += expectation.expected;
    }
    return total;
}

int Monitor::shortfall() const {
    int total = 0;
    for (const Destination& destination : destinations_) {
        total += std::max(0, destination.expected - static_cast<int>(destination.seen));
    }
    for (const auto& [key, stats] : sseKeys_) {
        total += std::max(0, stats.expected - stats.received);
    }
    for (const LogExpectation& expectation : logExpectations_) {
        total += std::max(0, expectation.expected - eventLogCount(expectation));
    }
    auto changes = policyChanges();
    for (const auto& [id, change] : policyExpectations_) {
        auto it = changes.find(id);
        total += (it == changes.end() || it->second != change) ? 1 : 0;
    }
    return total;
}

void Monitor::printSummary(bool stepFailed) {
    poll();
    auto status = [](int received, int expected) {
        return received < expected ? "MISSING" : (received > expected ? "ok (more)" : "ok");
    };
    const auto outcomes = countsByDestination(settledDeliveryStatus());
    out_ << "\nSummary\n";
    out_ << "  " << pad("Destination", 16) << pad("URL", 40) << pad("deliv/refus/fail", 18)
         << pad("expected", 10) << pad("received", 10) << "status\n";
    for (const Destination& destination : destinations_) {
        int received = static_cast<int>(destination.seen);
        auto counts = outcomes.find(destination.url);
        const std::string outcome = counts == outcomes.end()
                                        ? "-"
                                        : std::to_string(counts->second.delivered) + "/" +
                                              std::to_string(counts->second.refused) + "/" +
                                              std::to_string(counts->second.failed);
        out_ << "  " << pad(destination.name, 16) << pad(destination.url, 40) << pad(outcome, 18)
             << pad(std::to_string(destination.expected), 10) << pad(std::to_string(received), 10)
             << status(received, destination.expected) << "\n";
    }
    std::size_t keyWidth = 16;
    for (const auto& entry : sseKeys_) {
        keyWidth = std::max(keyWidth, entry.first.size() + 2);
    }
    out_ << "  " << pad("SSE key", keyWidth) << pad("channel", 8) << pad("expected", 10)
         << pad("received", 10) << "status\n";
    for (const auto& [key, stats] : sseKeys_) {
        out_ << "  " << pad(key, keyWidth) << pad(stats.channel.empty() ? "-" : stats.channel, 8)
             << pad(std::to_string(stats.expected), 10) << pad(std::to_string(stats.received), 10)
             << status(stats.received, stats.expected) << "\n";
    }
    out_ << "  Event-log entries: " << newLogEntries_.size() << " new\n";
    for (const LogExpectation& expectation : logExpectations_) {
        int count = eventLogCount(expectation);
        out_ << "    " << pad(expectation.messageId + " [" + expectation.argument + "]", 60)
             << pad(std::to_string(expectation.expected), 10) << pad(std::to_string(count), 10)
             << status(count, expectation.expected) << "\n";
    }
    auto changes = policyChanges();
    out_ << "  Subscriptions changed by policy: " << changes.size() << "\n";
    for (const auto& [id, change] : changes) {
        auto expected = policyExpectations_.find(id);
        out_ << "    " << pad(id, 6) << pad(change, 54)
             << (expected == policyExpectations_.end()
                     ? "(not expected)"
                     : (expected->second == change ? "ok" : "expected " + expected->second))
             << "\n";
    }
    for (const auto& [id, change] : policyExpectations_) {
        if (changes.count(id) == 0) {
            out_ << "    " << pad(id, 6) << pad("(unchanged)", 54) << "MISSING: expected " << change
                 << "\n";
        }
    }
    auto gaps = missing();
    if (!gaps.empty()) {
        out_ << "Result: " << gaps.size() << " expectation(s) not met\n";
        for (const std::string& gap : gaps) {
            out_ << "  - " << gap << "\n";
        }
    } else if (stepFailed) {
        out_ << "Result: a step could not be carried out (the reason is on stderr)\n";
    } else if (expectedTotal() == 0) {
        out_ << "Result: no delivery was expected\n";
    } else {
        out_ << "Result: every expected delivery arrived\n";
    }
    out_.flush();
}

Json::Value Monitor::settledDeliveryStatus() {
    Json::Value status;
    auto accountsForAll = [&] {
        status = readDeliveryStatus(sandbox_.root());
        const auto counts = countsByDestination(status);
        for (const Destination& destination : destinations_) {
            auto it = counts.find(destination.url);
            const long long answered =
                it == counts.end() ? 0 : it->second.delivered + it->second.refused;
            if (destination.server && answered < static_cast<long long>(destination.seen)) {
                return false;
            }
        }
        return true;
    };
    waitUntil(accountsForAll, std::chrono::seconds(4));
    return status;
}

void Monitor::stop() {
    if (sse_) {
        sse_->stop();
    }
    for (Destination& destination : destinations_) {
        if (destination.server) {
            destination.server->stop();
        }
    }
}

} // namespace rfevent::sim
