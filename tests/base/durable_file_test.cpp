#include "base/durable_file.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "base/durable_file_internal.h"
#include "harness/sandbox.h"

using namespace rfevent;

namespace tk = rfevent::testkit;

namespace {

// Every call a rewrite makes, in order, with what it was made on.
std::vector<std::string> g_trace;
std::string g_temporary;
int g_temporaryFd = -1;
int g_folderFd = -1;
int g_failFsyncOf = -2; // a descriptor whose fsync fails with EIO

std::string nameOf(int fd) {
    if (fd == g_temporaryFd) {
        return "file";
    }
    return fd == g_folderFd ? "folder" : "other";
}

int tracedTemporary(char* pattern) {
    g_temporaryFd = realRewriteCalls().makeTemporary(pattern);
    g_temporary = pattern;
    g_trace.push_back("create");
    return g_temporaryFd;
}
int tracedFolder(const char* path) {
    g_folderFd = realRewriteCalls().openFolder(path);
    g_trace.push_back(std::string("open folder ") + path);
    return g_folderFd;
}
int tracedFchmod(int fd, mode_t mode) {
    g_trace.push_back("fchmod " + nameOf(fd));
    return realRewriteCalls().fchmod(fd, mode);
}
int tracedFchown(int fd, uid_t owner, gid_t group) {
    g_trace.push_back("fchown " + nameOf(fd));
    return realRewriteCalls().fchown(fd, owner, group);
}
bool tracedWrite(int fd, const void* data, std::size_t length) {
    g_trace.push_back("write " + nameOf(fd));
    return realRewriteCalls().writeAll(fd, data, length);
}
int tracedFsync(int fd) {
    g_trace.push_back("fsync " + nameOf(fd));
    if (fd == g_failFsyncOf) {
        errno = EIO;
        return -1;
    }
    return realRewriteCalls().fsync(fd);
}
int tracedClose(int fd) {
    g_trace.push_back("close " + nameOf(fd));
    // The number may come back for the next descriptor.
    if (fd == g_temporaryFd) {
        g_temporaryFd = -1;
    } else if (fd == g_folderFd) {
        g_folderFd = -1;
    }
    return realRewriteCalls().close(fd);
}
int tracedRename(const char* from, const char* to) {
    g_trace.push_back(std::string("rename ") + (from == g_temporary ? "file" : from) + " " + to);
    return realRewriteCalls().rename(from, to);
}
int tracedUnlink(const char* path) {
    g_trace.push_back(std::string("unlink ") + (path == g_temporary ? "file" : path));
    return realRewriteCalls().unlink(path);
}

class DurableFileTest : public ::testing::Test {
  protected:
    void SetUp() override {
        tk::resetSandbox();
        g_trace.clear();
        g_failFsyncOf = -2;
        rewriteCalls() = {tracedTemporary, tracedFolder, tracedFchmod, tracedFchown, tracedWrite,
                          tracedFsync,     tracedClose,  tracedRename, tracedUnlink};
        // As the rewrite names them: without links on the way.
        folder_ = std::filesystem::canonical(tk::rooted("/var/tmp/telemetry")).string();
        path_ = folder_ + "/file.txt";
    }
    void TearDown() override { rewriteCalls() = realRewriteCalls(); }

    std::vector<std::string> folderEntries() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
            names.push_back(entry.path().filename().string());
        }
        return names;
    }

    std::string folder_;
    std::string path_;
};

TEST_F(DurableFileTest, TheContentIsFlushedBeforeTheRenameAndTheFolderAfterIt) {
    tk::writeFile(path_, "old");
    const RewriteOutcome outcome = rewriteFileDurably(path_, "new", 0644);
    EXPECT_TRUE(outcome.done());
    EXPECT_EQ(outcome.target, path_);
    EXPECT_EQ(tk::readFile(path_), "new");
    const std::vector<std::string> expected = {
        "create",       "fchown file", "fchmod file",          "write file",
        "fsync file",   "close file",  "rename file " + path_, "open folder " + folder_,
        "fsync folder", "close folder"};
    EXPECT_EQ(g_trace, expected);
}

TEST_F(DurableFileTest, TheAtomicRewriteIsTheSameWithoutTheFlushes) {
    tk::writeFile(path_, "old");
    const RewriteOutcome outcome = rewriteFileAtomically(path_, "new", 0644);
    EXPECT_TRUE(outcome.done());
    EXPECT_EQ(tk::readFile(path_), "new");
    const std::vector<std::string> expected = {"create",     "fchown file", "fchmod file",
                                               "write file", "close file",  "rename file " + path_};
    EXPECT_EQ(g_trace, expected);
}

TEST_F(DurableFileTest, ANewFileGetsItsModeWhateverTheUmask) {
    const mode_t saved = ::umask(0);
    const RewriteOutcome outcome = rewriteFileDurably(path_, "1", 0644);
    ::umask(saved);
    ASSERT_TRUE(outcome.done());
    struct stat info;
    ASSERT_EQ(::stat(path_.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0644u);
    // A new file has no owner to keep.
    EXPECT_EQ(std::count(g_trace.begin(), g_trace.end(), "fchown file"), 0);
}

TEST_F(DurableFileTest, AFailedFlushLeavesTheOldContentAndNoTemporaryFile) {
    tk::writeFile(path_, "old");
    rewriteCalls().makeTemporary = [](char* pattern) {
        const int fd = tracedTemporary(pattern);
        g_failFsyncOf = fd;
        return fd;
    };
    const RewriteOutcome outcome = rewriteFileDurably(path_, "new", 0644);
    EXPECT_EQ(outcome.step, RewriteStep::Flush);
    EXPECT_EQ(outcome.error, EIO);
    EXPECT_EQ(tk::readFile(path_), "old");
    EXPECT_EQ(folderEntries(), std::vector<std::string>{"file.txt"});
    EXPECT_EQ(std::count(g_trace.begin(), g_trace.end(), "unlink file"), 1);
}

TEST_F(DurableFileTest, AFailedFolderFlushIsReportedAfterTheRename) {
    tk::writeFile(path_, "old");
    rewriteCalls().openFolder = [](const char* path) {
        const int fd = tracedFolder(path);
        g_failFsyncOf = fd;
        return fd;
    };
    const RewriteOutcome outcome = rewriteFileDurably(path_, "new", 0644);
    EXPECT_EQ(outcome.step, RewriteStep::FolderFlush);
    EXPECT_EQ(outcome.error, EIO);
    EXPECT_EQ(tk::readFile(path_), "new");
}

TEST_F(DurableFileTest, AnOwnerThatCannotBeKeptLeavesTheFileAlone) {
    tk::writeFile(path_, "old");
    rewriteCalls().fchown = [](int, uid_t, gid_t) {
        errno = EPERM;
        return -1;
    };
    const RewriteOutcome outcome = rewriteFileDurably(path_, "new", 0644);
    EXPECT_EQ(outcome.step, RewriteStep::Permissions);
    EXPECT_EQ(outcome.error, EPERM);
    EXPECT_EQ(tk::readFile(path_), "old");
    EXPECT_EQ(folderEntries(), std::vector<std::string>{"file.txt"});
}

TEST_F(DurableFileTest, ALinkIsFollowedAndItsTargetsFolderFlushed) {
    const std::string real =
        std::filesystem::canonical(tk::rooted("/var/tmp")).string() + "/real.txt";
    tk::writeFile(real, "old");
    ASSERT_EQ(::symlink(real.c_str(), path_.c_str()), 0);
    const RewriteOutcome outcome = rewriteFileDurably(path_, "new", 0644);
    EXPECT_TRUE(outcome.done());
    EXPECT_EQ(outcome.target, real);
    EXPECT_EQ(tk::readFile(real), "new");
    struct stat info;
    ASSERT_EQ(::lstat(path_.c_str(), &info), 0);
    EXPECT_TRUE(S_ISLNK(info.st_mode));
    EXPECT_EQ(std::count(g_trace.begin(), g_trace.end(),
                         "open folder " + real.substr(0, real.rfind('/'))),
              1);
}

} // namespace
