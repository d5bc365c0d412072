// Test main: every test process gets a fresh sandbox root, a log file at level 5 and its own
// SSE port, set in the environment before the plug-in first reads it, and the plug-in's TLS
// session cache, as the host's load creates it.
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "delivery/session_cache.h"
#include "harness/sandbox.h"

namespace {

int freeLoopbackPort() {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

std::string makeRoot() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/rfevent-test.XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        std::perror("mkdtemp");
        std::exit(2);
    }
    return pattern;
}

} // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    std::string root = makeRoot();
    ::setenv("RFEVENT_ROOT", root.c_str(), 1);
    ::setenv("RFEVENT_LOG_FILE", (root + "/log.txt").c_str(), 1);
    ::setenv("RFEVENT_LOG_LEVEL", "5", 0);
    ::setenv("RFEVENT_SSE_PORT", std::to_string(freeLoopbackPort()).c_str(), 1);
    rfevent::testkit::resetSandbox();
    // As the host's load does: libcurl first, then the TLS session cache every POST uses.
    curl_global_init(CURL_GLOBAL_ALL);
    rfevent::createSessionCache();
    int result = RUN_ALL_TESTS();
    rfevent::releaseSessionCache();
    curl_global_cleanup();
    if (std::getenv("RFEVENT_KEEP_SANDBOX") == nullptr) {
        std::string command = "rm -rf '" + root + "'";
        (void)!std::system(command.c_str());
    }
    return result;
}
