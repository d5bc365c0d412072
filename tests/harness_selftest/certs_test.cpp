// The generated test PKI: files exist, chains verify where they should and
// only there, names and usages are what the HTTPS tests rely on.
#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <memory>
#include <string>

#include "harness/certs.h"
#include "harness/sandbox.h"

namespace rfevent::testkit {
namespace {

using CertPtr = std::unique_ptr<X509, decltype(&X509_free)>;
using KeyPtr = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

CertPtr loadCert(const std::string& path) {
    FILE* file = std::fopen(path.c_str(), "r");
    X509* cert = file != nullptr ? PEM_read_X509(file, nullptr, nullptr, nullptr) : nullptr;
    if (file != nullptr) {
        std::fclose(file);
    }
    return CertPtr(cert, X509_free);
}

KeyPtr loadKey(const std::string& path) {
    FILE* file = std::fopen(path.c_str(), "r");
    EVP_PKEY* key =
        file != nullptr ? PEM_read_PrivateKey(file, nullptr, nullptr, nullptr) : nullptr;
    if (file != nullptr) {
        std::fclose(file);
    }
    return KeyPtr(key, EVP_PKEY_free);
}

// Verifies `leaf` against the single trusted certificate in `caPath` for the
// given purpose (X509_PURPOSE_SSL_SERVER / _CLIENT).
bool verifies(X509* leaf, const std::string& caPath, int purpose) {
    CertPtr ca = loadCert(caPath);
    X509_STORE* store = X509_STORE_new();
    X509_STORE_CTX* ctx = X509_STORE_CTX_new();
    bool ok = false;
    if (ca && store != nullptr && ctx != nullptr && X509_STORE_add_cert(store, ca.get()) == 1 &&
        X509_STORE_CTX_init(ctx, store, leaf, nullptr) == 1 &&
        X509_STORE_CTX_set_purpose(ctx, purpose) == 1) {
        ok = X509_verify_cert(ctx) == 1;
    }
    X509_STORE_CTX_free(ctx);
    X509_STORE_free(store);
    return ok;
}

std::string subjectCn(X509* cert) {
    char cn[256] = "";
    X509_NAME_get_text_by_NID(X509_get_subject_name(cert), NID_commonName, cn, sizeof cn);
    return cn;
}

TestPki pki() {
    return generateTestPki(rooted("/pki"));
}

TEST(TestPkiTest, WritesAllFilesIntoTheFolder) {
    const TestPki files = pki();
    EXPECT_EQ(files.dir, rooted("/pki"));
    for (const std::string& path : {files.caCert, files.caKey, files.serverCert, files.serverKey,
                                    files.clientCert, files.clientKey, files.otherClientCert,
                                    files.otherClientKey, files.otherCaCert, files.otherCaKey}) {
        EXPECT_TRUE(fileExists(path)) << path;
        EXPECT_EQ(readFile(path).rfind("-----BEGIN ", 0), 0u) << path;
    }
    EXPECT_EQ(files.caCert, files.dir + "/ca.crt");
    EXPECT_EQ(files.otherCaCert, files.dir + "/other.crt");
}

TEST(TestPkiTest, ServerCertificateVerifiesAgainstTheCaOnly) {
    const TestPki files = pki();
    CertPtr server = loadCert(files.serverCert);
    ASSERT_TRUE(server);
    EXPECT_TRUE(verifies(server.get(), files.caCert, X509_PURPOSE_SSL_SERVER));
    EXPECT_FALSE(verifies(server.get(), files.otherCaCert, X509_PURPOSE_SSL_SERVER));
    EXPECT_EQ(X509_check_ip_asc(server.get(), "127.0.0.1", 0), 1);
    EXPECT_EQ(X509_check_host(server.get(), "localhost", 0, 0, nullptr), 1);
}

TEST(TestPkiTest, ClientCertificateIsForClientAuthWithItsCn) {
    const TestPki files = pki();
    CertPtr client = loadCert(files.clientCert);
    ASSERT_TRUE(client);
    EXPECT_EQ(subjectCn(client.get()), kTestClientCn);
    EXPECT_TRUE(verifies(client.get(), files.caCert, X509_PURPOSE_SSL_CLIENT));
    EXPECT_FALSE(verifies(client.get(), files.caCert, X509_PURPOSE_SSL_SERVER));
    EXPECT_FALSE(verifies(client.get(), files.otherCaCert, X509_PURPOSE_SSL_CLIENT));
}

TEST(TestPkiTest, SecondClientCertificateIsAnotherIdentityOfTheSameCa) {
    const TestPki files = pki();
    CertPtr client = loadCert(files.otherClientCert);
    ASSERT_TRUE(client);
    EXPECT_EQ(subjectCn(client.get()), kOtherClientCn);
    EXPECT_TRUE(verifies(client.get(), files.caCert, X509_PURPOSE_SSL_CLIENT));
    EXPECT_NE(readFile(files.otherClientKey), readFile(files.clientKey));
}

TEST(TestPkiTest, KeysMatchTheirCertificates) {
    const TestPki files = pki();
    const std::pair<std::string, std::string> pairs[] = {
        {files.caCert, files.caKey},
        {files.serverCert, files.serverKey},
        {files.clientCert, files.clientKey},
        {files.otherClientCert, files.otherClientKey},
        {files.otherCaCert, files.otherCaKey}};
    for (const auto& [certPath, keyPath] : pairs) {
        CertPtr cert = loadCert(certPath);
        KeyPtr key = loadKey(keyPath);
        ASSERT_TRUE(cert && key) << certPath;
        EXPECT_EQ(X509_check_private_key(cert.get(), key.get()), 1) << certPath;
    }
}

TEST(TestPkiTest, SecondCallReusesTheFiles) {
    const TestPki first = pki();
    const std::string caText = readFile(first.caCert);
    const TestPki second = pki();
    EXPECT_EQ(second.caCert, first.caCert);
    EXPECT_EQ(readFile(second.caCert), caText);
}

TEST(TestPkiTest, RegeneratesWhenTheFilesWereRemoved) {
    const TestPki first = pki();
    removeFile(first.serverCert);
    const TestPki second = pki();
    EXPECT_TRUE(fileExists(second.serverCert));
}

TEST(TestPkiTest, InstallsClientCredentialsAtTheProductPaths) {
    const TestPki files = pki();
    installClientCredentials(files, sandboxRoot());
    EXPECT_EQ(readFile(rooted("/etc/certs/CA/certs/host.crt")), readFile(files.clientCert));
    EXPECT_EQ(readFile(rooted("/flash/data0/cv/private/host.key")), readFile(files.clientKey));
    EXPECT_EQ(readFile(rooted("/etc/certs/pubkey/https_server_ca.crt")), readFile(files.caCert));

    installClientCredentials(files, sandboxRoot(), false);
    EXPECT_EQ(readFile(rooted("/etc/certs/pubkey/https_server_ca.crt")),
              readFile(files.otherCaCert));
}

TEST(TestPkiTest, InstallsTheSecondClientIdentityAtTheSamePaths) {
    const TestPki files = pki();
    installClientCredentials(files, sandboxRoot());
    installOtherClientIdentity(files, sandboxRoot());
    EXPECT_EQ(readFile(rooted("/etc/certs/CA/certs/host.crt")), readFile(files.otherClientCert));
    EXPECT_EQ(readFile(rooted("/flash/data0/cv/private/host.key")), readFile(files.otherClientKey));
    EXPECT_EQ(readFile(rooted("/etc/certs/pubkey/https_server_ca.crt")), readFile(files.caCert));
}

TEST(TestPkiTest, InstallCreatesMissingFolders) {
    const TestPki files = pki();
    const std::string root = rooted("/elsewhere");
    installClientCredentials(files, root);
    EXPECT_TRUE(fileExists(root + "/etc/certs/CA/certs/host.crt"));
    EXPECT_TRUE(fileExists(root + "/flash/data0/cv/private/host.key"));
    EXPECT_TRUE(fileExists(root + "/etc/certs/pubkey/https_server_ca.crt"));
}

} // namespace
} // namespace rfevent::testkit
