#include "delivery/tls_credentials.h"

#include <openssl/decoder.h>
#include <openssl/encoder.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/opensslv.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <cstring>
#include <new>

#include "base/file.h"
#include "base/paths.h"
#include "delivery/tls_credentials_internal.h"

namespace rfevent {

namespace {

constexpr std::uint64_t kFnvOffset = 0xcbf29ce484222325ULL;
constexpr std::uint64_t kFnvPrime = 0x100000001b3ULL;

std::atomic<bool> g_failParses{false};

// Where a TLS context keeps the transfer it was made for; -1 until the library is prepared.
std::atomic<int> g_transferSlot{-1};

// What a transfer's private pointer holds once its handshake has ended in the error state.
char g_failedHandshake;

// 64-bit FNV-1a over one more piece.
std::uint64_t hashBytes(std::uint64_t hash, const void* data, std::size_t length) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    for (std::size_t i = 0; i < length; ++i) {
        hash ^= bytes[i];
        hash *= kFnvPrime;
    }
    return hash;
}

// Folds one file into the fingerprint: its read result, its length, its bytes.
std::uint64_t foldFile(std::uint64_t hash, const char* path, std::string& text) {
    const FileReadOutcome read = readWholeFile(path, text);
    const int error = read.done() ? 0 : read.error;
    const std::uint64_t length = text.size();
    hash = hashBytes(hash, &error, sizeof error);
    hash = hashBytes(hash, &length, sizeof length);
    return hashBytes(hash, text.data(), text.size());
}

struct BioCloser {
    BIO* bio;
    ~BioCloser() { BIO_free(bio); }
};

BIO* memoryBio(const std::string& text) {
    return BIO_new_mem_buf(text.data(), static_cast<int>(text.size()));
}

// Whether the last error is the PEM reader finding no further object: the end of the file.
bool onlyEndOfFileLeft() {
    const unsigned long error = ERR_peek_last_error();
    return ERR_GET_LIB(error) == ERR_LIB_PEM && ERR_GET_REASON(error) == PEM_R_NO_START_LINE;
}

// Whether a parsed certificate is whole. Its public key is decoded with the certificate, and a
// decoding that failed (an allocation failure on the way is enough) is not tried again: the
// certificate stays without a key. OpenSSL fills a certificate's extension cache on first use;
// doing it here, once, keeps handshakes on several threads from filling it at the same time,
// and a fill that fails marks the certificate invalid for good. Either way every handshake
// with the certificate would fail, so such a certificate does not load.
bool wholeCertificate(X509* certificate) {
    return X509_get0_pubkey(certificate) != nullptr &&
           X509_check_purpose(certificate, -1, 0) == 1 &&
           (X509_get_extension_flags(certificate) & EXFLAG_INVALID) == 0;
}

} // namespace

struct TlsCredentials::Parsed {
    X509* certificate = nullptr;
    STACK_OF(X509) * chain = nullptr;
    EVP_PKEY* key = nullptr;
    X509_STORE* store = nullptr;

    ~Parsed() {
        X509_free(certificate);
        sk_X509_pop_free(chain, X509_free);
        EVP_PKEY_free(key);
        X509_STORE_free(store);
    }

    // The certificate file: one certificate, then its chain up to the end of the file.
    bool loadCertificate(const std::string& text) {
        BioCloser in{memoryBio(text)};
        if (in.bio == nullptr) {
            return false;
        }
        certificate = PEM_read_bio_X509_AUX(in.bio, nullptr, nullptr, nullptr);
        chain = sk_X509_new_null();
        if (certificate == nullptr || chain == nullptr) {
            return false;
        }
        if (!wholeCertificate(certificate)) {
            return false;
        }
        while (X509* next = PEM_read_bio_X509(in.bio, nullptr, nullptr, nullptr)) {
            if (!wholeCertificate(next) || sk_X509_push(chain, next) == 0) {
                X509_free(next);
                return false;
            }
        }
        return onlyEndOfFileLeft();
    }

    // The key file: the first private key in it, which must be the certificate's.
    bool loadKey(const std::string& text) {
        BioCloser in{memoryBio(text)};
        if (in.bio == nullptr) {
            return false;
        }
        key = PEM_read_bio_PrivateKey(in.bio, nullptr, nullptr, nullptr);
        return key != nullptr && X509_check_private_key(certificate, key) == 1;
    }

    // The CA bundle: every certificate and CRL in it, at least one of them, and nothing else.
    bool loadStore(const std::string& text) {
        BioCloser in{memoryBio(text)};
        store = X509_STORE_new();
        if (in.bio == nullptr || store == nullptr) {
            return false;
        }
        char noPassword[] = "";
        STACK_OF(X509_INFO)* entries = PEM_X509_INFO_read_bio(in.bio, nullptr, nullptr, noPassword);
        if (entries == nullptr) {
            return false;
        }
        int count = 0;
        bool complete = true;
        for (int i = 0; i < sk_X509_INFO_num(entries) && complete; ++i) {
            X509_INFO* entry = sk_X509_INFO_value(entries, i);
            if (entry->x509 != nullptr) {
                complete =
                    wholeCertificate(entry->x509) && X509_STORE_add_cert(store, entry->x509) == 1;
                ++count;
            }
            if (complete && entry->crl != nullptr) {
                complete = X509_STORE_add_crl(store, entry->crl) == 1;
                ++count;
            }
        }
        sk_X509_INFO_pop_free(entries, X509_INFO_free);
        // As libcurl sets up its own store: trusted certificates first, and an intermediate
        // certificate of the bundle is a trust anchor like a root.
        return complete && count > 0 &&
               X509_STORE_set_flags(store, X509_V_FLAG_TRUSTED_FIRST | X509_V_FLAG_PARTIAL_CHAIN) ==
                   1;
    }
};

CredentialFiles readCredentialFiles() {
    CredentialFiles files;
    std::uint64_t hash = kFnvOffset;
    hash = foldFile(hash, fixedPath(FixedPath::ClientCertificate), files.certificate);
    hash = foldFile(hash, fixedPath(FixedPath::ClientKey), files.key);
    files.fingerprint = foldFile(hash, fixedPath(FixedPath::ServerCaBundle), files.caBundle);
    return files;
}

namespace {

// Fetches every algorithm of every kind a handshake and the credentials' parsing use, so the
// library records them all now: a kind whose first fetch fails half-way may stay incomplete.
void fetchEveryAlgorithm() {
    EVP_CIPHER_do_all_provided(
        nullptr, [](EVP_CIPHER*, void*) {}, nullptr);
    EVP_MD_do_all_provided(
        nullptr, [](EVP_MD*, void*) {}, nullptr);
    EVP_MAC_do_all_provided(
        nullptr, [](EVP_MAC*, void*) {}, nullptr);
    EVP_KDF_do_all_provided(
        nullptr, [](EVP_KDF*, void*) {}, nullptr);
    EVP_RAND_do_all_provided(
        nullptr, [](EVP_RAND*, void*) {}, nullptr);
    EVP_KEYMGMT_do_all_provided(
        nullptr, [](EVP_KEYMGMT*, void*) {}, nullptr);
    EVP_KEYEXCH_do_all_provided(
        nullptr, [](EVP_KEYEXCH*, void*) {}, nullptr);
    EVP_SIGNATURE_do_all_provided(
        nullptr, [](EVP_SIGNATURE*, void*) {}, nullptr);
    EVP_ASYM_CIPHER_do_all_provided(
        nullptr, [](EVP_ASYM_CIPHER*, void*) {}, nullptr);
    EVP_KEM_do_all_provided(
        nullptr, [](EVP_KEM*, void*) {}, nullptr);
    OSSL_DECODER_do_all_provided(
        nullptr, [](OSSL_DECODER*, void*) {}, nullptr);
    OSSL_ENCODER_do_all_provided(
        nullptr, [](OSSL_ENCODER*, void*) {}, nullptr);
}

} // namespace

bool prepareTlsLibrary() {
    const uint64_t parts = OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS |
                           OPENSSL_INIT_ADD_ALL_CIPHERS | OPENSSL_INIT_ADD_ALL_DIGESTS;
    bool ready = OPENSSL_init_ssl(parts, nullptr) == 1;
    if (ready && g_transferSlot.load(std::memory_order_relaxed) < 0) {
        g_transferSlot.store(SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr),
                             std::memory_order_relaxed);
    }
    if (ready) {
        fetchEveryAlgorithm();
    }
    // A client context and one connection object set up what every handshake uses; a few
    // random bytes start the generator's instances.
    SSL_CTX* context = ready ? SSL_CTX_new(TLS_client_method()) : nullptr;
    SSL* connection = context != nullptr ? SSL_new(context) : nullptr;
    unsigned char random[16];
    ready = connection != nullptr && RAND_bytes(random, sizeof random) == 1;
    SSL_free(connection);
    SSL_CTX_free(context);
    ERR_clear_error();
    return ready;
}

#define RFEVENT_TEXT_OF(value) #value
#define RFEVENT_TEXT(value) RFEVENT_TEXT_OF(value)

bool tlsLibraryIsOurs() {
    // "OpenSSL/<major>.": the same library, of the major version this file was built against.
    static const char kOurs[] = "OpenSSL/" RFEVENT_TEXT(OPENSSL_VERSION_MAJOR) ".";
    const curl_version_info_data* info = curl_version_info(CURLVERSION_NOW);
    return info != nullptr && info->ssl_version != nullptr &&
           std::strncmp(info->ssl_version, kOurs, sizeof kOurs - 1) == 0 &&
           OPENSSL_version_major() == OPENSSL_VERSION_MAJOR;
}

TlsCredentials::TlsCredentials(const CredentialFiles& files) : parsed_(new (std::nothrow) Parsed) {
    if (parsed_ == nullptr) {
        return;
    }
    Parsed& parsed = *parsed_;
    const bool failed = g_failParses.load(std::memory_order_relaxed);
    if (failed || !parsed.loadCertificate(files.certificate) || !parsed.loadKey(files.key)) {
        X509_free(parsed.certificate);
        parsed.certificate = nullptr;
        EVP_PKEY_free(parsed.key);
        parsed.key = nullptr;
    }
    if (!parsed.loadStore(files.caBundle)) {
        X509_STORE_free(parsed.store);
        parsed.store = nullptr;
    }
    // Nothing of the parsing may be left for libcurl to find on this thread's error queue.
    ERR_clear_error();
}

void failCredentialParses(bool on) {
    g_failParses.store(on, std::memory_order_relaxed);
}

TlsCredentials::~TlsCredentials() = default;

bool TlsCredentials::usable(bool checking) const {
    return parsed_ != nullptr && parsed_->certificate != nullptr && parsed_->key != nullptr &&
           (!checking || parsed_->store != nullptr);
}

CURLcode TlsCredentials::install(void* sslContext) const {
    auto* context = static_cast<SSL_CTX*>(sslContext);
    const Parsed& parsed = *parsed_;
    CURLcode result = CURLE_OK;
    if (SSL_CTX_use_certificate(context, parsed.certificate) != 1 ||
        SSL_CTX_set1_chain(context, parsed.chain) != 1 ||
        SSL_CTX_use_PrivateKey(context, parsed.key) != 1 ||
        SSL_CTX_check_private_key(context) != 1) {
        result = CURLE_SSL_CERTPROBLEM;
    } else if ((SSL_CTX_get_verify_mode(context) & SSL_VERIFY_PEER) != 0) {
        if (parsed.store == nullptr) {
            result = CURLE_SSL_CACERT_BADFILE;
        } else {
            SSL_CTX_set1_cert_store(context, parsed.store);
        }
    }
    ERR_clear_error();
    return result;
}

namespace {

// A handshake step that fails for want of memory ends in the TLS library's error state. When
// the last read of its transport had found no data yet, libcurl takes the failed step for one
// that waits, and every later step returns at once without reading, so nothing changes that:
// libcurl calls the handshake again for as long as the socket is readable, at full speed,
// holding the POST lock, until its own connect limit when the POST has no time-out. When a
// step ends in the error state, the transfer is marked, and its progress function ends it.
void markHandshakeInErrorState(const SSL* connection, int where, int result) {
    if ((where & SSL_CB_EXIT) == 0 || result > 0 ||
        std::strcmp(SSL_state_string(connection), "SSLERR") != 0) {
        return;
    }
    const int slot = g_transferSlot.load(std::memory_order_relaxed);
    void* curl = slot < 0 ? nullptr : SSL_CTX_get_ex_data(SSL_get_SSL_CTX(connection), slot);
    if (curl != nullptr) {
        (void)curl_easy_setopt(static_cast<CURL*>(curl), CURLOPT_PRIVATE,
                               static_cast<void*>(&g_failedHandshake));
    }
}

} // namespace

int endFailedHandshake(void* curl, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    void* mark = nullptr;
    if (curl_easy_getinfo(static_cast<CURL*>(curl), CURLINFO_PRIVATE, &mark) != CURLE_OK) {
        return 0;
    }
    return mark == &g_failedHandshake ? 1 : 0;
}

CURLcode prepareTlsContext(CURL* curl, void* sslContext, void* credentials) {
    SSL_CTX_set_keylog_callback(static_cast<SSL_CTX*>(sslContext), nullptr);
    // A new connection's handshake starts unmarked; the context knows its transfer.
    (void)curl_easy_setopt(curl, CURLOPT_PRIVATE, static_cast<void*>(nullptr));
    const int slot = g_transferSlot.load(std::memory_order_relaxed);
    if (slot >= 0 && SSL_CTX_set_ex_data(static_cast<SSL_CTX*>(sslContext), slot, curl) == 1) {
        SSL_CTX_set_info_callback(static_cast<SSL_CTX*>(sslContext), markHandshakeInErrorState);
    }
    if (credentials == nullptr) {
        return CURLE_OK;
    }
    return static_cast<const TlsCredentials*>(credentials)->install(sslContext);
}

} // namespace rfevent
