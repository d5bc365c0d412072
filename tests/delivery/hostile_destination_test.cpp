// What a destination answers, and the host's own standard output, cannot change whether a POST
// counted as delivered; and with certificate checking on only the configured CA is trusted.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "delivery/parallel_post.h"
#include "harness/certs.h"
#include "harness/https_server.h"
#include "harness/sandbox.h"
#include "subscriptions/delivery_failure_internal.h"

using namespace rfevent;
namespace tk = rfevent::testkit;

namespace {

// Runs body in a child process; its exit status, or 100 + the signal that ended it.
template <typename Body> int inChild(Body body) {
    std::fflush(nullptr);
    pid_t child = fork();
    if (child == 0) {
        _exit(body());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFSIGNALED(status) ? 100 + WTERMSIG(status) : WEXITSTATUS(status);
}

class HostileDestinationTest : public ::testing::Test {
  protected:
    void SetUp() override {
        tk::resetSandbox();
        pki_ = tk::generateTestPki(tk::rooted("/pki"));
        tk::installClientCredentials(pki_, tk::sandboxRoot());
        tk::writeDeliveryAttributes(1, 10, "No");
    }

    std::unique_ptr<tk::HttpsServer> answeringWith(std::size_t bodyBytes) {
        tk::HttpsServerOptions options;
        options.responseBodyBytes = bodyBytes;
        return std::make_unique<tk::HttpsServer>(pki_, options);
    }

    tk::TestPki pki_;
};

// One single POST; 0 when it counted as delivered.
int postOnce(const std::string& url) {
    bool failed = true;
    sendHTTPPacketByCURL("{\"a\":1}", url.c_str(), Json::Value(Json::objectValue), &failed);
    return failed ? 1 : 0;
}

// One parallel pass to url; 0 when its transfer counted as delivered.
int parallelOnce(const std::string& url) {
    DeliveryTarget target;
    target.destination = url;
    target.subscription = Json::Value(Json::objectValue);
    std::vector<DeliveryTarget> targets{target};
    sendMultiperform("{\"a\":1}", targets);
    return targets[0].failureCount == 0 ? 0 : 1;
}

// Puts descriptor fd in the place of the process's standard output until it goes.
class StandardOutputReplaced {
  public:
    explicit StandardOutputReplaced(int fd) : saved_(dup(STDOUT_FILENO)) {
        std::fflush(stdout);
        dup2(fd, STDOUT_FILENO);
    }
    ~StandardOutputReplaced() {
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
    }
    StandardOutputReplaced(const StandardOutputReplaced&) = delete;
    StandardOutputReplaced& operator=(const StandardOutputReplaced&) = delete;

  private:
    int saved_;
};

TEST_F(HostileDestinationTest, AnAnswersBodyNeverReachesTheHostsStandardOutput) {
    auto server = answeringWith(64 * 1024);
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
    const std::string url = server->url("/events");
    int single = 1;
    int parallel = 1;
    {
        StandardOutputReplaced replaced(ends[1]);
        single = postOnce(url);
        parallel = parallelOnce(url);
    }
    close(ends[1]);
    EXPECT_EQ(single, 0);
    EXPECT_EQ(parallel, 0);
    char byte = 0;
    EXPECT_EQ(read(ends[0], &byte, 1), 0) << "the destination's answer reached stdout";
    close(ends[0]);
    EXPECT_EQ(server->requestCount(), 2u);
}

// A daemon's standard output is often closed or not writable: here it is a descriptor that
// refuses every write.
TEST_F(HostileDestinationTest, AnUnwritableStandardOutputDoesNotTurnADeliveryIntoAFailure) {
    auto server = answeringWith(64 * 1024); // more than stdio buffers
    const std::string url = server->url("/events");
    const int unwritable = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(unwritable, 0);
    int single = 1;
    int parallel = 1;
    {
        StandardOutputReplaced replaced(unwritable);
        single = postOnce(url);
        parallel = parallelOnce(url);
    }
    close(unwritable);
    EXPECT_EQ(single, 0);
    EXPECT_EQ(parallel, 0);
    EXPECT_TRUE(tk::eventLogEntries().empty()); // no "JX083"
}

TEST_F(HostileDestinationTest, AnAnswerOfMegabytesIsReadAndDropped) {
    auto server = answeringWith(8 * 1024 * 1024);
    const std::string url = server->url("/events");
    EXPECT_EQ(postOnce(url), 0);
    EXPECT_EQ(parallelOnce(url), 0);
}

// The subject-hash name under which a CA folder lists a certificate ("1a2b3c4d.0").
std::string hashedName(const std::string& certificatePath) {
    std::FILE* file = std::fopen(certificatePath.c_str(), "r");
    if (file == nullptr) {
        return "";
    }
    X509* certificate = PEM_read_X509(file, nullptr, nullptr, nullptr);
    std::fclose(file);
    if (certificate == nullptr) {
        return "";
    }
    char name[16];
    std::snprintf(name, sizeof name, "%08lx.0", X509_subject_name_hash(certificate));
    X509_free(certificate);
    return name;
}

// In a mount namespace of its own, the child sees a system CA folder that holds the test CA,
// while the configured bundle holds another CA: checking on must not trust the system folder.
TEST_F(HostileDestinationTest, WithCheckingOnOnlyTheConfiguredBundleIsTrusted) {
    tk::installClientCredentials(pki_, tk::sandboxRoot(), false); // bundle: the unrelated CA
    tk::writeDeliveryAttributes(1, 0, "No"); // a refused handshake is not waited for
    auto server = answeringWith(0);
    const std::string url = server->url("/events");
    const std::string folder = tk::rooted("/system-ca");
    ::mkdir(folder.c_str(), 0755);
    tk::writeFile(folder + "/" + hashedName(pki_.caCert), tk::readFile(pki_.caCert));
    const int status = inChild([&] {
        if (unshare(CLONE_NEWNS) != 0) {
            return errno == EINVAL || errno == ENOSYS ? 42 : 40;
        }
        if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount(folder.c_str(), "/etc/ssl/certs", nullptr, MS_BIND, nullptr) != 0) {
            return 41;
        }
        return postOnce(url);
    });
    if (status == 42) {
        GTEST_SKIP() << "no mount namespaces here (an emulator?)";
    }
    EXPECT_EQ(status, 1) << "the destination was trusted through the system CA folder";
    EXPECT_EQ(server->requestCount(), 0u);
    // The configured bundle still works: with the test CA in it the POST is delivered.
    tk::installClientCredentials(pki_, tk::sandboxRoot(), true);
    EXPECT_EQ(postOnce(url), 0);
}

} // namespace
