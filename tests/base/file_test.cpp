// The one whole-file read: by path, by descriptor, and the logged form the reports use.
#include "base/file.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "harness/log_capture.h"
#include "harness/sandbox.h"

using namespace rfevent;
using namespace rfevent::testkit;

namespace {

class WholeFileTest : public ::testing::Test {
  protected:
    void SetUp() override { resetSandbox(); }
    std::string path_ = rooted("/whole.bin");
};

const WholeFileTexts kTexts = {"size failed", true};

TEST_F(WholeFileTest, ReadsEveryByteNulIncluded) {
    const std::string content("before\0after", 12);
    writeFile(path_, content);
    std::string text = "left over";
    const FileReadOutcome outcome = readWholeFile(path_.c_str(), text);
    EXPECT_TRUE(outcome.done());
    EXPECT_EQ(outcome.size, 12);
    EXPECT_EQ(text, content);
}

TEST_F(WholeFileTest, AnEmptyFileReadsAsEmpty) {
    writeFile(path_, "");
    std::string text = "left over";
    EXPECT_TRUE(readWholeFile(path_.c_str(), text).done());
    EXPECT_EQ(text, "");
}

TEST_F(WholeFileTest, AMissingFileFailsToOpenWithItsErrno) {
    std::string text = "left over";
    const FileReadOutcome outcome = readWholeFile(rooted("/absent").c_str(), text);
    EXPECT_EQ(outcome.step, FileReadStep::Open);
    EXPECT_EQ(outcome.error, ENOENT);
    EXPECT_EQ(text, "");
}

TEST_F(WholeFileTest, AFileThatCannotBeReadFailsEmpty) {
    const std::string folder = rooted("/folder");
    ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0);
    std::string text = "left over";
    const FileReadOutcome outcome = readWholeFile(folder.c_str(), text);
    EXPECT_FALSE(outcome.done());
    EXPECT_NE(outcome.error, 0);
    EXPECT_EQ(text, "");
}

TEST_F(WholeFileTest, TheLoggedFormLogsTheSizeAndReadsTheStream) {
    writeFile(path_, "{\"a\":1}");
    UniqueFile file = openForReading(path_.c_str());
    ASSERT_NE(file, nullptr);
    LogCapture log;
    std::string text;
    EXPECT_TRUE(readWholeFileLogged(file.get(), text, RF_HERE, kTexts));
    EXPECT_EQ(text, "{\"a\":1}");
    EXPECT_EQ(log.count(5, "lSize :7"), 1);
    EXPECT_EQ(log.countAny("local export function"), 0);
}

TEST_F(WholeFileTest, TheLoggedFormLogsAStreamThatCannotBeSought) {
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    UniqueFile file(::fdopen(ends[0], "rb"));
    ASSERT_NE(file, nullptr);
    LogCapture log;
    std::string text;
    EXPECT_FALSE(readWholeFileLogged(file.get(), text, RF_HERE, kTexts));
    EXPECT_EQ(log.count(2, "File operation seek failed in local export function"), 1);
    EXPECT_EQ(log.countAny("lSize"), 0);
    ::close(ends[1]);
}

} // namespace
