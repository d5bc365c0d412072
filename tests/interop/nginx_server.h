// A real nginx in front of a recording backend, for the interop tests.
//
// Each NginxServer is one nginx process of the test's own: single process, in the foreground,
// configuration, logs, pid file and temporary files all in one folder of the sandbox, listening
// on 127.0.0.1 only. It demands a client certificate signed by the test CA, speaks exactly one
// TLS version, and serves:
//   /collector/...  proxied unchanged to the backend, with the TLS facts nginx saw added as
//                   request headers (X-Client-Verify, X-Client-Subject, X-Client-Issuer,
//                   X-Client-Fingerprint, X-Tls-Protocol);
//   /status/401, /status/500  answered by nginx itself with that status;
//   /ready          answered by nginx itself with 200 and a token of this instance.
// Every request is written to an access log of JSON lines with the same TLS facts.
#ifndef RFEVENT_TESTS_INTEROP_NGINX_SERVER_H
#define RFEVENT_TESTS_INTEROP_NGINX_SERVER_H

#include <arpa/inet.h>
#include <curl/curl.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <json/json.h>

#include "harness/certs.h"
#include "harness/https_server.h"
#include "harness/sandbox.h"

namespace rfevent::testkit {

// Generous: a busy shared machine or an emulated target can be slow to start a process.
inline constexpr std::chrono::seconds kNginxDeadline{60};

// Waits until done() holds, checking every few milliseconds; false when the deadline passed.
inline bool waitUntil(const std::function<bool()>& done,
                      std::chrono::steady_clock::duration timeout = kNginxDeadline) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (done()) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        ::poll(nullptr, 0, 5);
    }
}

// The nginx executable: $RFEVENT_NGINX, /usr/sbin/nginx, or the first "nginx" on PATH.
// Throws when there is none, so that a machine without it fails the tests instead of
// skipping them.
inline std::string findNginx() {
    if (const char* chosen = std::getenv("RFEVENT_NGINX"); chosen != nullptr && *chosen != 0) {
        if (::access(chosen, X_OK) != 0) {
            throw std::runtime_error(std::string("RFEVENT_NGINX=") + chosen +
                                     " is not an executable file");
        }
        return chosen;
    }
    std::vector<std::string> candidates = {"/usr/sbin/nginx"};
    if (const char* path = std::getenv("PATH"); path != nullptr) {
        std::stringstream folders(path);
        std::string folder;
        while (std::getline(folders, folder, ':')) {
            if (!folder.empty()) {
                candidates.push_back(folder + "/nginx");
            }
        }
    }
    for (const std::string& candidate : candidates) {
        if (::access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    throw std::runtime_error("nginx not found (looked at $RFEVENT_NGINX, /usr/sbin/nginx and "
                             "PATH); scripts/install-deps.sh installs it (package nginx-light)");
}

// Lower-case hex SHA-1 of the DER form of the PEM certificate in path, as nginx prints a
// client certificate's fingerprint.
inline std::string certificateSha1(const std::string& path) {
    FILE* file = std::fopen(path.c_str(), "r");
    if (file == nullptr) {
        throw std::runtime_error("cannot open " + path);
    }
    X509* cert = PEM_read_X509(file, nullptr, nullptr, nullptr);
    std::fclose(file);
    if (cert == nullptr) {
        throw std::runtime_error("no certificate in " + path);
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    const int ok = X509_digest(cert, EVP_sha1(), digest, &length);
    X509_free(cert);
    if (ok != 1) {
        throw std::runtime_error("X509_digest failed for " + path);
    }
    static const char kHex[] = "0123456789abcdef";
    std::string hex;
    for (unsigned int i = 0; i < length; ++i) {
        hex += kHex[digest[i] >> 4];
        hex += kHex[digest[i] & 0xf];
    }
    return hex;
}

// One request of the test's own, made with libcurl.
struct ProbeOptions {
    bool clientCertificate = true;             // present the test client certificate
    long sslVersion = CURL_SSLVERSION_DEFAULT; // CURLOPT_SSLVERSION
    std::string body;                          // POSTed when not empty, else a GET
};

struct ProbeResult {
    CURLcode code = CURLE_OK;
    long status = 0;
    std::string body;
};

inline ProbeResult probe(const TestPki& pki, const std::string& url,
                         const ProbeOptions& options = {}) {
    ProbeResult result;
    CURL* curl = curl_easy_init();
    if (curl == nullptr) {
        result.code = CURLE_FAILED_INIT;
        return result;
    }
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_CAINFO, pki.caCert.c_str());
    curl_easy_setopt(curl, CURLOPT_SSLVERSION, options.sslVersion);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, static_cast<long>(kNginxDeadline.count()));
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    if (options.clientCertificate) {
        curl_easy_setopt(curl, CURLOPT_SSLCERT, pki.clientCert.c_str());
        curl_easy_setopt(curl, CURLOPT_SSLKEY, pki.clientKey.c_str());
    }
    if (!options.body.empty()) {
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, options.body.c_str());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(options.body.size()));
    }
    using Sink = size_t (*)(char*, size_t, size_t, void*);
    Sink sink = [](char* data, size_t size, size_t count, void* out) {
        static_cast<std::string*>(out)->append(data, size * count);
        return size * count;
    };
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, sink);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &result.body);
    result.code = curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &result.status);
    curl_easy_cleanup(curl);
    return result;
}

class NginxServer {
  public:
    // Starts nginx in dir (created) in front of the backend on backendPort, speaking only
    // tlsProtocol ("TLSv1.2" or "TLSv1.3"), and returns once it answers. Throws, with nginx's
    // own words, when it cannot be started.
    NginxServer(const TestPki& pki, std::string dir, std::string tlsProtocol, int backendPort)
        : pki_(pki), dir_(std::move(dir)), protocol_(std::move(tlsProtocol)),
          backendPort_(backendPort), token_(randomToken()) {
        std::filesystem::create_directories(dir_ + "/tmp");
        // Another process may take the chosen port between its choice and nginx's bind; then
        // nginx exits at once and another port is tried.
        std::string failures;
        for (int attempt = 0; attempt < 5; ++attempt) {
            port_ = HttpsServer::closedLoopbackPort();
            writeFile(configPath(), config());
            start();
            if (waitForListener()) {
                checkIdentity();
                return;
            }
            failures += "port " + std::to_string(port_) + ":\n" + readFile(consolePath());
            if (failures.find("Address already in use") == std::string::npos) {
                break;
            }
        }
        throw std::runtime_error("nginx did not start:\n" + failures);
    }

    ~NginxServer() { stop(); }
    NginxServer(const NginxServer&) = delete;
    NginxServer& operator=(const NginxServer&) = delete;

    // Ends nginx and reaps it. Idempotent.
    void stop() {
        if (pid_ <= 0) {
            return;
        }
        ::kill(pid_, SIGTERM);
        if (!waitUntil([this] { return reaped(); })) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        pid_ = -1;
    }

    int port() const { return port_; }
    const std::string& protocol() const { return protocol_; }
    // "https://127.0.0.1:<port><path>"
    std::string url(const std::string& path) const {
        return "https://127.0.0.1:" + std::to_string(port_) + path;
    }

    // The access log as written so far, one JSON object per request (see config()).
    std::vector<Json::Value> accessLog() const {
        std::vector<Json::Value> entries;
        if (!fileExists(accessLogPath())) {
            return entries;
        }
        // A line still being written has no line feed yet; it is read the next time.
        const std::string text = readFile(accessLogPath());
        std::size_t start = 0;
        for (std::size_t end; (end = text.find('\n', start)) != std::string::npos;
             start = end + 1) {
            if (end > start) {
                entries.push_back(parseJson(text.substr(start, end - start)));
            }
        }
        return entries;
    }

    // The access log once every request answered before this call is in it: nginx writes a
    // line after it answered, so one more request of the test's own is made and waited for.
    // The entries of these requests to /ready are left out.
    std::vector<Json::Value> settledAccessLog() {
        const std::string marker = "/ready?settle=" + std::to_string(++settles_);
        const ProbeResult answer = probe(pki_, url(marker));
        if (answer.code != CURLE_OK || answer.status != 200) {
            throw std::runtime_error("nginx did not answer " + marker + ": " +
                                     curl_easy_strerror(answer.code));
        }
        std::vector<Json::Value> entries;
        const bool logged = waitUntil([&] {
            entries = accessLog();
            for (const Json::Value& entry : entries) {
                if (entry["uri"].asString() == marker) {
                    return true;
                }
            }
            return false;
        });
        if (!logged) {
            throw std::runtime_error("nginx never logged " + marker);
        }
        std::vector<Json::Value> requests;
        for (const Json::Value& entry : entries) {
            if (entry["uri"].asString().rfind("/ready", 0) != 0) {
                requests.push_back(entry);
            }
        }
        return requests;
    }

    // nginx's error log, for failure messages.
    std::string errorLog() const {
        return fileExists(errorLogPath()) ? readFile(errorLogPath()) : std::string();
    }

  private:
    std::string configPath() const { return dir_ + "/nginx.conf"; }
    std::string consolePath() const { return dir_ + "/console.log"; }
    std::string accessLogPath() const { return dir_ + "/access.log"; }
    std::string errorLogPath() const { return dir_ + "/error.log"; }

    static std::string randomToken() {
        std::random_device device;
        return std::to_string(device()) + "-" + std::to_string(device());
    }

    std::string config() const {
        const std::string tmp = dir_ + "/tmp";
        std::string c;
        c += "daemon off;\n";
        c += "master_process off;\n";
        c += "worker_processes 1;\n";
        c += "pid " + dir_ + "/nginx.pid;\n";
        c += "error_log " + errorLogPath() + " info;\n";
        c += "events { worker_connections 256; }\n";
        c += "http {\n";
        c += "    log_format interop escape=json '{\"uri\":\"$request_uri\","
             "\"method\":\"$request_method\",\"status\":\"$status\","
             "\"verify\":\"$ssl_client_verify\",\"subject\":\"$ssl_client_s_dn\","
             "\"issuer\":\"$ssl_client_i_dn\",\"fingerprint\":\"$ssl_client_fingerprint\","
             "\"protocol\":\"$ssl_protocol\",\"contentLength\":\"$content_length\","
             "\"contentType\":\"$content_type\"}';\n";
        c += "    access_log " + accessLogPath() + " interop;\n";
        c += "    client_body_temp_path " + tmp + "/body;\n";
        c += "    proxy_temp_path " + tmp + "/proxy;\n";
        c += "    fastcgi_temp_path " + tmp + "/fastcgi;\n";
        c += "    uwsgi_temp_path " + tmp + "/uwsgi;\n";
        c += "    scgi_temp_path " + tmp + "/scgi;\n";
        // Far above the largest report the tests send, which goes through a temporary file.
        c += "    client_max_body_size 64m;\n";
        c += "    server {\n";
        c += "        listen 127.0.0.1:" + std::to_string(port_) + " ssl;\n";
        c += "        ssl_certificate " + pki_.serverCert + ";\n";
        c += "        ssl_certificate_key " + pki_.serverKey + ";\n";
        c += "        ssl_protocols " + protocol_ + ";\n";
        c += "        ssl_client_certificate " + pki_.caCert + ";\n";
        c += "        ssl_verify_client on;\n";
        c += "        location /collector/ {\n";
        c += "            proxy_pass https://127.0.0.1:" + std::to_string(backendPort_) + ";\n";
        c += "            proxy_request_buffering on;\n";
        // The recording backend asks for a client certificate without a session id context,
        // so OpenSSL refuses to resume a session there; nginx would resume its last one.
        c += "            proxy_ssl_session_reuse off;\n";
        c += "            proxy_set_header X-Client-Verify $ssl_client_verify;\n";
        c += "            proxy_set_header X-Client-Subject $ssl_client_s_dn;\n";
        c += "            proxy_set_header X-Client-Issuer $ssl_client_i_dn;\n";
        c += "            proxy_set_header X-Client-Fingerprint $ssl_client_fingerprint;\n";
        c += "            proxy_set_header X-Tls-Protocol $ssl_protocol;\n";
        c += "        }\n";
        // A collector with the common 1 MiB body limit: larger bodies are answered 413.
        c += "        location = /limited { client_max_body_size 1m; return 204; }\n";
        c += "        location = /status/401 { return 401; }\n";
        c += "        location = /status/500 { return 500; }\n";
        c += "        location = /ready { return 200 \"" + token_ + "\"; }\n";
        c += "    }\n";
        c += "}\n";
        return c;
    }

    // Starts nginx with stdout and stderr in console.log. The child is killed when this
    // thread ends, so no nginx outlives a crashed or timed-out test.
    void start() {
        const std::string binary = findNginx();
        const std::string prefix = dir_ + "/";
        const std::string config = configPath();
        std::vector<char*> argv = {const_cast<char*>(binary.c_str()), const_cast<char*>("-p"),
                                   const_cast<char*>(prefix.c_str()), const_cast<char*>("-c"),
                                   const_cast<char*>(config.c_str()), nullptr};
        const int console =
            ::open(consolePath().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (console < 0) {
            throw std::runtime_error("cannot create " + consolePath());
        }
        const pid_t parent = ::getpid();
        const pid_t child = ::fork();
        if (child == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::getppid() != parent) {
                ::_exit(127);
            }
            ::dup2(console, STDOUT_FILENO);
            ::dup2(console, STDERR_FILENO);
            ::execv(argv[0], argv.data());
            static const char kExecFailed[] = "cannot execute nginx\n";
            (void)!::write(STDERR_FILENO, kExecFailed, sizeof kExecFailed - 1);
            ::_exit(127);
        }
        ::close(console);
        if (child < 0) {
            throw std::runtime_error("fork failed");
        }
        pid_ = child;
    }

    // True once nginx exited and was reaped.
    bool reaped() {
        const pid_t done = ::waitpid(pid_, nullptr, WNOHANG);
        return done == pid_ || (done < 0 && errno == ECHILD);
    }

    bool acceptsConnections() const {
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            return false;
        }
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port_));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const bool connected =
            ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
        ::close(fd);
        return connected;
    }

    // Waits until the port accepts connections (true) or nginx exited (false).
    bool waitForListener() {
        bool exited = false;
        const bool settled = waitUntil([&] {
            if (reaped()) {
                exited = true;
                return true;
            }
            return acceptsConnections();
        });
        if (exited) {
            pid_ = -1;
            return false;
        }
        if (!settled) {
            stop();
            throw std::runtime_error("nginx did not listen on port " + std::to_string(port_) +
                                     " in time:\n" + readFile(consolePath()) + errorLog());
        }
        return true;
    }

    // The listener must be this nginx and not another process that took the port.
    void checkIdentity() {
        const ProbeResult answer = probe(pki_, url("/ready"));
        if (answer.code != CURLE_OK || answer.status != 200 || answer.body != token_) {
            stop();
            throw std::runtime_error(
                "port " + std::to_string(port_) +
                " does not answer as the nginx just started: " + curl_easy_strerror(answer.code) +
                ", status " + std::to_string(answer.status) + "\n" + errorLog());
        }
    }

    TestPki pki_;
    std::string dir_;
    std::string protocol_;
    int backendPort_;
    std::string token_;
    int port_ = 0;
    pid_t pid_ = -1;
    int settles_ = 0;
};

} // namespace rfevent::testkit

#endif
