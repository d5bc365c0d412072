// The parsed credentials stand in for libcurl's own loading of the certificate, key and CA
// bundle files: for every state of those files a POST ends exactly as it does when libcurl
// loads them itself (the cache released), and the destination sees the same client.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "delivery/session_cache.h"
#include "delivery/tls_credentials.h"
#include "delivery/tls_credentials_internal.h"
#include "harness/certs.h"
#include "harness/https_server.h"
#include "harness/log_capture.h"
#include "harness/sandbox.h"
#include "harness/wait.h"
#include "subscriptions/delivery_failure_internal.h"

using namespace rfevent;

namespace rfevent::testkit {
namespace {

const char kCertificate[] = "/etc/certs/CA/certs/host.crt";
const char kKey[] = "/flash/data0/cv/private/host.key";
const char kCaBundle[] = "/etc/certs/pubkey/https_server_ca.crt";

// How one POST ended, as far as anyone can tell from outside.
struct Outcome {
    bool delivered = false;
    std::string failure; // the status line libcurl's result was logged with
    std::string clientCn;
    bool clientVerified = false;
    int handshakeFailures = 0;

    bool operator==(const Outcome& other) const {
        return delivered == other.delivered && failure == other.failure &&
               clientCn == other.clientCn && clientVerified == other.clientVerified &&
               handshakeFailures == other.handshakeFailures;
    }
};

std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
    return out << (outcome.delivered ? "delivered" : "failed") << " [" << outcome.failure
               << "] cn=" << outcome.clientCn << " verified=" << outcome.clientVerified
               << " handshake failures=" << outcome.handshakeFailures;
}

class TlsCredentialsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        resetSandbox();
        pki_ = generateTestPki(rooted("/pki"));
    }

    Outcome postOnce(HttpsServer& server) {
        server.clear();
        LogCapture log;
        bool failed = true;
        sendHTTPPacketByCURL("{\"Id\":\"1\"}", server.url().c_str(), Json::Value(), &failed);
        Outcome outcome;
        outcome.delivered = !failed;
        for (const std::string& line : log.lines()) {
            const auto at = line.find("curl_easy_perform failed with status");
            if (at != std::string::npos) {
                outcome.failure = line.substr(at);
            }
            // With TLS 1.3 a destination refuses the client certificate after the client has
            // ended its handshake: whether the client notices while sending (55) or receiving
            // (56) is a race, whoever loaded the files.
            for (const char* code : {"status 55 ", "status 56 "}) {
                if (outcome.failure.find(code) != std::string::npos) {
                    outcome.failure = "send or receive refused";
                }
            }
        }
        // The destination tells what became of the connection on a thread of its own.
        waitUntil([&] {
            return server.connectionsAccepted() > 0 &&
                   server.handshakeFailures() + static_cast<int>(server.requestCount()) >=
                       server.connectionsAccepted();
        });
        if (server.requestCount() > 0) {
            outcome.clientCn = server.requests()[0].clientCn;
            outcome.clientVerified = server.requests()[0].clientCertVerified;
        }
        outcome.handshakeFailures = server.handshakeFailures();
        return outcome;
    }

    // One POST with the cache, one with libcurl loading the files itself; both must end alike.
    Outcome expectSameOutcome(const std::string& what, bool checking) {
        writeDeliveryAttributes(1, 0, checking ? "No" : "Yes");
        HttpsServer server(pki_);
        const Outcome cached = postOnce(server);
        releaseSessionCache();
        const Outcome loaded = postOnce(server);
        createSessionCache();
        EXPECT_EQ(cached, loaded) << what << (checking ? ", checking on" : ", checking off");
        return cached;
    }

    std::string pem(const std::string& path) const { return readFile(path); }

    TestPki pki_;
};

// Otherwise every POST would load the files itself, and the comparison below would compare
// libcurl with itself.
TEST_F(TlsCredentialsTest, LibcurlUsesTheTlsLibraryTheCredentialsAreParsedWith) {
    EXPECT_TRUE(tlsLibraryIsOurs());
}

TEST_F(TlsCredentialsTest, EveryStateOfTheFilesEndsAsWhenLibcurlLoadsThem) {
    const std::vector<std::pair<std::string, std::function<void()>>> states = {
        {"the installed files", [] {}},
        {"no certificate", [] { removeFile(rooted(kCertificate)); }},
        {"no key", [] { removeFile(rooted(kKey)); }},
        {"an empty key", [] { writeFile(rooted(kKey), ""); }},
        {"the key of another certificate",
         [this] { writeFile(rooted(kKey), pem(pki_.otherClientKey)); }},
        {"a certificate of another CA",
         [this] {
             writeFile(rooted(kCertificate), pem(pki_.otherCaCert));
             writeFile(rooted(kKey), pem(pki_.otherCaKey));
         }},
        {"the certificate with its chain",
         [this] { writeFile(rooted(kCertificate), pem(pki_.clientCert) + pem(pki_.caCert)); }},
        {"text after the certificate",
         [this] { writeFile(rooted(kCertificate), pem(pki_.clientCert) + "no more\n"); }},
        {"a broken second certificate",
         [this] {
             writeFile(rooted(kCertificate), pem(pki_.clientCert) +
                                                 "-----BEGIN CERTIFICATE-----\nAAAA\n" +
                                                 "-----END CERTIFICATE-----\n");
         }},
        {"no CA bundle", [] { removeFile(rooted(kCaBundle)); }},
        {"a CA bundle without certificates", [] { writeFile(rooted(kCaBundle), "none\n"); }},
        {"the other CA only", [this] { writeFile(rooted(kCaBundle), pem(pki_.otherCaCert)); }},
        // A certificate of the bundle is a trust anchor even when it is not a root.
        {"the destination's own certificate as the bundle",
         [this] { writeFile(rooted(kCaBundle), pem(pki_.serverCert)); }},
        {"both CAs",
         [this] { writeFile(rooted(kCaBundle), pem(pki_.otherCaCert) + pem(pki_.caCert)); }},
    };
    for (bool checking : {true, false}) {
        for (const auto& [what, prepare] : states) {
            installClientCredentials(pki_, sandboxRoot(), true);
            prepare();
            expectSameOutcome(what, checking);
        }
    }
}

TEST_F(TlsCredentialsTest, KnownStatesEndAsLibcurlReportsThem) {
    installClientCredentials(pki_, sandboxRoot(), true);
    EXPECT_TRUE(expectSameOutcome("the installed files", true).delivered);
    removeFile(rooted(kCertificate));
    EXPECT_EQ(expectSameOutcome("no certificate", true).failure,
              "curl_easy_perform failed with status 58 ");
    installClientCredentials(pki_, sandboxRoot(), true);
    writeFile(rooted(kKey), pem(pki_.otherClientKey));
    EXPECT_EQ(expectSameOutcome("a key of another certificate", false).failure,
              "curl_easy_perform failed with status 58 ");
    installClientCredentials(pki_, sandboxRoot(), true);
    removeFile(rooted(kCaBundle));
    EXPECT_EQ(expectSameOutcome("no CA bundle", true).failure,
              "curl_easy_perform failed with status 77 ");
    EXPECT_TRUE(expectSameOutcome("no CA bundle", false).delivered);
}

// A parse that met a failure on the way (memory ran short) is not kept for the contents: that
// transfer loads the files itself, and the next one parses the same contents again.
TEST_F(TlsCredentialsTest, AParseThatMetAFailureIsMadeAgainAtTheNextPost) {
    installClientCredentials(pki_, sandboxRoot(), true);
    writeDeliveryAttributes(1, 0, "No");
    HttpsServer server(pki_);
    releaseSessionCache(); // a fresh generation: the files are parsed at the next POST
    createSessionCache();
    failCredentialParses(true);
    EXPECT_TRUE(postOnce(server).delivered);
    EXPECT_FALSE(sessionCacheHoldsUsableCredentials(true));
    failCredentialParses(false);
    EXPECT_TRUE(postOnce(server).delivered);
    EXPECT_TRUE(sessionCacheHoldsUsableCredentials(true));
}

} // namespace
} // namespace rfevent::testkit
