// Replays every committed fuzz input through its fuzz entry: the seed corpora in fuzz/corpus/
// and the inputs of past fuzz findings in tests/regressions/inputs/<target>/ (each kept as
// the regression test of its finding). Under the sanitizer builds a memory error or undefined
// behaviour aborts the test; in every build a crash or a hang fails it.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "../../fuzz/alert_record.h"
#include "../../fuzz/metric_report.h"
#include "../../fuzz/replay_request.h"
#include "../../fuzz/sse_filter.h"
#include "../../fuzz/store_ops.h"
#include "../../fuzz/subscription_walk.h"
#include "../../fuzz/telemetry_pipe.h"
#include "harness/sandbox.h"

using namespace rfevent;

namespace {

namespace fs = std::filesystem;
using Entry = int (*)(const uint8_t*, std::size_t);

// From the build's own record of the source tree: __FILE__ may be relative (a compiler
// launcher that rewrites paths makes it so), and the tests run from the build folder.
const fs::path kHere = fs::path(RFEVENT_TESTS_DIR) / "regressions";

std::vector<fs::path> inputsOf(const std::string& target) {
    std::vector<fs::path> files;
    for (const fs::path& folder :
         {kHere / "../../fuzz/corpus" / target, kHere / "inputs" / target}) {
        if (!fs::is_directory(folder)) {
            continue;
        }
        for (const auto& entry : fs::directory_iterator(folder)) {
            if (entry.is_regular_file()) {
                files.push_back(entry.path());
            }
        }
    }
    return files;
}

void replayAll(const std::string& target, Entry entry) {
    const std::vector<fs::path> files = inputsOf(target);
    ASSERT_FALSE(files.empty()) << "no committed inputs for " << target;
    for (const fs::path& file : files) {
        SCOPED_TRACE(file.string());
        std::ifstream in(file, std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(in)),
                                std::istreambuf_iterator<char>());
        EXPECT_EQ(0, entry(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()));
    }
}

class FuzzReplay : public ::testing::Test {
  protected:
    void SetUp() override { rfevent::testkit::resetSandbox(); }
};

TEST_F(FuzzReplay, MetricReportTexts) {
    replayAll("metric_report_fuzz", rfevent::fuzz::metricReport);
}

TEST_F(FuzzReplay, SseFilterTexts) {
    replayAll("sse_filter_fuzz", rfevent::fuzz::sseFilter);
}

TEST_F(FuzzReplay, ReplayRequests) {
    replayAll("replay_request_fuzz", rfevent::fuzz::replayRequest);
}

TEST_F(FuzzReplay, SubscriptionStores) {
    replayAll("store_ops_fuzz", rfevent::fuzz::storeOps);
}

TEST_F(FuzzReplay, SubscriptionWalks) {
    replayAll("subscription_walk_fuzz", rfevent::fuzz::subscriptionWalk);
}

TEST_F(FuzzReplay, TelemetryPipeStreams) {
    replayAll("telemetry_pipe_fuzz", rfevent::fuzz::telemetryPipe);
}

TEST_F(FuzzReplay, AlertRecords) {
    replayAll("alert_record_fuzz", rfevent::fuzz::alertRecord);
}

} // namespace
