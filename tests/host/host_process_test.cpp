// The plug-in inside a host that starts programs, handles SIGPIPE itself and carries proxy and
// TLS key-log variables in its environment.
#include <arpa/inet.h>
#include <curl/curl.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "base/fd.h"
#include "harness/wait.h"
#include "host/host_setup.h"
#include "subscriptions/report_delivery.h"
#include "subscriptions/report_delivery_internal.h"

using namespace rfevent;
using namespace rfevent::testkit;

namespace {

// One alert (single POST) and one report (parallel POST) to the destination; both must arrive.
void deliverAlertAndReport(HostSetup& host) {
    const std::size_t before = host.server->requestCount();
    HostSetup::sendAlert();
    const std::string report = hostReport(300);
    send_report_to_subscription(report.c_str());
    ASSERT_TRUE(host.server->waitForRequests(before + 2, kEventDeadline));
}

// ---- SIGPIPE ---------------------------------------------------------------------------------

void hostSigpipeHandler(int) {}

TEST(HostProcessTest, TheHostsSigpipeHandlerIsNeverSwappedWhilePostsRun) {
    HostSetup host;
    host.subscribeAll();
    struct sigaction own = {};
    own.sa_handler = hostSigpipeHandler;
    sigemptyset(&own.sa_mask);
    struct sigaction previous = {};
    ASSERT_EQ(0, sigaction(SIGPIPE, &own, &previous));

    std::atomic<bool> stop{false};
    std::atomic<long> samples{0};
    std::atomic<long> changed{0};
    std::thread sampler([&] {
        while (!stop.load()) {
            struct sigaction now = {};
            sigaction(SIGPIPE, nullptr, &now);
            samples.fetch_add(1);
            if (now.sa_handler != hostSigpipeHandler) {
                changed.fetch_add(1);
            }
        }
    });
    for (int i = 0; i < 5; ++i) {
        deliverAlertAndReport(host);
    }
    stop = true;
    sampler.join();
    sigaction(SIGPIPE, &previous, nullptr);
    EXPECT_GT(samples.load(), 0);
    EXPECT_EQ(changed.load(), 0) << "of " << samples.load() << " samples";
}

// ---- fork and exec during a POST ---------------------------------------------------------------

// "N -> target" for every descriptor listed by `ls -l /proc/self/fd` in a child the test forks
// and execs now, its standard output going into a pipe of the test.
std::map<int, std::string> descriptorsOfAnExecedChild() {
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) {
        return {};
    }
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(out[1], STDOUT_FILENO); // the copy on 1 is not close-on-exec
        ::execl("/bin/ls", "ls", "-l", "/proc/self/fd", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::close(out[1]);
    std::string listing;
    char buffer[4096];
    for (;;) {
        const ssize_t n = ::read(out[0], buffer, sizeof buffer);
        if (n <= 0) {
            break;
        }
        listing.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(out[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    std::map<int, std::string> descriptors;
    std::istringstream lines(listing);
    std::string line;
    while (std::getline(lines, line)) {
        const std::size_t arrow = line.find(" -> ");
        if (arrow == std::string::npos) {
            continue;
        }
        const std::size_t space = line.rfind(' ', arrow - 1);
        descriptors[std::atoi(line.c_str() + space + 1)] = line.substr(arrow + 4);
    }
    return descriptors;
}

// The socket inodes of one of the kernel's tables, as "socket:[inode]".
std::set<std::string> socketsIn(const char* table) {
    const std::size_t inodeField = std::string(table) == "/proc/net/unix" ? 6 : 9;
    std::set<std::string> sockets;
    std::ifstream file(table);
    std::string line;
    std::getline(file, line); // the heading
    while (std::getline(file, line)) {
        std::istringstream fields(line);
        std::vector<std::string> field;
        for (std::string one; fields >> one;) {
            field.push_back(one);
        }
        if (field.size() > inodeField) {
            sockets.insert("socket:[" + field[inodeField] + "]");
        }
    }
    return sockets;
}

TEST(HostProcessTest, AProgramExecedDuringAPostInheritsNoConnectionOfThePlugin) {
    HttpsServerOptions options = HostSetup::defaultOptions();
    options.holdAnswers = true;
    HostSetup host(options);
    host.subscribeAll();
    // What a child inherits from the test process itself, before any POST.
    const std::map<int, std::string> before = descriptorsOfAnExecedChild();
    std::thread alert([] { HostSetup::sendAlert(); });
    ASSERT_TRUE(host.server->waitForRequests(1, kEventDeadline)); // the POST is in flight
    const std::map<int, std::string> inherited = descriptorsOfAnExecedChild();
    std::set<std::string> tcp = socketsIn("/proc/net/tcp");
    const std::set<std::string> tcp6 = socketsIn("/proc/net/tcp6");
    tcp.insert(tcp6.begin(), tcp6.end());
    const std::set<std::string> local = socketsIn("/proc/net/unix");
    host.server->releaseAnswers();
    alert.join();

    ASSERT_FALSE(inherited.empty());
    int localSockets = 0;
    for (const auto& [fd, target] : inherited) {
        const auto earlier = before.find(fd);
        if (fd <= STDERR_FILENO || (earlier != before.end() && earlier->second == target)) {
            continue; // the test's own standard streams, the listing's pipe, the test's own
        }
        EXPECT_EQ(tcp.count(target), 0u) << fd << " -> " << target;
        EXPECT_EQ(target.find(sandboxRoot()), std::string::npos) << fd << " -> " << target;
        EXPECT_EQ(target.rfind("pipe:", 0), std::string::npos) << fd << " -> " << target;
        localSockets += local.count(target) != 0 ? 1 : 0;
        EXPECT_TRUE(target.rfind("socket:", 0) != 0 || local.count(target) != 0)
            << fd << " -> " << target;
    }
    // The one known exception: the socket pair libcurl makes for each multi handle to wake up
    // its own waits, which this libcurl opens without close-on-exec and offers no option for.
    // It lives only as long as the POST's handle, and carries nothing of a destination.
    EXPECT_LE(localSockets, 2);
}

// ---- The host's environment ------------------------------------------------------------------

// Sets (or, with null, removes) one environment variable for the scope, then puts it back.
class ScopedVariable {
  public:
    ScopedVariable(const char* name, const char* value) : name_(name) {
        const char* old = std::getenv(name);
        hadOld_ = old != nullptr;
        old_ = hadOld_ ? old : "";
        if (value != nullptr) {
            ::setenv(name, value, 1);
        } else {
            ::unsetenv(name);
        }
    }
    ScopedVariable(const ScopedVariable&) = delete;
    ScopedVariable& operator=(const ScopedVariable&) = delete;
    ~ScopedVariable() {
        if (hadOld_) {
            ::setenv(name_.c_str(), old_.c_str(), 1);
        } else {
            ::unsetenv(name_.c_str());
        }
    }

  private:
    std::string name_;
    std::string old_;
    bool hadOld_ = false;
};

// A listening socket on loopback that accepts nothing: a connection made to it waits in its
// queue, where the test finds it.
class ListeningProxy {
  public:
    ListeningProxy() : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        ::bind(fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
        ::listen(fd_.get(), 16);
        ::getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&address), &length);
        url_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    }
    const char* url() const { return url_.c_str(); }
    bool connectionWaiting() const {
        pollfd entry = {fd_.get(), POLLIN, 0};
        return ::poll(&entry, 1, 0) == 1;
    }

  private:
    UniqueFd fd_;
    std::string url_;
};

TEST(HostProcessTest, ProxyVariablesOfTheHostAreNotUsed) {
    HostSetup host;
    host.subscribeAll();
    ListeningProxy proxy;
    ScopedVariable httpsLower("https_proxy", proxy.url());
    ScopedVariable httpsUpper("HTTPS_PROXY", proxy.url());
    ScopedVariable all("ALL_PROXY", proxy.url());
    ScopedVariable allLower("all_proxy", proxy.url());
    ScopedVariable http("http_proxy", proxy.url());
    ScopedVariable noProxy("no_proxy", nullptr);
    ScopedVariable noProxyUpper("NO_PROXY", nullptr);
    deliverAlertAndReport(host);
    // Both calls have returned: a connection to the proxy would be in its queue by now.
    EXPECT_FALSE(proxy.connectionWaiting());
}

TEST(HostProcessTest, NoTlsSecretGoesToTheHostsKeyLogFile) {
    HostSetup host;
    host.subscribeAll();
    const std::string keyLog = rooted("/tls-keys.log");
    ScopedVariable variable("SSLKEYLOGFILE", keyLog.c_str());
    // libcurl reads the variable when it is initialised: as if the host loaded the plug-in with
    // the variable already set.
    curl_global_cleanup();
    ASSERT_EQ(CURLE_OK, curl_global_init(CURL_GLOBAL_ALL));
    deliverAlertAndReport(host);
    EXPECT_TRUE(!fileExists(keyLog) || readFile(keyLog).empty()) << readFile(keyLog);
}

} // namespace
