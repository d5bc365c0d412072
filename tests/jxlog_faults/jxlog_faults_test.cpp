// Interposes the event-log wrapper functions: the definitions below win over the platform
// library's, so this folder's tests see every call and can make any step fail.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "delivery/jxlog.h"
#include "harness/log_capture.h"
#include "harness/sandbox.h"
#include "platform/platform.h"

using namespace rfevent;

namespace tk = rfevent::testkit;

struct JXLogTLVList {
    int id;
};

namespace {

struct Calls {
    std::vector<std::string> order;
    int buildStatus = 0;
    int createStatus = 0;
    int addStatus = 0;
    int submitStatus = 0;
    bool createYieldsList = true;
    JXLogTLVList list{42};
    int frees = 0;
    JXLogTLVList* freed = nullptr;
    uint32_t builtCount = 0;
    uint32_t capacity = 0;
    int addType = 0;
    uint16_t addLength = 0;
    std::string addData;
    int submitCodes[3] = {};
    std::string submitId;
    int reserved[2] = {-1, -1};
    JXLogTLVList* submitList = nullptr;
};

Calls calls;

} // namespace

extern "C" {

int JXLOGWRAPBuildMsgArgsBuffer(char** args, uint32_t argCount, char* buffer,
                                uint32_t* bufferSize) {
    calls.order.push_back("build");
    calls.builtCount = argCount;
    calls.capacity = *bufferSize;
    uint32_t used = 0;
    for (uint32_t i = 0; i < argCount; ++i) {
        size_t length = std::strlen(args[i]) + 1;
        std::memcpy(buffer + used, args[i], length);
        used += static_cast<uint32_t>(length);
    }
    *bufferSize = used;
    return calls.buildStatus;
}

int JXLOGWRAPCreateTLVList(JXLogTLVList** list) {
    calls.order.push_back("create");
    *list = calls.createYieldsList ? &calls.list : nullptr;
    return calls.createStatus;
}

int JXLOGWRAPAddTLVToList(int type, uint16_t length, const void* data, JXLogTLVList* list) {
    (void)list;
    calls.order.push_back("add");
    calls.addType = type;
    calls.addLength = length;
    calls.addData.assign(static_cast<const char*>(data), length);
    return calls.addStatus;
}

int JXLOGWRAPSubmitEvent(int category, int severityCode, int eventType, const char* messageId,
                         int reserved1, int reserved2, JXLogTLVList* list) {
    calls.order.push_back("submit");
    calls.submitCodes[0] = category;
    calls.submitCodes[1] = severityCode;
    calls.submitCodes[2] = eventType;
    calls.submitId = messageId;
    calls.reserved[0] = reserved1;
    calls.reserved[1] = reserved2;
    calls.submitList = list;
    return calls.submitStatus;
}

void JXLOGWRAPFreeTLVList(JXLogTLVList* list) {
    calls.order.push_back("free");
    ++calls.frees;
    calls.freed = list;
}

} // extern "C"

namespace {

using Order = std::vector<std::string>;

class JxLogFaultsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        tk::resetSandbox();
        calls = Calls();
    }
};

TEST_F(JxLogFaultsTest, CallsThePlatformInOrderWithTheFixedCodes) {
    EXPECT_EQ(SubmitJXLog("JX083", 1, "https://d/"), 0);
    EXPECT_EQ(calls.order, (Order{"build", "create", "add", "submit", "free"}));
    EXPECT_EQ(calls.builtCount, 1u);
    EXPECT_EQ(calls.capacity, 1024u);
    EXPECT_EQ(calls.addType, 6);
    EXPECT_EQ(calls.addLength, 11);
    EXPECT_EQ(calls.addData, std::string("https://d/\0", 11));
    EXPECT_EQ(calls.submitCodes[0], 65);
    EXPECT_EQ(calls.submitCodes[1], 4);
    EXPECT_EQ(calls.submitCodes[2], 2);
    EXPECT_EQ(calls.reserved[0], 0);
    EXPECT_EQ(calls.reserved[1], 0);
    EXPECT_EQ(calls.submitId, "JX083");
    EXPECT_EQ(calls.submitList, &calls.list);
    EXPECT_EQ(calls.freed, &calls.list);
}

TEST_F(JxLogFaultsTest, NullMessageIdCallsNoPlatformFunction) {
    EXPECT_EQ(SubmitJXLog(nullptr, 1, "x"), 12902);
    EXPECT_TRUE(calls.order.empty());
}

TEST_F(JxLogFaultsTest, FailingAddFreesTheListExactlyOnce) {
    calls.addStatus = 33;
    tk::LogCapture log;
    EXPECT_EQ(SubmitJXLog("JX083", 1, "u"), 33);
    EXPECT_EQ(calls.order, (Order{"build", "create", "add", "free"}));
    EXPECT_EQ(calls.frees, 1);
    EXPECT_EQ(calls.freed, &calls.list);
    EXPECT_EQ(log.count(2, "JXLOGWRAPAddTLVToList Failed:[33],Freeing TLVlist"), 1);
}

TEST_F(JxLogFaultsTest, FailingAddWithoutListFreesNothing) {
    calls.addStatus = 34;
    calls.createYieldsList = false;
    EXPECT_EQ(SubmitJXLog("JX083", 1, "u"), 34);
    EXPECT_EQ(calls.frees, 0);
}

TEST_F(JxLogFaultsTest, FailingBuildStopsAtOnce) {
    calls.buildStatus = 11;
    tk::LogCapture log;
    EXPECT_EQ(SubmitJXLog("JX083", 1, "u"), 11);
    EXPECT_EQ(calls.order, (Order{"build"}));
    EXPECT_EQ(log.count(2, "JXLOGWRAPBuildMsgArgsBuffer Failed with status [11]"), 1);
}

TEST_F(JxLogFaultsTest, FailingCreateStopsWithoutFree) {
    calls.createStatus = 12;
    tk::LogCapture log;
    EXPECT_EQ(SubmitJXLog("JX083", 1, "u"), 12);
    EXPECT_EQ(calls.order, (Order{"build", "create"}));
    EXPECT_EQ(log.count(2, "JXLOGWRAPCreateTLVList Failed with status [12]"), 1);
}

TEST_F(JxLogFaultsTest, FailingSubmitStillFreesOnceAndReturnsItsStatus) {
    calls.submitStatus = 13;
    tk::LogCapture log;
    EXPECT_EQ(SubmitJXLog("JX083", 1, "u"), 13);
    EXPECT_EQ(calls.order, (Order{"build", "create", "add", "submit", "free"}));
    EXPECT_EQ(calls.frees, 1);
    EXPECT_EQ(log.count(2, "JXLOGWRAPSubmitEvent() failed with status [13]"), 1);
}

TEST_F(JxLogFaultsTest, NullFirstArgumentBuildsAnEmptyList) {
    EXPECT_EQ(SubmitJXLog("JX083", 1, static_cast<const char*>(nullptr)), 0);
    EXPECT_EQ(calls.builtCount, 0u);
    EXPECT_EQ(calls.addLength, 0);
    EXPECT_EQ(calls.order.back(), "free");
}

TEST_F(JxLogFaultsTest, AtMostFiveArgumentsAreTaken) {
    EXPECT_EQ(SubmitJXLog("JX001", 6, "1", "2", "3", "4", "5", "6"), 0);
    EXPECT_EQ(calls.builtCount, 5u);
    EXPECT_EQ(calls.addData, std::string("1\0002\0003\0004\0005\0", 10));
}

} // namespace
