// The pipe parser against a plain byte-by-byte reading of the same rules, over many reads of
// random bytes: same announcements handled, in the same order, and the same saved fragment.
#include <gtest/gtest.h>
#include <strings.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "harness/sandbox.h"
#include "telemetry/notify_thread_internal.h"

using namespace rfevent;

namespace {

using rfevent::kTelemetryNameSize;
using rfevent::kTelemetryReadSize;
using rfevent::TelemetryPipeState;

// What the parser handled in the current round.
std::vector<std::string> g_events;

char* recordLookup(const char* name) {
    g_events.push_back(std::string("lookup:") + name);
    return nullptr;
}
void recordBuiltInReport(const rfevent::BuiltInReport& type) {
    g_events.push_back(&type == &rfevent::kSerialLogReport ? "serial" : "cpu");
}

// The rules one byte at a time: "|" closes a name (its NUL follows and is skipped), a "|"
// opening the read is skipped alone, bytes past 255 are dropped, and a name cut by the end of
// the read is kept as fragment when it fits.
void referenceParse(TelemetryPipeState& state, int n, std::vector<std::string>& events) {
    const int maxName = static_cast<int>(kTelemetryNameSize) - 1;
    int i = 0;
    int j = 0;
    while (i < n) {
        char byte = state.readBuffer[i];
        if (byte == '|') {
            if (i == 0) {
                i = 1;
                continue;
            }
            state.name[j] = '\0';
            bool useFragment =
                j == i && state.readBuffer[0] != '|' && state.savedFragment[0] != '\0';
            std::size_t length = std::strlen(state.name);
            if (strncasecmp(state.name, "seriallog", length) == 0) {
                events.push_back("serial");
            } else if (strncasecmp(state.name, "CPURegisters", length) == 0) {
                events.push_back("cpu");
            } else if (useFragment) {
                std::snprintf(state.combined, sizeof state.combined, "%s%s", state.savedFragment,
                              state.name);
                events.push_back(std::string("lookup:") + state.combined);
            } else {
                events.push_back(std::string("lookup:") + state.name);
            }
            i += 2;
            j = 0;
            continue;
        }
        if (j >= maxName) {
            ++i;
            continue;
        }
        state.name[j] = byte;
        if (i == n - 1) {
            std::memcpy(state.savedFragment, state.name, static_cast<std::size_t>(j) + 1);
            state.savedFragment[j + 1] = '\0';
            return;
        }
        ++i;
        ++j;
    }
}

// Random reads built from names of every length (some past the name buffer), commands,
// stray "|" and NUL bytes, cut anywhere.
std::string randomRead(std::mt19937& random) {
    static const char* const kPieces[] = {"seriallog", "CPURegisters", "cpu", "",
                                          "|",         "PowerMetrics"};
    std::string read;
    std::uniform_int_distribution<int> kind(0, 9);
    while (read.size() < kTelemetryReadSize) {
        int k = kind(random);
        if (k < 6) {
            read += kPieces[k];
        } else if (k < 8) {
            read.append(std::uniform_int_distribution<std::size_t>(1, 300)(random), 'a' + k);
        } else {
            read.push_back(k == 8 ? '\0' : 'Z');
        }
        if (kind(random) < 6) {
            read += '|';
            read += '\0';
        }
        if (kind(random) == 0) {
            break;
        }
    }
    std::size_t cut = std::uniform_int_distribution<std::size_t>(1, kTelemetryReadSize)(random);
    return read.substr(0, std::min(cut, read.size()));
}

TEST(TelemetryParseEquivalence, MatchesTheByteByByteRulesOnRandomReads) {
    rfevent::testkit::resetSandbox();
    auto parsed = std::make_unique<TelemetryPipeState>();
    auto reference = std::make_unique<TelemetryPipeState>();
    parsed->lookup = recordLookup;
    parsed->builtInReport = recordBuiltInReport;
    std::mt19937 random(20261121);
    for (int round = 0; round < 3000; ++round) {
        const std::string read = randomRead(random);
        const int n = static_cast<int>(read.size());
        std::memcpy(parsed->readBuffer, read.data(), read.size());
        std::memcpy(reference->readBuffer, read.data(), read.size());
        std::vector<std::string> expected;
        g_events.clear();
        rfevent::parseTelemetryRead(*parsed, n);
        referenceParse(*reference, n, expected);
        ASSERT_EQ(expected, g_events) << "round " << round;
        ASSERT_STREQ(reference->savedFragment, parsed->savedFragment) << "round " << round;
        std::memset(parsed->readBuffer, 0, sizeof parsed->readBuffer);
        std::memset(reference->readBuffer, 0, sizeof reference->readBuffer);
    }
}

} // namespace
