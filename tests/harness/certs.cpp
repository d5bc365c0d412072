#include "harness/certs.h"

#include <fcntl.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <utility>
#include <vector>

namespace fs = std::filesystem;

namespace rfevent::testkit {
namespace {

using KeyPtr = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using CertPtr = std::unique_ptr<X509, decltype(&X509_free)>;
using Extensions = std::vector<std::pair<int, const char*>>;

constexpr long kValiditySeconds = 365L * 24 * 3600; // stays below 2038 for 32-bit time_t

[[noreturn]] void fail(const std::string& what) {
    char reason[256] = "no OpenSSL error queued";
    if (unsigned long code = ERR_get_error()) {
        ERR_error_string_n(code, reason, sizeof reason);
    }
    ERR_clear_error();
    throw std::runtime_error("test PKI: " + what + ": " + reason);
}

KeyPtr newKey() {
    EVP_PKEY* key = EVP_EC_gen("P-256");
    if (key == nullptr) {
        fail("EC P-256 key generation");
    }
    return KeyPtr(key, EVP_PKEY_free);
}

// A random positive 63-bit serial, so two runs never issue the same serial.
void setRandomSerial(X509* cert) {
    BIGNUM* bn = BN_new();
    if (bn == nullptr || BN_rand(bn, 63, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) != 1 ||
        BN_to_ASN1_INTEGER(bn, X509_get_serialNumber(cert)) == nullptr) {
        BN_free(bn);
        fail("serial number");
    }
    BN_free(bn);
}

void addExtension(X509* cert, X509* issuer, int nid, const char* value) {
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
    X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
    if (ext == nullptr) {
        fail(std::string("extension ") + OBJ_nid2sn(nid) + "=" + value);
    }
    const int added = X509_add_ext(cert, ext, -1);
    X509_EXTENSION_free(ext);
    if (added != 1) {
        fail("adding extension");
    }
}

// Builds a certificate for `key` with subject CN `cn`. Without an issuer the
// certificate is self-signed (used for the two CAs).
CertPtr makeCert(EVP_PKEY* key, const std::string& cn, X509* issuer, EVP_PKEY* issuerKey,
                 const Extensions& extensions) {
    CertPtr cert(X509_new(), X509_free);
    if (!cert) {
        fail("X509_new");
    }
    X509* c = cert.get();
    setRandomSerial(c);
    X509_NAME* name = X509_get_subject_name(c);
    if (X509_set_version(c, 2) != 1 || X509_gmtime_adj(X509_getm_notBefore(c), -3600) == nullptr ||
        X509_gmtime_adj(X509_getm_notAfter(c), kValiditySeconds) == nullptr ||
        X509_set_pubkey(c, key) != 1 ||
        X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>("rfevent tests"), -1, -1,
                                   0) != 1 ||
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>(cn.c_str()), -1, -1,
                                   0) != 1 ||
        X509_set_issuer_name(c, issuer != nullptr ? X509_get_subject_name(issuer) : name) != 1) {
        fail("certificate fields for " + cn);
    }
    X509* signer = issuer != nullptr ? issuer : c;
    addExtension(c, signer, NID_subject_key_identifier, "hash");
    addExtension(c, signer, NID_authority_key_identifier, "keyid:always");
    for (const auto& [nid, value] : extensions) {
        addExtension(c, signer, nid, value);
    }
    if (X509_sign(c, issuerKey != nullptr ? issuerKey : key, EVP_sha256()) == 0) {
        fail("signing " + cn);
    }
    return cert;
}

// Opens `path` for writing with the given mode (0600 for keys).
FILE* openForWrite(const std::string& path, mode_t mode) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0) {
        throw std::runtime_error("test PKI: cannot create " + path);
    }
    FILE* file = ::fdopen(fd, "w");
    if (file == nullptr) {
        ::close(fd);
        throw std::runtime_error("test PKI: fdopen " + path);
    }
    return file;
}

void writeCert(const std::string& path, X509* cert) {
    FILE* file = openForWrite(path, 0644);
    const int ok = PEM_write_X509(file, cert);
    if (std::fclose(file) != 0 || ok != 1) {
        fail("writing " + path);
    }
}

void writeKey(const std::string& path, EVP_PKEY* key) {
    FILE* file = openForWrite(path, 0600);
    const int ok = PEM_write_PrivateKey(file, key, nullptr, nullptr, 0, nullptr, nullptr);
    if (std::fclose(file) != 0 || ok != 1) {
        fail("writing " + path);
    }
}

const Extensions kCaExtensions = {
    {NID_basic_constraints, "critical,CA:TRUE"},
    {NID_key_usage, "critical,keyCertSign,cRLSign"},
};
const Extensions kServerExtensions = {
    {NID_basic_constraints, "critical,CA:FALSE"},
    {NID_key_usage, "critical,digitalSignature"},
    {NID_ext_key_usage, "serverAuth"},
    {NID_subject_alt_name, "IP:127.0.0.1,DNS:localhost"},
};
const Extensions kClientExtensions = {
    {NID_basic_constraints, "critical,CA:FALSE"},
    {NID_key_usage, "critical,digitalSignature"},
    {NID_ext_key_usage, "clientAuth"},
};

TestPki pathsFor(const std::string& dir) {
    TestPki pki;
    pki.dir = dir;
    pki.caCert = dir + "/ca.crt";
    pki.caKey = dir + "/ca.key";
    pki.serverCert = dir + "/server.crt";
    pki.serverKey = dir + "/server.key";
    pki.clientCert = dir + "/client.crt";
    pki.clientKey = dir + "/client.key";
    pki.otherClientCert = dir + "/client2.crt";
    pki.otherClientKey = dir + "/client2.key";
    pki.otherCaCert = dir + "/other.crt";
    pki.otherCaKey = dir + "/other.key";
    return pki;
}

bool allFilesExist(const TestPki& pki) {
    for (const std::string* path :
         {&pki.caCert, &pki.caKey, &pki.serverCert, &pki.serverKey, &pki.clientCert, &pki.clientKey,
          &pki.otherClientCert, &pki.otherClientKey, &pki.otherCaCert, &pki.otherCaKey}) {
        if (!fs::exists(*path)) {
            return false;
        }
    }
    return true;
}

TestPki writeNewPki(const std::string& dir) {
    fs::create_directories(dir);
    const TestPki pki = pathsFor(dir);

    KeyPtr caKey = newKey();
    CertPtr ca = makeCert(caKey.get(), "rfevent test CA", nullptr, nullptr, kCaExtensions);
    KeyPtr serverKey = newKey();
    CertPtr server =
        makeCert(serverKey.get(), "localhost", ca.get(), caKey.get(), kServerExtensions);
    KeyPtr clientKey = newKey();
    CertPtr client =
        makeCert(clientKey.get(), kTestClientCn, ca.get(), caKey.get(), kClientExtensions);
    KeyPtr otherClientKey = newKey();
    CertPtr otherClient =
        makeCert(otherClientKey.get(), kOtherClientCn, ca.get(), caKey.get(), kClientExtensions);
    KeyPtr otherKey = newKey();
    CertPtr other = makeCert(otherKey.get(), "rfevent other CA", nullptr, nullptr, kCaExtensions);

    writeCert(pki.caCert, ca.get());
    writeKey(pki.caKey, caKey.get());
    writeCert(pki.serverCert, server.get());
    writeKey(pki.serverKey, serverKey.get());
    writeCert(pki.clientCert, client.get());
    writeKey(pki.clientKey, clientKey.get());
    writeCert(pki.otherClientCert, otherClient.get());
    writeKey(pki.otherClientKey, otherClientKey.get());
    writeCert(pki.otherCaCert, other.get());
    writeKey(pki.otherCaKey, otherKey.get());
    return pki;
}

void copyInto(const std::string& from, const std::string& to) {
    fs::create_directories(fs::path(to).parent_path());
    fs::copy_file(from, to, fs::copy_options::overwrite_existing);
}

} // namespace

TestPki generateTestPki(const std::string& dir) {
    static std::mutex mutex;
    static std::map<std::string, TestPki> cache;

    std::lock_guard<std::mutex> lock(mutex);
    auto found = cache.find(dir);
    if (found != cache.end() && allFilesExist(found->second)) {
        return found->second;
    }
    TestPki pki = writeNewPki(dir);
    cache[dir] = pki;
    return pki;
}

void installClientCredentials(const TestPki& pki, const std::string& root, bool goodCa) {
    copyInto(pki.clientCert, root + "/etc/certs/CA/certs/host.crt");
    copyInto(pki.clientKey, root + "/flash/data0/cv/private/host.key");
    copyInto(goodCa ? pki.caCert : pki.otherCaCert, root + "/etc/certs/pubkey/https_server_ca.crt");
}

void installOtherClientIdentity(const TestPki& pki, const std::string& root) {
    copyInto(pki.otherClientCert, root + "/etc/certs/CA/certs/host.crt");
    copyInto(pki.otherClientKey, root + "/flash/data0/cv/private/host.key");
}

} // namespace rfevent::testkit
