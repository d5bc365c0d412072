#include "subscriptions/delivery_failure_internal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "harness/certs.h"
#include "harness/https_server.h"
#include "harness/log_capture.h"
#include "harness/sandbox.h"

using namespace rfevent;

namespace tk = rfevent::testkit;
using namespace std::chrono_literals;

namespace {

const char kIgnoreKey[] = "Tavik.Embedded.1#RedfishEventing.1#IgnoreCertificateErrors";
const char kIntervalKey[] = "Tavik.Embedded.1#RedfishEventing.1#DeliveryRetryIntervalInSeconds";
const char kBody[] = "{\"Id\":\"1\",\"Name\":\"Event Array\"}";

class SinglePostTest : public ::testing::Test {
  protected:
    void SetUp() override {
        tk::resetSandbox();
        pki_ = tk::generateTestPki(tk::rooted("/pki"));
        tk::installClientCredentials(pki_, tk::sandboxRoot(), true);
    }

    // Posts kBody to url with the given subscription; returns the flag.
    bool post(const std::string& url, const Json::Value& subscription = Json::Value()) {
        bool failed = true;
        sendHTTPPacketByCURL(kBody, url.c_str(), subscription, &failed);
        return failed;
    }

    static std::string absentUrl() {
        return "https://127.0.0.1:" + std::to_string(tk::HttpsServer::closedLoopbackPort()) + "/";
    }

    tk::TestPki pki_;
};

Json::Value headersSubscription() {
    Json::Value subscription(Json::objectValue);
    Json::Value first(Json::objectValue);
    first["X-B"] = "2";
    first["X-A"] = "1";
    Json::Value second(Json::objectValue);
    second["X-C"] = "three";
    subscription["HttpHeaders"].append(first);
    subscription["HttpHeaders"].append(second);
    return subscription;
}

size_t indexOfLine(const tk::RecordedRequest& request, const std::string& line) {
    auto it = std::find(request.headerLines.begin(), request.headerLines.end(), line);
    return static_cast<size_t>(it - request.headerLines.begin());
}

TEST_F(SinglePostTest, DeliversBodyAndHeadersInOrderWithContentTypeLast) {
    tk::writeDeliveryAttributes(1, 0, "No");
    tk::HttpsServer server(pki_);
    tk::LogCapture log;
    EXPECT_FALSE(post(server.url("/events"), headersSubscription()));
    ASSERT_EQ(server.requestCount(), 1u);
    tk::RecordedRequest request = server.requests()[0];
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.target, "/events");
    EXPECT_EQ(request.body, kBody);
    // Members of one object in the library's order, objects in array order, content type last.
    std::vector<std::string> ours = {"X-A:1", "X-B:2", "X-C:three",
                                     "Content-Type: application/json"};
    std::vector<size_t> positions;
    for (const std::string& line : ours) {
        positions.push_back(indexOfLine(request, line));
        ASSERT_LT(positions.back(), request.headerLines.size()) << line;
    }
    EXPECT_TRUE(std::is_sorted(positions.begin(), positions.end()));
    for (size_t i = positions.back() + 1; i < request.headerLines.size(); ++i) {
        EXPECT_EQ(request.headerLines[i].rfind("X-", 0), std::string::npos);
    }
    EXPECT_TRUE(request.clientCertVerified);
    EXPECT_EQ(request.clientCn, tk::kTestClientCn);
    EXPECT_TRUE(tk::eventLogEntries().empty());
    EXPECT_EQ(log.count(4, "Headervalue:X-A:1"), 1);
    EXPECT_EQ(log.count(4, "End Of For Loop"), 1);
    EXPECT_EQ(log.count(4, "curl_easy_perform success"), 1);
    EXPECT_EQ(log.count(2, "calling curl_easy_cleanup"), 1);
    EXPECT_EQ(log.count(5, "retryAttempts:1, retryIntervalSec:0"), 1);
    EXPECT_EQ(log.count(5, "isIgnoreCertificateErrors:0"), 1);
}

TEST_F(SinglePostTest, VerifiedDeliveryLogsTheServerCertificateChain) {
    tk::writeDeliveryAttributes(1, 0, "No");
    tk::HttpsServer server(pki_);
    tk::LogCapture log;
    EXPECT_FALSE(post(server.url()));
    EXPECT_EQ(log.count(4, "-------------------------------------------------------"), 2);
    EXPECT_EQ(log.count(4, " certs!"), 1);
    EXPECT_FALSE(log.contains(4, "]0 certs!"));
}

TEST_F(SinglePostTest, EmptyHeaderListSendsOnlyTheContentType) {
    tk::writeDeliveryAttributes(1, 0, "Yes");
    tk::HttpsServer server(pki_);
    tk::LogCapture log;
    Json::Value subscription(Json::objectValue);
    subscription["HttpHeaders"] = Json::Value(Json::arrayValue);
    EXPECT_FALSE(post(server.url(), subscription));
    ASSERT_EQ(server.requestCount(), 1u);
    EXPECT_TRUE(server.requests()[0].hasHeaderLine("Content-Type: application/json"));
    EXPECT_EQ(log.count(4, "HttpHeader size is Zero"), 1);
}

TEST_F(SinglePostTest, HeaderWithLineBreakIsDropped) {
    tk::writeDeliveryAttributes(1, 0, "Yes");
    tk::HttpsServer server(pki_);
    tk::LogCapture log;
    Json::Value subscription(Json::objectValue);
    Json::Value element(Json::objectValue);
    element["X-Good"] = "ok";
    element["X-Bad"] = "a\r\nX-Injected:1";
    element["X-Name\n"] = "v";
    subscription["HttpHeaders"].append(element);
    EXPECT_FALSE(post(server.url(), subscription));
    ASSERT_EQ(server.requestCount(), 1u);
    tk::RecordedRequest request = server.requests()[0];
    EXPECT_TRUE(request.hasHeaderLine("X-Good:ok"));
    EXPECT_FALSE(request.hasHeader("X-Bad"));
    EXPECT_FALSE(request.hasHeader("X-Injected"));
    EXPECT_EQ(log.count(2, "CR or LF in name or value"), 2);
}

TEST_F(SinglePostTest, WrongCaFailsWithOneEventLogEntry) {
    tk::installClientCredentials(pki_, tk::sandboxRoot(), false);
    tk::writeDeliveryAttributes(2, 0, "No");
    tk::HttpsServer server(pki_);
    std::string url = server.url("/x");
    tk::LogCapture log;
    EXPECT_TRUE(post(url));
    EXPECT_EQ(server.requestCount(), 0u);
    EXPECT_EQ(log.count(2, "curl_easy_perform failed with status"), 2);
    auto entries = tk::eventLogEntries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0]["MessageId"], Json::Value("JX083"));
    Json::Value args(Json::arrayValue);
    args.append(url);
    EXPECT_EQ(entries[0]["MessageArgs"], args);
}

TEST_F(SinglePostTest, IgnoringCertificatesDeliversDespiteWrongCa) {
    tk::installClientCredentials(pki_, tk::sandboxRoot(), false);
    tk::writeDeliveryAttributes(1, 0, "Yes");
    tk::HttpsServer server(pki_);
    EXPECT_FALSE(post(server.url()));
    ASSERT_EQ(server.requestCount(), 1u);
    EXPECT_EQ(server.requests()[0].clientCn, tk::kTestClientCn);
}

TEST_F(SinglePostTest, MissingOrInvalidCertificateSwitchMeansNoVerification) {
    tk::installClientCredentials(pki_, tk::sandboxRoot(), false);
    tk::writeDeliveryAttributes(1, 0, "Yes");
    tk::removeAttribute(kIgnoreKey);
    tk::HttpsServer server(pki_);
    tk::LogCapture log;
    EXPECT_FALSE(post(server.url()));
    EXPECT_EQ(log.count(5, "isIgnoreCertificateErrors:-1"), 1);
    Json::Value invalid(Json::objectValue);
    invalid["type"] = "enumeration";
    invalid["value"] = "Maybe";
    tk::setAttribute(kIgnoreKey, invalid);
    EXPECT_FALSE(post(server.url()));
    EXPECT_EQ(server.requestCount(), 2u);
    EXPECT_TRUE(tk::eventLogEntries().empty());
}

TEST_F(SinglePostTest, RetryCountZeroSendsNothing) {
    tk::writeDeliveryAttributes(0, 0, "Yes");
    tk::HttpsServer server(pki_);
    EXPECT_FALSE(post(server.url()));
    EXPECT_EQ(server.connectionsAccepted(), 0);
    EXPECT_TRUE(tk::eventLogEntries().empty());
}

TEST_F(SinglePostTest, UnsetRetryCountSendsNothing) {
    tk::HttpsServer server(pki_);
    EXPECT_FALSE(post(server.url()));
    EXPECT_EQ(server.connectionsAccepted(), 0);
    EXPECT_TRUE(tk::eventLogEntries().empty());
}

TEST_F(SinglePostTest, AbsentDestinationIsTriedEveryTimeThenLoggedOnce) {
    tk::writeDeliveryAttributes(2, 0, "Yes");
    std::string url = absentUrl();
    tk::LogCapture log;
    auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(post(url));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s); // interval 0: no sleep
    EXPECT_EQ(log.count(2, "curl_easy_perform failed with status 7"), 2);
    EXPECT_EQ(log.count(2, "curl_easy_perform failed 1 time sleeping for0 seconds"), 1);
    EXPECT_EQ(log.count(2, "curl_easy_perform failed 2 time sleeping for0 seconds"), 1);
    EXPECT_EQ(log.count(4, "retried for 2 times so write JX Log"), 1);
    EXPECT_EQ(log.count(4, "SubmitJXLog returned with status:0"), 1);
    auto entries = tk::eventLogEntries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0]["MessageId"], Json::Value("JX083"));
    EXPECT_EQ(entries[0]["MessageArgs"][0], Json::Value(url));
}

TEST_F(SinglePostTest, UnsetIntervalMeansNoSleep) {
    tk::writeDeliveryAttributes(3, 0, "Yes");
    tk::removeAttribute(kIntervalKey);
    auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(post(absentUrl()));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
}

TEST_F(SinglePostTest, IntervalIsSleptAfterTheLastFailedAttemptToo) {
    tk::writeDeliveryAttributes(1, 1, "Yes");
    auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(post(absentUrl()));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 1s);
    EXPECT_EQ(tk::eventLogEntries().size(), 1u);
}

TEST_F(SinglePostTest, PlainHttpFailsEveryAttempt) {
    tk::writeDeliveryAttributes(2, 0, "Yes");
    tk::HttpsServer server(pki_);
    std::string url = "http://127.0.0.1:" + std::to_string(server.port()) + "/";
    tk::LogCapture log;
    EXPECT_TRUE(post(url));
    EXPECT_EQ(server.connectionsAccepted(), 0);
    EXPECT_EQ(log.count(2, "curl_easy_perform failed with status 1 "), 2);
    auto entries = tk::eventLogEntries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0]["MessageArgs"][0], Json::Value(url));
}

TEST_F(SinglePostTest, ErrorStatusesCountAsDelivered) {
    tk::writeDeliveryAttributes(3, 0, "No");
    tk::HttpsServer server(pki_);
    server.setStatus(404);
    EXPECT_FALSE(post(server.url()));
    server.setStatus(500);
    EXPECT_FALSE(post(server.url()));
    EXPECT_EQ(server.requestCount(), 2u); // no retry
    EXPECT_TRUE(tk::eventLogEntries().empty());
}

TEST_F(SinglePostTest, MissingClientCertificateIsAFailedAttempt) {
    tk::removeFile(tk::rooted("/etc/certs/CA/certs/host.crt"));
    tk::writeDeliveryAttributes(1, 0, "Yes");
    tk::HttpsServer server(pki_);
    EXPECT_TRUE(post(server.url()));
    EXPECT_EQ(server.requestCount(), 0u);
    EXPECT_EQ(tk::eventLogEntries().size(), 1u);
}

TEST_F(SinglePostTest, NullArgumentsEndTheCallQuietly) {
    tk::writeDeliveryAttributes(1, 0, "Yes");
    tk::LogCapture log;
    bool failed = true;
    sendHTTPPacketByCURL(nullptr, "https://127.0.0.1/", Json::Value(), &failed);
    EXPECT_FALSE(failed);
    failed = true;
    sendHTTPPacketByCURL(kBody, nullptr, Json::Value(), &failed);
    EXPECT_FALSE(failed);
    EXPECT_EQ(log.count(2, "formData or URI is NULL:"), 2);
    EXPECT_FALSE(log.containsAny("calling curl_easy_cleanup"));
    EXPECT_TRUE(tk::eventLogEntries().empty());
}

TEST_F(SinglePostTest, RefusedOptionEndsTheCallWithoutAttempt) {
    tk::writeDeliveryAttributes(2, -1, "Yes"); // a negative time-out is refused by libcurl
    tk::LogCapture log;
    EXPECT_FALSE(post(absentUrl()));
    EXPECT_EQ(log.count(2, "libcurl CURLOPT_CONNECTTIMEOUT: failed:"), 1);
    EXPECT_FALSE(log.containsAny("curl_easy_perform"));
    EXPECT_EQ(log.count(2, "calling curl_easy_cleanup"), 1);
    EXPECT_TRUE(tk::eventLogEntries().empty());
}

TEST_F(SinglePostTest, MalformedHeadersThrowAndReleaseEverything) {
    tk::writeDeliveryAttributes(1, 0, "Yes");
    tk::HttpsServer server(pki_);
    Json::Value subscription(Json::objectValue);
    subscription["HttpHeaders"].append("not an object");
    tk::LogCapture log;
    bool failed = true;
    EXPECT_THROW(sendHTTPPacketByCURL(kBody, server.url().c_str(), subscription, &failed),
                 Json::LogicError);
    EXPECT_FALSE(failed);
    EXPECT_EQ(log.count(2, "calling curl_easy_cleanup"), 1);
    // The POST lock was released: the next call goes through.
    EXPECT_FALSE(post(server.url()));
    EXPECT_EQ(server.requestCount(), 1u);
}

TEST_F(SinglePostTest, PostsFromSeveralThreadsRunOneAtATime) {
    tk::writeDeliveryAttributes(1, 0, "Yes");
    tk::HttpsServer server(pki_);
    server.setDelayMs(400);
    std::string url = server.url();
    bool firstFailed = true;
    bool secondFailed = true;
    std::thread first(
        [&] { sendHTTPPacketByCURL(kBody, url.c_str(), Json::Value(), &firstFailed); });
    std::thread second(
        [&] { sendHTTPPacketByCURL(kBody, url.c_str(), Json::Value(), &secondFailed); });
    first.join();
    second.join();
    EXPECT_FALSE(firstFailed);
    EXPECT_FALSE(secondFailed);
    auto requests = server.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_GE(requests[1].receivedAt - requests[0].receivedAt, 350ms);
}

} // namespace
