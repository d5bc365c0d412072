// A handshake that the TLS library ends in its error state marks the transfer its context was
// made for, and the progress function of every POST ends a marked transfer: libcurl would
// otherwise go on driving a handshake that never reads again (seen under allocation failures,
// where the error queue is empty and the connection still says it waits to read). The marking
// is shown here on real TLS contexts and connections over memory transports; the allocation-
// failure check shows the transfers that end.
#include <gtest/gtest.h>

#include <curl/curl.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <cstring>
#include <memory>
#include <string>

#include "delivery/tls_credentials.h"

using namespace rfevent;

namespace {

struct CurlCleanup {
    void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
};
struct ContextFree {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
struct ConnectionFree {
    void operator()(SSL* connection) const { SSL_free(connection); }
};

using Transfer = std::unique_ptr<CURL, CurlCleanup>;
using Context = std::unique_ptr<SSL_CTX, ContextFree>;
using Connection = std::unique_ptr<SSL, ConnectionFree>;

bool marked(CURL* curl) {
    return endFailedHandshake(curl, 0, 0, 0, 0) != 0;
}

// A client connection of a context prepared for curl, whose peer's bytes are peerSends.
Connection startHandshake(SSL_CTX* context, const std::string& peerSends) {
    Connection connection(SSL_new(context));
    BIO* fromPeer = BIO_new(BIO_s_mem());
    BIO_write(fromPeer, peerSends.data(), static_cast<int>(peerSends.size()));
    BIO_set_mem_eof_return(fromPeer, -1); // an empty transport waits instead of ending
    SSL_set_bio(connection.get(), fromPeer, BIO_new(BIO_s_mem()));
    SSL_set_connect_state(connection.get());
    (void)SSL_connect(connection.get());
    ERR_clear_error();
    return connection;
}

class FailedHandshakeTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(prepareTlsLibrary()); }

    Transfer transfer_{curl_easy_init()};
    Context context_{SSL_CTX_new(TLS_client_method())};
};

TEST_F(FailedHandshakeTest, AHandshakeThatEndsInTheErrorStateMarksItsTransfer) {
    ASSERT_EQ(prepareTlsContext(transfer_.get(), context_.get(), nullptr), CURLE_OK);
    EXPECT_FALSE(marked(transfer_.get()));
    Connection connection = startHandshake(context_.get(), "HTTP/1.1 400 Bad Request\r\n\r\n");
    ASSERT_STREQ(SSL_state_string(connection.get()), "SSLERR");
    EXPECT_TRUE(marked(transfer_.get()));
}

TEST_F(FailedHandshakeTest, AHandshakeWaitingForItsPeerLeavesItsTransferUnmarked) {
    ASSERT_EQ(prepareTlsContext(transfer_.get(), context_.get(), nullptr), CURLE_OK);
    Connection connection = startHandshake(context_.get(), "");
    ASSERT_EQ(SSL_get_error(connection.get(), -1), SSL_ERROR_WANT_READ);
    ASSERT_STRNE(SSL_state_string(connection.get()), "SSLERR");
    EXPECT_FALSE(marked(transfer_.get()));
}

TEST_F(FailedHandshakeTest, TheNextConnectionOfAMarkedTransferStartsUnmarked) {
    ASSERT_EQ(prepareTlsContext(transfer_.get(), context_.get(), nullptr), CURLE_OK);
    Connection failed = startHandshake(context_.get(), "not a TLS record at all");
    ASSERT_TRUE(marked(transfer_.get()));
    // A retry makes a new connection, and libcurl a new context for it.
    Context next(SSL_CTX_new(TLS_client_method()));
    ASSERT_EQ(prepareTlsContext(transfer_.get(), next.get(), nullptr), CURLE_OK);
    EXPECT_FALSE(marked(transfer_.get()));
}

TEST_F(FailedHandshakeTest, AContextMadeForAnotherTransferMarksOnlyThatOne) {
    Transfer other(curl_easy_init());
    Context otherContext(SSL_CTX_new(TLS_client_method()));
    ASSERT_EQ(prepareTlsContext(transfer_.get(), context_.get(), nullptr), CURLE_OK);
    ASSERT_EQ(prepareTlsContext(other.get(), otherContext.get(), nullptr), CURLE_OK);
    Connection failed = startHandshake(otherContext.get(), "not a TLS record at all");
    EXPECT_TRUE(marked(other.get()));
    EXPECT_FALSE(marked(transfer_.get()));
}

} // namespace
