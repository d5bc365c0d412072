// The stand-alone platform library: its contract as the plug-in relies on it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "harness/log_capture.h"
#include "harness/sandbox.h"
#include "platform/platform.h"

using namespace rfevent;

using namespace rfevent::testkit;

namespace {

class StandaloneTest : public ::testing::Test {
  protected:
    void SetUp() override {
        resetSandbox();
        writeAttributes(Json::Value(Json::objectValue));
    }
};

TEST_F(StandaloneTest, CfgGetAttributeNeverCutsAValue) {
    setAttribute("K", "Enabled");
    char small[2] = {'x', 'x'};
    uint32_t length = sizeof small;
    EXPECT_NE(CfgGetAttribute("K", small, &length), 0);
    setAttribute("K", "10");
    EXPECT_NE(CfgGetAttribute("K", small, &length), 0);
    setAttribute("K", "1");
    length = sizeof small;
    EXPECT_EQ(CfgGetAttribute("K", small, &length), 0);
    EXPECT_STREQ(small, "1");
    EXPECT_EQ(length, 1u);
}

TEST_F(StandaloneTest, CfgSetAttributeStoresAString) {
    uint32_t status = 99;
    EXPECT_EQ(
        CfgSetAttribute("Tavik.Embedded.1#Telemetry.1#TelemetrySubscription3", "", 0, &status), 0);
    EXPECT_EQ(status, 0u);
    auto attributes = parseJson(readFile(rooted("/var/lib/rfevent/attributes.json")));
    EXPECT_EQ(attributes["Tavik.Embedded.1#Telemetry.1#TelemetrySubscription3"], "");
}

TEST_F(StandaloneTest, EventLogAppendsOneLinePerEvent) {
    char* args[] = {const_cast<char*>("https://x/y"), const_cast<char*>("b")};
    char buffer[1024] = {};
    uint32_t size = sizeof buffer;
    ASSERT_EQ(JXLOGWRAPBuildMsgArgsBuffer(args, 2, buffer, &size), 0);
    EXPECT_EQ(size, std::strlen("https://x/y") + 1 + 2);
    JXLogTLVList* list = nullptr;
    ASSERT_EQ(JXLOGWRAPCreateTLVList(&list), 0);
    ASSERT_EQ(JXLOGWRAPAddTLVToList(6, static_cast<uint16_t>(size), buffer, list), 0);
    ASSERT_EQ(JXLOGWRAPSubmitEvent(65, 4, 2, "JX083", 0, 0, list), 0);
    JXLOGWRAPFreeTLVList(list);
    auto entries = eventLogEntries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0]["MessageId"], "JX083");
    ASSERT_EQ(entries[0]["MessageArgs"].size(), 2u);
    EXPECT_EQ(entries[0]["MessageArgs"][0], "https://x/y");
    EXPECT_EQ(entries[0]["MessageArgs"][1], "b");
}

TEST_F(StandaloneTest, RegistrationIsRecorded) {
    EXPECT_EQ(telemetrySvc_registerForReportTriggers("/p/telemetryfifo", 43), 0);
    EXPECT_EQ(readFile(rooted("/var/lib/rfevent/report-triggers.log")), "/p/telemetryfifo 43\n");
}

TEST_F(StandaloneTest, WriteLockIsExclusiveAcrossProcesses) {
    std::string lock = rooted("/var/tmp/telemetry/SerialLog.lock");
    int fd = utl_trylock_write(lock.c_str());
    ASSERT_GE(fd, 0);
    pid_t child = fork();
    if (child == 0) {
        _exit(utl_trylock_write(lock.c_str()) < 0 ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(utl_close_unlock(fd), 0);
}

TEST_F(StandaloneTest, FileUtilities) {
    std::string path = rooted("/var/tmp/telemetry/x.json");
    EXPECT_EQ(utl_echo_write("hello world", 5, path.c_str(), 1, 1), 0);
    EXPECT_EQ(readFile(path), "hello");
    EXPECT_EQ(utl_trunc_file(path.c_str()), 0);
    EXPECT_EQ(readFile(path), "");
    EXPECT_NE(utl_trunc_file(rooted("/missing/file").c_str()), 0);
}

TEST_F(StandaloneTest, NumericIdsLeaveTheTextAlone) {
    NumericDynamicSegment formatter;
    std::string text = "/redfish/v1/Systems/System.Embedded.1";
    EXPECT_NE(formatter.FormatResponseWithNumericId(text), 0);
    EXPECT_EQ(text, "/redfish/v1/Systems/System.Embedded.1");
}

TEST_F(StandaloneTest, LogLinesCarryLevelAndModule) {
    LogCapture log;
    orvaprintf(2, 139, "[%s():%d]hello %s\n", "fn", 12, "world");
    orvaprintf(6, 139, "too detailed");
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], "<2> [139] [fn():12]hello world");
}

} // namespace
