// TLS session reuse of every POST, against real mutual-TLS destinations that count resumed
// handshakes: a session is resumed only for the same destination with the same TLS settings and
// the same credential files, and nothing about a session ever costs a delivery.
#include <openssl/ssl.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "delivery/parallel_post.h"
#include "harness/certs.h"
#include "harness/https_server.h"
#include "harness/sandbox.h"
#include "subscriptions/delivery_failure_internal.h"
#include "subscriptions/store.h"

using namespace rfevent;

namespace rfevent::testkit {
namespace {

using namespace std::chrono_literals;

const char kBody[] = "{\"Id\":\"1\",\"Name\":\"Event Array\"}";

class SessionReuseTest : public ::testing::Test {
  protected:
    void SetUp() override {
        resetSandbox();
        pki_ = generateTestPki(rooted("/pki"));
        installClientCredentials(pki_, sandboxRoot(), true);
        writeDeliveryAttributes(1, 5, "No");
    }

    // One single POST of kBody; true when it was delivered.
    static bool post(const std::string& url) {
        bool failed = true;
        sendHTTPPacketByCURL(kBody, url.c_str(), Json::Value(), &failed);
        return !failed;
    }

    // One parallel pass to urls; the failure count of every target.
    static std::vector<int> pass(const std::vector<std::string>& urls) {
        std::vector<DeliveryTarget> targets;
        for (const std::string& url : urls) {
            DeliveryTarget target;
            target.destination = url;
            target.subscriptionId = "1";
            target.subscription = Json::Value(Json::objectValue);
            targets.push_back(target);
        }
        sendMultiperform(kBody, targets);
        std::vector<int> failures;
        for (const DeliveryTarget& target : targets) {
            failures.push_back(target.failureCount);
        }
        removeFromSubscription(targets);
        return failures;
    }

    static std::vector<bool> resumed(const HttpsServer& server) {
        std::vector<bool> flags;
        for (const RecordedRequest& request : server.requests()) {
            flags.push_back(request.sessionResumed);
        }
        return flags;
    }

    TestPki pki_;
};

TEST_F(SessionReuseTest, SecondPostToTheSameDestinationResumes) {
    HttpsServer server(pki_);
    ASSERT_TRUE(post(server.url("/a")));
    ASSERT_TRUE(post(server.url("/b")));
    EXPECT_EQ(resumed(server), (std::vector<bool>{false, true}));
    for (const RecordedRequest& request : server.requests()) {
        EXPECT_TRUE(request.clientCertVerified);
        EXPECT_EQ(request.clientCn, kTestClientCn);
        EXPECT_EQ(request.body, kBody);
    }
}

TEST_F(SessionReuseTest, CheckingOffResumesToo) {
    writeDeliveryAttributes(1, 5, "Yes");
    HttpsServer server(pki_);
    ASSERT_TRUE(post(server.url()));
    ASSERT_TRUE(post(server.url()));
    EXPECT_EQ(resumed(server), (std::vector<bool>{false, true}));
}

TEST_F(SessionReuseTest, TlsOneTwoSessionsResumeToo) {
    HttpsServerOptions options;
    options.maxTlsVersion = TLS1_2_VERSION;
    HttpsServer server(pki_, options);
    ASSERT_TRUE(post(server.url()));
    ASSERT_TRUE(post(server.url()));
    EXPECT_EQ(resumed(server), (std::vector<bool>{false, true}));
}

// One destination per target: transfers of one pass to the same destination may start before
// any of them has the session that destination handed out last.
TEST_F(SessionReuseTest, ParallelPassesShareTheCacheWithTheSinglePost) {
    HttpsServer first(pki_);
    HttpsServer second(pki_);
    HttpsServer third(pki_);
    ASSERT_TRUE(post(first.url("/alert")));
    ASSERT_TRUE(post(second.url("/alert")));
    EXPECT_EQ(pass({first.url("/1"), second.url("/2"), third.url("/3")}),
              (std::vector<int>{0, 0, 0}));
    EXPECT_EQ(pass({first.url("/1"), second.url("/2"), third.url("/3")}),
              (std::vector<int>{0, 0, 0}));
    EXPECT_EQ(resumed(first), (std::vector<bool>{false, true, true}));
    EXPECT_EQ(resumed(second), (std::vector<bool>{false, true, true}));
    EXPECT_EQ(resumed(third), (std::vector<bool>{false, true}));
    for (const HttpsServer* server : {&first, &second, &third}) {
        for (const RecordedRequest& request : server->requests()) {
            EXPECT_EQ(request.clientCn, kTestClientCn);
        }
    }
}

// libcurl keeps 8 sessions in one share handle; an alert to more destinations than that,
// served in turn, still finds every session again.
TEST_F(SessionReuseTest, MoreThanEightDestinationsAreAllResumed) {
    std::vector<std::unique_ptr<HttpsServer>> servers;
    for (int i = 0; i < 12; ++i) {
        servers.push_back(std::make_unique<HttpsServer>(pki_));
    }
    for (int round = 0; round < 3; ++round) {
        for (const auto& server : servers) {
            ASSERT_TRUE(post(server->url("/" + std::to_string(round))));
        }
    }
    for (const auto& server : servers) {
        EXPECT_EQ(resumed(*server), (std::vector<bool>{false, true, true})) << server->url();
    }
}

TEST_F(SessionReuseTest, CheckingOnNeverResumesASessionMadeWithCheckingOff) {
    HttpsServer server(pki_);
    writeDeliveryAttributes(1, 5, "Yes");
    ASSERT_TRUE(post(server.url()));
    writeDeliveryAttributes(1, 5, "No");
    ASSERT_TRUE(post(server.url()));
    ASSERT_TRUE(post(server.url()));
    EXPECT_EQ(resumed(server), (std::vector<bool>{false, false, true}));
}

TEST_F(SessionReuseTest, CheckingOffNeverResumesASessionMadeWithCheckingOn) {
    HttpsServer server(pki_);
    ASSERT_TRUE(post(server.url()));
    writeDeliveryAttributes(1, 5, "Yes");
    EXPECT_EQ(pass({server.url()}), (std::vector<int>{0}));
    ASSERT_TRUE(post(server.url()));
    EXPECT_EQ(resumed(server), (std::vector<bool>{false, false, true}));
}

// The paths of the credential files never change; their contents may.
TEST_F(SessionReuseTest, ReplacedClientCertificateIsPresentedNotHiddenBehindASession) {
    HttpsServer server(pki_);
    ASSERT_TRUE(post(server.url()));
    installOtherClientIdentity(pki_, sandboxRoot());
    ASSERT_TRUE(post(server.url()));
    EXPECT_EQ(pass({server.url()}), (std::vector<int>{0}));
    const std::vector<RecordedRequest> requests = server.requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0].clientCn, kTestClientCn);
    EXPECT_EQ(requests[1].clientCn, kOtherClientCn);
    EXPECT_FALSE(requests[1].sessionResumed);
    EXPECT_EQ(requests[2].clientCn, kOtherClientCn);
    EXPECT_TRUE(requests[2].sessionResumed);
}

TEST_F(SessionReuseTest, ReplacedCaBundleIsCheckedNotHiddenBehindASession) {
    writeDeliveryAttributes(1, 0, "No"); // the refusal is immediate: no time-out, no pause
    HttpsServer server(pki_);
    ASSERT_TRUE(post(server.url()));
    EXPECT_EQ(pass({server.url()}), (std::vector<int>{0}));
    // A bundle the destination's certificate does not chain to: no session may bypass it.
    installClientCredentials(pki_, sandboxRoot(), false);
    EXPECT_FALSE(post(server.url()));
    EXPECT_EQ(pass({server.url()}), (std::vector<int>{1}));
    EXPECT_EQ(server.requestCount(), 2u);
    installClientCredentials(pki_, sandboxRoot(), true);
    ASSERT_TRUE(post(server.url()));
    EXPECT_EQ(resumed(server), (std::vector<bool>{false, true, false}));
}

TEST_F(SessionReuseTest, AnotherPortIsNeverResumed) {
    HttpsServer first(pki_);
    HttpsServer second(pki_);
    ASSERT_TRUE(post(first.url()));
    ASSERT_TRUE(post(second.url()));
    ASSERT_TRUE(post(first.url()));
    EXPECT_EQ(resumed(first), (std::vector<bool>{false, true}));
    EXPECT_EQ(resumed(second), (std::vector<bool>{false}));
}

TEST_F(SessionReuseTest, AnotherHostNameIsNeverResumed) {
    HttpsServer server(pki_);
    const std::string byName = "https://localhost:" + std::to_string(server.port()) + "/";
    ASSERT_TRUE(post(server.url()));
    ASSERT_TRUE(post(byName));
    ASSERT_TRUE(post(byName));
    EXPECT_EQ(resumed(server), (std::vector<bool>{false, false, true}));
}

TEST_F(SessionReuseTest, DestinationThatRefusesResumptionGetsEveryDelivery) {
    HttpsServerOptions options;
    options.resumption = false;
    HttpsServer server(pki_, options);
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(post(server.url()));
    }
    EXPECT_EQ(pass({server.url(), server.url()}), (std::vector<int>{0, 0}));
    EXPECT_EQ(resumed(server), (std::vector<bool>(5, false)));
    EXPECT_EQ(server.handshakeFailures(), 0);
    EXPECT_TRUE(eventLogEntries().empty());
}

// A destination restarted on its port no longer knows the sessions it handed out.
TEST_F(SessionReuseTest, RestartedDestinationGetsAFullHandshakeAndTheDelivery) {
    auto before = std::make_unique<HttpsServer>(pki_);
    const int port = before->port();
    ASSERT_TRUE(post(before->url()));
    before.reset();
    HttpsServerOptions options;
    options.port = port;
    HttpsServer after(pki_, options);
    ASSERT_TRUE(post(after.url()));
    EXPECT_EQ(pass({after.url()}), (std::vector<int>{0}));
    EXPECT_EQ(resumed(after), (std::vector<bool>{false, true}));
    EXPECT_EQ(after.handshakeFailures(), 0);
    EXPECT_TRUE(eventLogEntries().empty());
}

// The transfer fails after its handshake (the destination closes without an answer); the
// session it left serves the next delivery. A retry interval of 0: no time-out (every
// failure here is immediate) and no pause after the failure.
TEST_F(SessionReuseTest, FailedTransferLeavesNoSessionThatBreaksTheNext) {
    writeDeliveryAttributes(1, 0, "No");
    HttpsServer server(pki_);
    server.setStatus(0);
    EXPECT_FALSE(post(server.url()));
    EXPECT_EQ(pass({server.url()}), (std::vector<int>{1}));
    server.setStatus(200);
    ASSERT_TRUE(post(server.url()));
    EXPECT_EQ(pass({server.url()}), (std::vector<int>{0}));
    EXPECT_EQ(resumed(server), (std::vector<bool>{false, true, true, true}));
    EXPECT_EQ(eventLogEntries().size(), 1u);
}

// A handshake the destination refuses (it does not know the client certificate's CA) stores
// nothing; with the right certificate the next delivery goes through.
TEST_F(SessionReuseTest, RefusedHandshakeLeavesNothingBehind) {
    writeDeliveryAttributes(1, 0, "No"); // the refusal is immediate: no time-out, no pause
    HttpsServer server(pki_);
    writeFile(rooted("/etc/certs/CA/certs/host.crt"), readFile(pki_.otherCaCert));
    writeFile(rooted("/flash/data0/cv/private/host.key"), readFile(pki_.otherCaKey));
    EXPECT_FALSE(post(server.url()));
    EXPECT_EQ(server.requestCount(), 0u);
    installClientCredentials(pki_, sandboxRoot(), true);
    ASSERT_TRUE(post(server.url()));
    ASSERT_TRUE(post(server.url()));
    EXPECT_EQ(resumed(server), (std::vector<bool>{false, true}));
}

// Every change of the files starts a new set of sessions; the old sets are released once no
// transfer uses them (the sanitizer builds see anything left behind at the end).
TEST_F(SessionReuseTest, ManyReplacementsPresentEachCertificateInTurn) {
    HttpsServer server(pki_);
    for (int round = 0; round < 12; ++round) {
        if (round % 2 == 0) {
            installClientCredentials(pki_, sandboxRoot(), true);
        } else {
            installOtherClientIdentity(pki_, sandboxRoot());
        }
        ASSERT_TRUE(post(server.url()));
        EXPECT_EQ(pass({server.url()}), (std::vector<int>{0}));
    }
    const std::vector<RecordedRequest> requests = server.requests();
    ASSERT_EQ(requests.size(), 24u);
    for (std::size_t i = 0; i < requests.size(); ++i) {
        const bool other = (i / 2) % 2 == 1;
        EXPECT_EQ(requests[i].clientCn, other ? kOtherClientCn : kTestClientCn) << i;
        EXPECT_EQ(requests[i].sessionResumed, i % 2 == 1) << i;
    }
}

// The first attempt gets no answer; right after its request was in, and so before the retry,
// the certificate is replaced. The retry presents the new one instead of resuming the first
// attempt's session.
TEST_F(SessionReuseTest, RetryPresentsACertificateReplacedSinceTheFirstAttempt) {
    writeDeliveryAttributes(2, 0, "No"); // no time-out, no pause between the attempts
    HttpsServerOptions options;
    options.status = 0; // no answer: each attempt fails as soon as its request is in
    options.afterRecord = [this](std::size_t count) {
        if (count == 1) {
            installOtherClientIdentity(pki_, sandboxRoot());
        }
    };
    HttpsServer server(pki_, options);
    EXPECT_FALSE(post(server.url())); // both attempts fail
    const std::vector<RecordedRequest> requests = server.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].clientCn, kTestClientCn);
    EXPECT_EQ(requests[1].clientCn, kOtherClientCn);
    EXPECT_FALSE(requests[1].sessionResumed);
}

} // namespace
} // namespace rfevent::testkit
