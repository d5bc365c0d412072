// A process killed in the middle of a store rewrite: the store must still be whole.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <random>
#include <sstream>
#include <string>

#include "harness/sandbox.h"
#include "subscriptions/store.h"

namespace tk = rfevent::testkit;

namespace {

constexpr int kKills = 200;

// A store of a few hundred subscriptions, so a rewrite takes more than one write.
Json::Value bigStore(const std::string& tag) {
    Json::Value store(Json::objectValue);
    for (int i = 0; i < 300; ++i) {
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

// Rewrites the store with the two documents in turn, forever; a byte on the pipe before the
// first rewrite and after each one.
[[noreturn]] void rewriteForever(int report, const Json::Value& first, const Json::Value& second) {
    for (bool useFirst = true;; useFirst = !useFirst) {
        if (::write(report, "r", 1) != 1) {
            _exit(1);
        }
        if (!rfevent::writeSubscriptionStore(useFirst ? first : second)) {
            _exit(2);
        }
    }
}

void spinFor(std::chrono::microseconds span) {
    const auto until = std::chrono::steady_clock::now() + span;
    while (std::chrono::steady_clock::now() < until) {
    }
}

class StoreCrashTest : public ::testing::Test {
  protected:
    void SetUp() override { tk::resetSandbox(); }

    // Starts a rewriting child, waits until it reported `reports` bytes, lets it run `offset`
    // more, kills it with SIGKILL and reaps it. False when the child ended by itself.
    bool killRewriterAfter(int reports, std::chrono::microseconds offset) {
        int ends[2];
        EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
        const pid_t child = ::fork();
        if (child == 0) {
            ::close(ends[0]);
            rewriteForever(ends[1], first_, second_);
        }
        ::close(ends[1]);
        char byte = 0;
        for (int i = 0; i < reports; ++i) {
            if (::read(ends[0], &byte, 1) != 1) {
                break;
            }
        }
        spinFor(offset);
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
    tk::writeSubscriptionStore(first_);
    const std::string firstText = styled(first_);
    const std::string secondText = styled(second_);

    // How long one rewrite takes here, so the kills fall anywhere inside one.
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(killRewriterAfter(5, std::chrono::microseconds(0)));
    const auto perRewrite = std::chrono::duration_cast<std::chrono::microseconds>(
                                std::chrono::steady_clock::now() - start) /
                            4;

    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::uniform_int_distribution<int> reports(1, 2);
    std::uniform_int_distribution<long> offset(0, perRewrite.count() + 1);
    int midRewrite = removeLeftovers();
    for (int kill = 0; kill < kKills; ++kill) {
        ASSERT_TRUE(killRewriterAfter(reports(random), std::chrono::microseconds(offset(random))))
            << "kill " << kill;
        const std::string text = tk::readFile(store_);
        ASSERT_TRUE(text == firstText || text == secondText)
            << "kill " << kill << ": the store holds " << text.size() << " bytes";
        midRewrite += removeLeftovers() > 0 ? 1 : 0;
    }
    // The kills did land inside rewrites: some left their temporary file behind.
    EXPECT_GT(midRewrite, 0);
}

} // namespace
