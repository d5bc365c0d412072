// The HTTPS test destination, driven by libcurl the way the product drives it:
// mutual TLS, recorded requests, 100-continue, status, delay, parallel clients.
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "harness/certs.h"
#include "harness/https_server.h"
#include "harness/sandbox.h"
#include "harness/wait.h"

namespace rfevent::testkit {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

TestPki pki() {
    return generateTestPki(rooted("/pki"));
}

struct PostOptions {
    std::vector<std::string> headers;
    bool clientCert = true;
    std::string caFile;     // empty: the test CA
    long timeoutMs = 60000; // bounds only exchanges that must succeed: room for a slow machine
    long expectContinueTimeoutMs = 0; // 0: libcurl's default
};

struct PostResult {
    CURLcode code = CURLE_OK;
    long status = 0;
    Clock::duration elapsed{};
};

// Sets up one easy handle for a POST of `body` to `url`. The caller owns the
// handle and the header list.
CURL* makePost(const std::string& url, const std::string& body, const PostOptions& options,
               curl_slist** headers) {
    const TestPki files = pki();
    CURL* curl = curl_easy_init();
    *headers = nullptr;
    for (const std::string& line : options.headers) {
        *headers = curl_slist_append(*headers, line.c_str());
    }
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_POST, 1L);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    curl_easy_setopt(curl, CURLOPT_COPYPOSTFIELDS, body.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, *headers);
    curl_easy_setopt(curl, CURLOPT_CAINFO,
                     (options.caFile.empty() ? files.caCert : options.caFile).c_str());
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, options.timeoutMs);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    if (options.expectContinueTimeoutMs > 0) {
        curl_easy_setopt(curl, CURLOPT_EXPECT_100_TIMEOUT_MS, options.expectContinueTimeoutMs);
    }
    if (options.clientCert) {
        curl_easy_setopt(curl, CURLOPT_SSLCERT, files.clientCert.c_str());
        curl_easy_setopt(curl, CURLOPT_SSLKEY, files.clientKey.c_str());
    }
    return curl;
}

PostResult post(const std::string& url, const std::string& body, const PostOptions& options = {}) {
    curl_slist* headers = nullptr;
    CURL* curl = makePost(url, body, options, &headers);
    PostResult result;
    const auto start = Clock::now();
    result.code = curl_easy_perform(curl);
    result.elapsed = Clock::now() - start;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &result.status);
    curl_easy_cleanup(curl);
    curl_slist_free_all(headers);
    return result;
}

std::size_t indexOfLine(const RecordedRequest& request, const std::string& line) {
    const auto& lines = request.headerLines;
    return static_cast<std::size_t>(std::find(lines.begin(), lines.end(), line) - lines.begin());
}

// Polls a counter that the server updates on its own threads.
template <typename Get> bool eventually(Get get, int expected) {
    return waitUntil([&] { return get() >= expected; });
}

TEST(HttpsServerTest, RecordsAMutualTlsPost) {
    HttpsServer server(pki());
    const std::string body = R"({"Events":[{"MessageId":"X.1"}]})";
    PostOptions options;
    options.headers = {"X-Auth:abc", "X-Two: two words ", "Content-Type: application/json"};
    const PostResult result = post(server.url("/events/1?x=y"), body, options);
    ASSERT_EQ(result.code, CURLE_OK) << curl_easy_strerror(result.code);
    EXPECT_EQ(result.status, 200);

    ASSERT_TRUE(server.waitForRequests(1, kEventDeadline));
    const RecordedRequest request = server.requests().at(0);
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.target, "/events/1?x=y");
    EXPECT_EQ(request.version, "HTTP/1.1");
    EXPECT_EQ(request.body, body);
    EXPECT_TRUE(request.clientCertPresented);
    EXPECT_TRUE(request.clientCertVerified);
    EXPECT_EQ(request.clientCn, kTestClientCn);

    EXPECT_TRUE(request.hasHeaderLine("X-Auth:abc"));
    EXPECT_FALSE(request.hasHeaderLine("X-Auth: abc"));
    EXPECT_EQ(request.header("x-auth"), "abc");
    EXPECT_EQ(request.header("X-Two"), "two words");
    EXPECT_EQ(request.header("Content-Length"), std::to_string(body.size()));
    EXPECT_LT(indexOfLine(request, "X-Auth:abc"), indexOfLine(request, "X-Two: two words "));
    EXPECT_LT(indexOfLine(request, "X-Two: two words "),
              indexOfLine(request, "Content-Type: application/json"));
    EXPECT_LT(indexOfLine(request, "Content-Type: application/json"), request.headerLines.size());
    ASSERT_EQ(request.headers.size(), request.headerLines.size());
    EXPECT_EQ(server.handshakeFailures(), 0);
}

TEST(HttpsServerTest, RejectsAClientWithoutCertificateWhenRequired) {
    HttpsServer server(pki());
    PostOptions options;
    options.clientCert = false;
    const PostResult result = post(server.url("/events"), "{}", options);
    EXPECT_NE(result.code, CURLE_OK);
    EXPECT_TRUE(eventually([&] { return server.handshakeFailures(); }, 1));
    EXPECT_EQ(server.requestCount(), 0u);
}

TEST(HttpsServerTest, AcceptsAClientWithoutCertificateWhenNotRequired) {
    HttpsServerOptions serverOptions;
    serverOptions.requireClientCert = false;
    HttpsServer server(pki(), serverOptions);
    PostOptions options;
    options.clientCert = false;
    ASSERT_EQ(post(server.url("/"), "{}", options).code, CURLE_OK);
    ASSERT_TRUE(server.waitForRequests(1, kEventDeadline));
    EXPECT_FALSE(server.requests()[0].clientCertPresented);
    EXPECT_FALSE(server.requests()[0].clientCertVerified);
    EXPECT_EQ(server.requests()[0].clientCn, "");
}

TEST(HttpsServerTest, ClientThatDistrustsTheServerFailsTheHandshake) {
    HttpsServer server(pki());
    PostOptions options;
    options.caFile = pki().otherCaCert;
    const PostResult result = post(server.url("/"), "{}", options);
    EXPECT_EQ(result.code, CURLE_PEER_FAILED_VERIFICATION) << curl_easy_strerror(result.code);
    EXPECT_TRUE(eventually([&] { return server.handshakeFailures(); }, 1));
    EXPECT_EQ(server.requestCount(), 0u);
}

TEST(HttpsServerTest, BodyAfterExpectContinueArrivesWholeAndFast) {
    HttpsServer server(pki());
    std::string body(2048, 'x');
    for (std::size_t i = 0; i < body.size(); ++i) {
        body[i] = static_cast<char>('a' + i % 26);
    }
    PostOptions options;
    options.headers = {"Expect: 100-continue"};
    options.expectContinueTimeoutMs = 60000;
    const PostResult result = post(server.url("/big"), body, options);
    ASSERT_EQ(result.code, CURLE_OK) << curl_easy_strerror(result.code);
    // Without our "100 Continue" libcurl would wait the whole 60 s.
    EXPECT_LT(result.elapsed, 30s);
    ASSERT_TRUE(server.waitForRequests(1, kEventDeadline));
    EXPECT_EQ(server.requests()[0].header("Expect"), "100-continue");
    EXPECT_EQ(server.requests()[0].body, body);
}

TEST(HttpsServerTest, LargeBodyArrivesWhole) {
    HttpsServer server(pki());
    std::string body(1536 * 1024, 'x');
    for (std::size_t i = 0; i < body.size(); i += 7) {
        body[i] = static_cast<char>('0' + i % 10);
    }
    const PostResult result = post(server.url("/large"), body);
    ASSERT_EQ(result.code, CURLE_OK) << curl_easy_strerror(result.code);
    ASSERT_TRUE(server.waitForRequests(1, kEventDeadline));
    EXPECT_TRUE(server.requests()[0].body == body);
}

TEST(HttpsServerTest, AnswersTheConfiguredStatus) {
    HttpsServerOptions options;
    options.status = 404;
    HttpsServer server(pki(), options);
    EXPECT_EQ(post(server.url("/"), "{}").status, 404);
    server.setStatus(500);
    const PostResult result = post(server.url("/"), "{}");
    EXPECT_EQ(result.code, CURLE_OK);
    EXPECT_EQ(result.status, 500);
    EXPECT_EQ(server.requestCount(), 2u);
}

TEST(HttpsServerTest, DelayHoldsTheAnswerBack) {
    HttpsServer server(pki());
    server.setDelayMs(300);
    const PostResult slow = post(server.url("/"), "{}");
    EXPECT_EQ(slow.code, CURLE_OK);
    EXPECT_GE(slow.elapsed, 300ms);

    PostOptions impatient;
    // Room for the handshake and the request on an emulated target on a busy machine; the
    // answer comes long after (stop() at the end cuts the delay short).
    impatient.timeoutMs = 5000;
    server.setDelayMs(60000);
    EXPECT_EQ(post(server.url("/"), "{}", impatient).code, CURLE_OPERATION_TIMEDOUT);
    EXPECT_TRUE(server.waitForRequests(2, kEventDeadline)); // recorded before the delay
}

TEST(HttpsServerTest, StopInterruptsADelayedAnswer) {
    HttpsServer server(pki());
    server.setDelayMs(20000);
    PostResult result;
    std::thread client([&] { result = post(server.url("/"), "{}"); });
    ASSERT_TRUE(server.waitForRequests(1, kEventDeadline));
    const auto start = Clock::now();
    server.stop();
    EXPECT_LT(Clock::now() - start, 2s);
    client.join();
    EXPECT_NE(result.code, CURLE_OK);
}

TEST(HttpsServerTest, ServesManyParallelClientsAtOnce) {
    // No answer leaves before every request has been recorded, so all clients are being
    // served at the same moment; a server that served one client after the other would never
    // get past the first.
    HttpsServerOptions options;
    options.holdAnswers = true;
    HttpsServer server(pki(), options);
    constexpr int kClients = 32;
    CURLM* multi = curl_multi_init();
    std::vector<CURL*> handles;
    std::vector<curl_slist*> lists(kClients, nullptr);
    for (int i = 0; i < kClients; ++i) {
        handles.push_back(makePost(server.url("/p/" + std::to_string(i)), "{}", {}, &lists[i]));
        curl_multi_add_handle(multi, handles.back());
    }
    std::thread clients([multi] {
        int running = 0;
        do {
            curl_multi_perform(multi, &running);
            if (running > 0) {
                curl_multi_poll(multi, nullptr, 0, 100, nullptr);
            }
        } while (running > 0);
    });
    const bool allInFlight = server.waitForRequests(kClients, kEventDeadline);
    const int peak = server.peakLiveConnections();
    server.releaseAnswers();
    clients.join();

    int succeeded = 0;
    int messagesLeft = 0;
    while (CURLMsg* message = curl_multi_info_read(multi, &messagesLeft)) {
        if (message->msg == CURLMSG_DONE && message->data.result == CURLE_OK) {
            ++succeeded;
        }
    }
    for (int i = 0; i < kClients; ++i) {
        curl_multi_remove_handle(multi, handles[i]);
        curl_easy_cleanup(handles[i]);
        curl_slist_free_all(lists[i]);
    }
    curl_multi_cleanup(multi);

    EXPECT_TRUE(allInFlight) << server.requestCount() << " requests before any answer";
    EXPECT_EQ(peak, kClients);
    EXPECT_EQ(succeeded, kClients);
    EXPECT_EQ(server.requestCount(), static_cast<std::size_t>(kClients));
}

TEST(HttpsServerTest, HeldAnswersWaitForTheRelease) {
    HttpsServerOptions options;
    options.holdAnswers = true;
    HttpsServer server(pki(), options);
    std::atomic<bool> done{false};
    PostResult result;
    std::thread client([&] {
        result = post(server.url("/held"), "{}");
        done = true;
    });
    ASSERT_TRUE(server.waitForRequests(1, kEventDeadline));
    // Recorded, and the client is still waiting: its answer can only come after the release.
    EXPECT_FALSE(done);
    server.releaseAnswers();
    client.join();
    EXPECT_EQ(result.code, CURLE_OK);
    EXPECT_EQ(result.status, 200);
    // Released for good: a later request is answered at once.
    EXPECT_EQ(post(server.url("/later"), "{}").status, 200);
}

TEST(HttpsServerTest, DroppedConnectionsFailAtOnceUntilSwitchedBack) {
    HttpsServer server(pki());
    server.setDropConnections(true);
    const PostResult dropped = post(server.url("/"), "{}");
    EXPECT_NE(dropped.code, CURLE_OK);
    EXPECT_NE(dropped.code, CURLE_OPERATION_TIMEDOUT);
    EXPECT_EQ(server.connectionsDropped(), 1);
    EXPECT_EQ(server.handshakeFailures(), 0);
    EXPECT_EQ(server.requestCount(), 0u);
    server.setDropConnections(false);
    ASSERT_EQ(post(server.url("/"), "{}").code, CURLE_OK);
    EXPECT_EQ(server.requestCount(), 1u);
    EXPECT_EQ(server.connectionsDropped(), 1);
    EXPECT_EQ(server.connectionsAccepted(), 2);
}

TEST(HttpsServerTest, ClearForgetsRequestsAndCounters) {
    HttpsServer server(pki());
    ASSERT_EQ(post(server.url("/"), "{}").code, CURLE_OK);
    server.clear();
    EXPECT_EQ(server.requestCount(), 0u);
    EXPECT_EQ(server.connectionsAccepted(), 0);
    ASSERT_EQ(post(server.url("/"), "{}").code, CURLE_OK);
    EXPECT_EQ(server.requestCount(), 1u);
}

TEST(HttpsServerTest, UrlNamesTheLoopbackPort) {
    HttpsServer server(pki());
    EXPECT_GT(server.port(), 0);
    EXPECT_EQ(server.url("/a"), "https://127.0.0.1:" + std::to_string(server.port()) + "/a");
    EXPECT_EQ(server.url(), "https://127.0.0.1:" + std::to_string(server.port()) + "/");
}

TEST(HttpsServerTest, StoppedServerRefusesConnections) {
    HttpsServer server(pki());
    const std::string url = server.url("/");
    server.stop();
    server.stop();
    EXPECT_EQ(post(url, "{}").code, CURLE_COULDNT_CONNECT);
}

TEST(HttpsServerTest, ClosedLoopbackPortRefusesConnections) {
    const int port = HttpsServer::closedLoopbackPort();
    EXPECT_GT(port, 0);
    EXPECT_EQ(post("https://127.0.0.1:" + std::to_string(port) + "/", "{}").code,
              CURLE_COULDNT_CONNECT);
}

// Two POSTs over one easy handle. Every answer closes its connection, so the second POST makes
// a new handshake, which resumes the first one's session where the server allows it.
std::vector<bool> resumedOverOneHandle(const HttpsServer& server) {
    curl_slist* headers = nullptr;
    CURL* curl = makePost(server.url("/"), "{}", PostOptions{}, &headers);
    const CURLcode first = curl_easy_perform(curl);
    const CURLcode second = curl_easy_perform(curl);
    curl_easy_cleanup(curl);
    curl_slist_free_all(headers);
    EXPECT_EQ(first, CURLE_OK);
    EXPECT_EQ(second, CURLE_OK);
    std::vector<bool> resumed;
    for (const RecordedRequest& request : server.requests()) {
        resumed.push_back(request.sessionResumed);
    }
    return resumed;
}

TEST(HttpsServerTest, RecordsWhetherAHandshakeResumedASession) {
    HttpsServer server(pki());
    EXPECT_EQ(resumedOverOneHandle(server), (std::vector<bool>{false, true}));
    EXPECT_TRUE(server.requests().at(1).clientCertVerified);
    EXPECT_EQ(server.requests().at(1).clientCn, kTestClientCn);
}

TEST(HttpsServerTest, ResumesTlsOneTwoSessions) {
    HttpsServerOptions options;
    options.maxTlsVersion = TLS1_2_VERSION;
    HttpsServer server(pki(), options);
    EXPECT_EQ(resumedOverOneHandle(server), (std::vector<bool>{false, true}));
}

TEST(HttpsServerTest, RefusesResumptionWhenAskedTo) {
    HttpsServerOptions options;
    options.resumption = false;
    HttpsServer server(pki(), options);
    EXPECT_EQ(resumedOverOneHandle(server), (std::vector<bool>{false, false}));
    EXPECT_EQ(server.handshakeFailures(), 0);
}

TEST(HttpsServerTest, RestartsOnItsOldPort) {
    auto before = std::make_unique<HttpsServer>(pki());
    const int port = before->port();
    ASSERT_EQ(post(before->url("/"), "{}").code, CURLE_OK);
    before.reset();
    HttpsServerOptions options;
    options.port = port;
    HttpsServer after(pki(), options);
    EXPECT_EQ(after.port(), port);
    EXPECT_EQ(post(after.url("/"), "{}").code, CURLE_OK);
    EXPECT_EQ(after.requestCount(), 1u);
}

} // namespace
} // namespace rfevent::testkit
