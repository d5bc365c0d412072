#include "delivery/curl_options.h"

#include <sys/socket.h>

#include <string>
#include <vector>

#include "base/config.h"
#include "base/fd.h"
#include "base/paths.h"
#include "delivery/http_headers.h"
#include "delivery/session_cache.h"
#include "delivery/tls_credentials.h"

namespace rfevent {

namespace {

// A failure message around libcurl's code: "<head><code><tail>".
struct Refusal {
    const char* head;
    const char* tail;
};

// Sets one option; a refusal is logged under spot. True when libcurl took it.
template <typename Value>
bool setOption(SourceSpot spot, CURL* curl, CURLoption option, Value value,
               const Refusal& refusal) {
    CURLcode rc = curl_easy_setopt(curl, option, value);
    if (rc != CURLE_OK) {
        RF_LOG_AT(spot, kLogError, "[%s():%d]%s%d%s", refusal.head, static_cast<int>(rc),
                  refusal.tail);
        return false;
    }
    return true;
}

// A destination's answer is read and dropped here: nothing it sends reaches a descriptor of
// the host, and how much it sends costs no memory.
size_t discardBody(char* data, size_t size, size_t count, void* context) {
    (void)data;
    (void)context;
    return size * count;
}

// Every socket libcurl opens for a POST: close-on-exec from the start, so a program the host
// starts meanwhile inherits no connection of the plug-in, and above standard error.
curl_socket_t openTransferSocket(void* context, curlsocktype purpose, curl_sockaddr* address) {
    (void)context;
    (void)purpose;
    UniqueFd fd(::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol));
    return fd.valid() ? fd.release() : CURL_SOCKET_BAD;
}

// A handshake that the TLS library ends in its error state ends its transfer, through the
// progress function. The function is set before progress is turned on (without it libcurl
// would write a progress meter to the host's standard error); these options never fail.
void setHandshakeWatch(CURL* curl) {
    if (curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, endFailedHandshake) == CURLE_OK &&
        curl_easy_setopt(curl, CURLOPT_XFERINFODATA, static_cast<void*>(curl)) == CURLE_OK) {
        (void)curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    }
}

// A POST takes nothing of the host's process that is not its own: libcurl leaves the signal
// dispositions alone (the callers block SIGPIPE in their own thread instead), the proxy
// variables of the environment are not used (an empty proxy turns them off), and its sockets
// come from openTransferSocket.
bool setHostNeutralOptions(SourceSpot spot, CURL* curl) {
    // libcurl's own descriptors (its wake-up socket pair, its resolver's) and OpenSSL's reads
    // of the credential files must not become a standard stream of the host either.
    reserveStandardStreams();
    return setOption(spot, curl, CURLOPT_NOSIGNAL, 1L, {"libcurl CURLOPT_NOSIGNAL failed:", ""}) &&
           setOption(spot, curl, CURLOPT_PROXY, "", {"libcurl CURLOPT_PROXY failed:", ""}) &&
           setOption(spot, curl, CURLOPT_OPENSOCKETFUNCTION, openTransferSocket,
                     {"libcurl CURLOPT_OPENSOCKETFUNCTION failed:", ""});
}

const Refusal kVerifyPeerRefused = {"libcurl CURLOPT_SSL_VERIFYPEER failed:", ""};
const Refusal kVerifyHostRefused = {"libcurl CURLOPT_SSL_VERIFYHOST failed:", ""};

// Options 1 to 8: address, protocol, time-outs, method, headers, client certificate and key.
bool setRequestOptions(SourceSpot spot, CURL* curl, const char* uri, curl_slist* headers,
                       const PostSettings& settings, const PostFlavour& flavour) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations" // the protocol bit mask we need
    const bool ok =
        setOption(spot, curl, CURLOPT_URL, uri, {"libcurl CURLOPT_URL failed ", "\n"}) &&
        setOption(spot, curl, CURLOPT_PROTOCOLS, static_cast<long>(CURLPROTO_HTTPS),
                  {"libcurl CURLOPT_PROTOCOLS:CURLPROTO_HTTPS failed:", "\n"}) &&
        setOption(spot, curl, CURLOPT_CONNECTTIMEOUT, settings.interval,
                  {"libcurl CURLOPT_CONNECTTIMEOUT: failed:", ""}) &&
        setOption(spot, curl, CURLOPT_TIMEOUT, settings.interval,
                  {"libcurl CURLOPT_TIMEOUT:Set TimeOutValue Failed :", flavour.refusalTail});
#pragma GCC diagnostic pop
    if (!ok) {
        return false;
    }
    if (flavour.logTimeoutSuccess) {
        RF_LOG_AT(spot, kLogDebug, "[%s():%d]libcurl CURLOPT_TIMEOUT success");
    }
    return setOption(spot, curl, CURLOPT_POST, 1L,
                     {"libcurl CURLOPT_POST:1 failed:", flavour.refusalTail}) &&
           setOption(spot, curl, CURLOPT_HTTPHEADER, headers,
                     {"libcurl CURLOPT_HTTPHEADER failed:", ""}) &&
           setOption(spot, curl, CURLOPT_SSLCERT, fixedPath(FixedPath::ClientCertificate),
                     {"libcurl CURLOPT_SSLCERT  failed:", ""}) &&
           setOption(spot, curl, CURLOPT_SSLKEY, fixedPath(FixedPath::ClientKey),
                     {"libcurl CURLOPT_SSLKEY failed:", ""});
}

// Switch 0 verifies the destination against the CA bundle, and against nothing else; any
// other value (also a missing or invalid setting) turns checking off, where a refused option
// is only logged.
bool setCertificateChecking(SourceSpot spot, CURL* curl, int certificateSwitch,
                            const PostFlavour& flavour) {
    if (certificateSwitch != VERIFY_CERTIFICATES) {
        setOption(spot, curl, CURLOPT_SSL_VERIFYPEER, 0L, kVerifyPeerRefused);
        setOption(spot, curl, CURLOPT_SSL_VERIFYHOST, 0L, kVerifyHostRefused);
        return true;
    }
    const char* caBundle = fixedPath(FixedPath::ServerCaBundle);
    if (flavour.logCaBundle) {
        RF_LOG_AT(spot, kLogError, "[%s():%d]CURLOPT_CAINFO:%s", caBundle);
    }
    const bool ok =
        setOption(spot, curl, CURLOPT_CAINFO, caBundle, {"libcurl CURLOPT_CAINFO failed:", ""}) &&
        setOption(spot, curl, CURLOPT_CAPATH, static_cast<const char*>(nullptr),
                  {"libcurl CURLOPT_CAPATH failed:", ""}) &&
        setOption(spot, curl, CURLOPT_SSL_VERIFYPEER, 1L, kVerifyPeerRefused) &&
        setOption(spot, curl, CURLOPT_SSL_VERIFYHOST, 2L, kVerifyHostRefused);
    if (ok && flavour.certificateInfo) {
        (void)curl_easy_setopt(curl, CURLOPT_VERBOSE, 0L);
        (void)curl_easy_setopt(curl, CURLOPT_CERTINFO, 1L);
    }
    return ok;
}

} // namespace

const PostFlavour kSinglePost = {nullptr, true, "\n", false, false, true};
const PostFlavour kParallelPost = {"Expect:", false, "", true, true, false};

CurlList buildHeaderList(const Json::Value& subscription, const PostFlavour& flavour) {
    const std::vector<std::string> lines = subscriptionHeaderLines(subscription);
    CurlList list;
    if (flavour.extraFirstHeader != nullptr) {
        appendLine(list, flavour.extraFirstHeader);
    }
    for (const std::string& line : lines) {
        appendLine(list, line.c_str());
    }
    if (flavour.logEndOfHeaders) {
        RF_LOG(kLogDebug, "[%s():%d]End Of For Loop");
    }
    appendLine(list, "Content-Type: application/json");
    return list;
}

bool setPostOptions(SourceSpot spot, CURL* curl, const char* uri, const char* body,
                    curl_slist* headers, const PostSettings& settings, const PostFlavour& flavour) {
    if (!setHostNeutralOptions(spot, curl) ||
        !setRequestOptions(spot, curl, uri, headers, settings, flavour) ||
        !setCertificateChecking(spot, curl, settings.certificateSwitch, flavour) ||
        !setOption(spot, curl, CURLOPT_POSTFIELDS, body,
                   {"libcurl CURLOPT_POSTFIELDS failed:", "\n"})) {
        return false;
    }
    (void)curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, discardBody);
    setHandshakeWatch(curl);
    attachSessionCache(curl, uri, settings.certificateSwitch == VERIFY_CERTIFICATES);
    return true;
}

} // namespace rfevent
