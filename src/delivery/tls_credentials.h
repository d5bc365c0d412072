// The client certificate, its key and the CA bundle of the HTTPS POSTs: read anew for every
// transfer, parsed only when their contents changed.
#ifndef RFEVENT_DELIVERY_TLS_CREDENTIALS_H
#define RFEVENT_DELIVERY_TLS_CREDENTIALS_H

#include <curl/curl.h>

#include <cstdint>
#include <memory>
#include <string>

namespace rfevent {

// The contents of the three files as they are now. A file that cannot be read is empty, and
// its error code is part of the fingerprint.
struct CredentialFiles {
    std::string certificate;
    std::string key;
    std::string caBundle;
    std::uint64_t fingerprint = 0;
};

CredentialFiles readCredentialFiles();

// Does the TLS library's one-time set-up (its error texts, algorithms and random generator, as
// the first TLS context and handshake would) at load, while allocations still succeed: a set-up
// that fails half-way under an allocation failure stays broken for the life of the process.
// False (nothing to undo) when some part of it failed.
bool prepareTlsLibrary();

// True when libcurl hands its connections' TLS contexts to the TLS library this plug-in was
// built with, so that parsed credentials can be put into them.
bool tlsLibraryIsOurs();

// The files parsed as a handshake loads them: the first certificate of the certificate file,
// the rest of it as the chain, the key (which must match the certificate), and every
// certificate and CRL of the CA bundle. Nothing is kept that did not load in full.
class TlsCredentials {
  public:
    explicit TlsCredentials(const CredentialFiles& files);
    ~TlsCredentials();
    TlsCredentials(const TlsCredentials&) = delete;
    TlsCredentials& operator=(const TlsCredentials&) = delete;

    // Whether they can stand in for the files: the client certificate and key always, the CA
    // bundle only when the destination is checked.
    bool usable(bool checking) const;

    // Puts them into a TLS context libcurl has just made for one connection: the certificate,
    // the chain and the key, and the CA bundle as the only trust when the peer is verified.
    CURLcode install(void* sslContext) const;

  private:
    struct Parsed;
    std::unique_ptr<Parsed> parsed_; // null when memory ran short
};

// libcurl's callback for every TLS context it makes for a POST (credentials: the parsed
// TlsCredentials to install, or null when the transfer loads the files itself). It first
// removes the key-log callback libcurl installs when SSLKEYLOGFILE is in the environment: no
// secret of the plug-in's connections is ever written out. It then has the context mark the
// transfer when a handshake step ends in the TLS library's error state.
CURLcode prepareTlsContext(CURL* curl, void* sslContext, void* credentials);

// The progress function of every POST (context: the transfer's handle): it ends a transfer
// whose handshake was marked, which libcurl would otherwise go on driving without end.
int endFailedHandshake(void* curl, curl_off_t, curl_off_t, curl_off_t, curl_off_t);

} // namespace rfevent

#endif
