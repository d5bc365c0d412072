// A process killed in the middle of a store rewrite: the store must still be whole.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <random>
#include <sstream>
#include <string>

#include "base/durable_file_internal.h"
#include "harness/sandbox.h"
#include "subscriptions/store.h"

namespace tk = rfevent::testkit;

namespace {

constexpr int kKills = 200;

// A store of a hundred subscriptions (about 20 KB), so writing it is not over in an instant.
Json::Value bigStore(const std::string& tag) {
    Json::Value store(Json::objectValue);
    for (int i = 0; i < 100; ++i) {
        Json::Value& subscription = store[tag + std::to_string(i)];
        subscription["Destination"] = "https://" + tag + std::to_string(i) + ".example/events";
        subscription["EventFormatType"] = "Event";
        subscription["EventTypes"].append("Alert");
        subscription["Context"] = std::string(40, tag[0]);
    }
    return store;
}

std::string styled(const Json::Value& value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

// The child's end of the pipe: a byte before every call a rewrite makes.
int g_report = -1;

void reportStep() {
    if (::write(g_report, "s", 1) != 1) {
        _exit(1);
    }
}

// The real calls, each announced on the pipe first. A killed process loses nothing the kernel
// already has, so flushing to the disk is for power cuts (the order test shows it); here it
// would only make every round wait for a busy disk, and is skipped.
void announceEveryCall() {
    rfevent::RewriteCalls& calls = rfevent::rewriteCalls();
    calls.makeTemporary = [](char* pattern) {
        reportStep();
        return rfevent::realRewriteCalls().makeTemporary(pattern);
    };
    calls.openFolder = [](const char* path) {
        reportStep();
        return rfevent::realRewriteCalls().openFolder(path);
    };
    calls.fchmod = [](int fd, mode_t mode) {
        reportStep();
        return rfevent::realRewriteCalls().fchmod(fd, mode);
    };
    calls.fchown = [](int fd, uid_t owner, gid_t group) {
        reportStep();
        return rfevent::realRewriteCalls().fchown(fd, owner, group);
    };
    calls.writeAll = [](int fd, const void* data, std::size_t length) {
        reportStep();
        return rfevent::realRewriteCalls().writeAll(fd, data, length);
    };
    calls.fsync = [](int) {
        reportStep();
        return 0;
    };
    calls.close = [](int fd) {
        reportStep();
        return rfevent::realRewriteCalls().close(fd);
    };
    calls.rename = [](const char* from, const char* to) {
        reportStep();
        return rfevent::realRewriteCalls().rename(from, to);
    };
}

// Rewrites the store with the two documents in turn, forever.
[[noreturn]] void rewriteForever(const Json::Value& first, const Json::Value& second) {
    for (bool useFirst = true;; useFirst = !useFirst) {
        if (!rfevent::writeSubscriptionStore(useFirst ? first : second)) {
            _exit(2);
        }
    }
}

class StoreCrashTest : public ::testing::Test {
  protected:
    void SetUp() override { tk::resetSandbox(); }

    // Starts a rewriting child, lets it announce `steps` calls, kills it with SIGKILL wherever
    // it then is, and reaps it. False when the child ended by itself.
    bool killRewriterAfter(int steps) {
        int ends[2];
        EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
        const pid_t child = ::fork();
        if (child == 0) {
            ::close(ends[0]);
            g_report = ends[1];
            announceEveryCall();
            rewriteForever(first_, second_);
        }
        ::close(ends[1]);
        char byte = 0;
        for (int i = 0; i < steps && ::read(ends[0], &byte, 1) == 1; ++i) {
        }
        ::kill(child, SIGKILL);
        ::close(ends[0]);
        int status = 0;
        while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
        }
        return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    }

    // Removes what killed rewrites left beside the store; how many there were.
    int removeLeftovers() {
        int removed = 0;
        for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
            if (entry.path().filename() != "subscriptions.json") {
                std::filesystem::remove(entry.path());
                ++removed;
            }
        }
        return removed;
    }

    const Json::Value first_ = bigStore("a");
    const Json::Value second_ = bigStore("b");
    const std::string folder_ = tk::rooted("/var/lib/lumenrest/redfish_subscriptions");
    const std::string store_ = folder_ + "/subscriptions.json";
};

TEST_F(StoreCrashTest, AStoreKilledMidRewriteHoldsTheOldOrTheNewContent) {
    // Written as the plug-in writes it, so the old content is one of the two texts.
    ASSERT_TRUE(rfevent::writeSubscriptionStore(first_));
    const std::string firstText = styled(first_);
    const std::string secondText = styled(second_);

    // A rewrite makes ten calls: the kills fall after any of them, in the first rewrite or the
    // second, and the child runs on a little before the signal lands.
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::uniform_int_distribution<int> steps(1, 20);
    int midRewrite = removeLeftovers();
    for (int kill = 0; kill < kKills; ++kill) {
        ASSERT_TRUE(killRewriterAfter(steps(random))) << "kill " << kill;
        const std::string text = tk::readFile(store_);
        ASSERT_TRUE(text == firstText || text == secondText)
            << "kill " << kill << ": the store holds " << text.size() << " bytes";
        midRewrite += removeLeftovers() > 0 ? 1 : 0;
    }
    // The kills did land inside rewrites: some left their temporary file behind.
    EXPECT_GT(midRewrite, 0);
}

} // namespace
