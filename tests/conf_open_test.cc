// Opening zel.conf under its advisory lock against real second processes,
// the bounded retries while the lock is held or the file is missing (timed
// by the test clock), and closing.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "conf/conf.h"
#include "conf/reader.h"
#include "support/Process.h"
#include "support/TestHost.h"

namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using zel::test::ChildControl;
using zel::test::ChildProcess;
using zel::test::FileOp;

constexpr uint64_t kLockPause = 200 * 1000;
constexpr uint64_t kNotFoundPause = 2 * 1000 * 1000;
constexpr int kHandleTimeoutMs = 300000;

class ConfOpenTest : public ::testing::Test {
 protected:
  ConfOpenTest() : path_(host_.Home() + "/zel.conf") {
    log_init(5);
    zel::test::WriteFile(path_, "generation 1\n");
  }
  ~ConfOpenTest() override { conf_close_file(&file_); }

  // A second process that holds the file's lock with `operation` until
  // the test ends.
  void LockElsewhere(int operation) {
    holder_ = std::make_unique<ChildProcess>([this, operation](ChildControl& control) {
      int fd = open(path_.c_str(), O_RDONLY);
      if (fd < 0 || flock(fd, operation) != 0) return 1;
      control.Ready();
      control.AwaitRelease();
      return 0;
    });
    ASSERT_TRUE(holder_->AwaitReady());
  }

  bool OtherProcessCanLock(int operation) {
    ChildProcess child([&](ChildControl&) {
      int fd = open(path_.c_str(), O_RDONLY);
      return fd >= 0 && flock(fd, operation | LOCK_NB) == 0 ? 0 : 1;
    });
    return child.Join() == 0;
  }

  std::vector<uint64_t> Pauses() { return host_.Clock().Sleeps(); }
  int Opens() { return host_.Files().Calls(FileOp::Open); }
  bool WasLogged(const std::string& text) { return host_.Log().Contains("ZELD: " + text); }
  std::vector<std::string> LoggedWith(const std::string& part) {
    std::vector<std::string> found;
    for (const std::string& line : host_.Log().Texts()) {
      if (line.find(part) != std::string::npos) found.push_back(line);
    }
    return found;
  }

  zel::test::ScopedTestHost host_;
  std::string path_;
  FileIODescriptor file_;
  std::unique_ptr<ChildProcess> holder_;
};

TEST_F(ConfOpenTest, SharedReadersHoldTheLockTogether) {
  LockElsewhere(LOCK_SH);

  EXPECT_EQ(0, conf_file_open_share_lock(path_.c_str(), &file_, kHandleTimeoutMs));
  EXPECT_THAT(Pauses(), IsEmpty());
  EXPECT_EQ(O_RDONLY, fcntl(file_.fd, F_GETFL) & O_ACCMODE);
  EXPECT_TRUE(OtherProcessCanLock(LOCK_SH));
  EXPECT_FALSE(OtherProcessCanLock(LOCK_EX));
  EXPECT_TRUE(WasLogged("requesting share lock for config file " + path_));
  EXPECT_TRUE(WasLogged("share lock succeeded for config file " + path_));
}

TEST_F(ConfOpenTest, ExclusiveLockExcludesEveryOtherHolder) {
  EXPECT_EQ(0, conf_file_open_exclusive_lock(path_.c_str(), &file_, kHandleTimeoutMs));
  EXPECT_EQ(O_RDWR, fcntl(file_.fd, F_GETFL) & O_ACCMODE);
  EXPECT_FALSE(OtherProcessCanLock(LOCK_SH));
  EXPECT_TRUE(WasLogged("requesting exclusive lock for config file " + path_));
  EXPECT_TRUE(WasLogged("exclusive lock succeeded for config file " + path_));
}

TEST_F(ConfOpenTest, ExclusiveOpenIsBlockedByASharedHolderElsewhere) {
  LockElsewhere(LOCK_SH);

  // 1000 ms allow five retries.
  EXPECT_EQ(FILEIO_LOCK_FAILED, conf_file_open_exclusive_lock(path_.c_str(), &file_, 1000));
  EXPECT_EQ(6, Opens());
  EXPECT_THAT(Pauses(), ElementsAre(kLockPause, kLockPause, kLockPause, kLockPause, kLockPause));
  EXPECT_FALSE(FileIO_IsValid(file_));
  EXPECT_TRUE(WasLogged("unable to open and lock config file " + path_ +
                        ": Resource temporarily unavailable"));
}

TEST_F(ConfOpenTest, LockHeldElsewhereGivesUpAfterLimit) {
  LockElsewhere(LOCK_EX);

  EXPECT_EQ(FILEIO_LOCK_FAILED,
            conf_file_open_share_lock(path_.c_str(), &file_, kHandleTimeoutMs));
  EXPECT_EQ(1501, Opens());
  EXPECT_THAT(Pauses(), SizeIs(1500));
  EXPECT_THAT(Pauses(), Each(kLockPause));
  EXPECT_TRUE(WasLogged("open failed for " + path_ +
                        " after 1500 lock retries and 0 not found retries due to error (" +
                        FileIO_MsgError(FILEIO_LOCK_FAILED) + ")."));
  EXPECT_TRUE(WasLogged("unable to open and lock config file " + path_ +
                        ": Resource temporarily unavailable"));
}

TEST_F(ConfOpenTest, MissingFileGivesUpAfterSixAttemptsTwoSecondsApart) {
  const std::string missing = host_.Home() + "/absent.conf";

  EXPECT_EQ(FILEIO_FILE_NOT_FOUND,
            conf_file_open_share_lock(missing.c_str(), &file_, kHandleTimeoutMs));
  EXPECT_EQ(6, Opens());
  EXPECT_THAT(Pauses(), ElementsAre(kNotFoundPause, kNotFoundPause, kNotFoundPause,
                                    kNotFoundPause, kNotFoundPause));
  EXPECT_TRUE(WasLogged("open failed for " + missing +
                        " after 0 lock retries and 5 not found retries due to error (" +
                        FileIO_MsgError(FILEIO_FILE_NOT_FOUND) + ")."));
  EXPECT_TRUE(WasLogged("unable to open and lock config file " + missing +
                        ": No such file or directory"));
}

TEST_F(ConfOpenTest, LockReleasedWhileWaitingIsTaken) {
  host_.Files().FailNext(FileOp::Open, FILEIO_LOCK_FAILED, 3, EWOULDBLOCK);

  EXPECT_EQ(0, conf_file_open_share_lock(path_.c_str(), &file_, kHandleTimeoutMs));
  EXPECT_TRUE(FileIO_IsValid(file_));
  EXPECT_THAT(Pauses(), ElementsAre(kLockPause, kLockPause, kLockPause));
  EXPECT_TRUE(WasLogged("open succeeded for " + path_ +
                        " after 3 lock retries and 0 not found retries"));
  EXPECT_THAT(LoggedWith("open failed"), IsEmpty());
}

TEST_F(ConfOpenTest, LockAndNotFoundRetriesAreCountedApart) {
  host_.Files().FailNext(FileOp::Open, FILEIO_FILE_NOT_FOUND, 2, ENOENT);
  host_.Files().FailNext(FileOp::Open, FILEIO_LOCK_FAILED, 3, EWOULDBLOCK);
  host_.Files().FailNext(FileOp::Open, FILEIO_FILE_NOT_FOUND, 4, ENOENT);

  // Five not-found retries are allowed in all, whatever came between them,
  // so the last of the nine failures ends the wait.
  EXPECT_EQ(FILEIO_FILE_NOT_FOUND,
            conf_file_open_share_lock(path_.c_str(), &file_, kHandleTimeoutMs));
  EXPECT_EQ(9, Opens());
  EXPECT_THAT(Pauses(), ElementsAre(kNotFoundPause, kNotFoundPause, kLockPause, kLockPause,
                                    kLockPause, kNotFoundPause, kNotFoundPause, kNotFoundPause));
  EXPECT_TRUE(WasLogged("open failed for " + path_ +
                        " after 3 lock retries and 5 not found retries due to error (" +
                        FileIO_MsgError(FILEIO_FILE_NOT_FOUND) + ")."));
}

TEST_F(ConfOpenTest, RetryLimitsFollowTheTimeLimitUpToTheirCaps) {
  struct Case {
    int timeoutMs;
    int lockRetries;
    int notFoundRetries;
  };
  // Lock: one retry per started 200 ms, at most 10 minutes' worth.
  // Not found: one per started 2 s, at most 10 s' worth. Each open fails
  // once more than it may retry; a wrong limit either stops early or
  // reaches the real file, which opens.
  for (const Case& c : {Case{0, 0, 0}, Case{1, 1, 1}, Case{200, 1, 1}, Case{201, 2, 1},
                        Case{2001, 11, 2}, Case{20 * 60 * 1000, 3000, 5}}) {
    host_.Files().FailNext(FileOp::Open, FILEIO_LOCK_FAILED, c.lockRetries + 1, EWOULDBLOCK);
    host_.Clock().ClearSleeps();
    EXPECT_EQ(FILEIO_LOCK_FAILED, conf_file_open_share_lock(path_.c_str(), &file_, c.timeoutMs))
        << c.timeoutMs;
    EXPECT_THAT(Pauses(), SizeIs(c.lockRetries)) << c.timeoutMs;

    host_.Files().FailNext(FileOp::Open, FILEIO_FILE_NOT_FOUND, c.notFoundRetries + 1, ENOENT);
    host_.Clock().ClearSleeps();
    EXPECT_EQ(FILEIO_FILE_NOT_FOUND,
              conf_file_open_share_lock(path_.c_str(), &file_, c.timeoutMs))
        << c.timeoutMs;
    EXPECT_THAT(Pauses(), SizeIs(c.notFoundRetries)) << c.timeoutMs;
  }
}

TEST_F(ConfOpenTest, OtherFailuresAreNotRetried) {
  host_.Files().FailNext(FileOp::Open, FILEIO_NO_PERMISSION, 1, EACCES);

  EXPECT_EQ(FILEIO_NO_PERMISSION,
            conf_file_open_exclusive_lock(path_.c_str(), &file_, kHandleTimeoutMs));
  EXPECT_EQ(1, Opens());
  EXPECT_THAT(Pauses(), IsEmpty());
  EXPECT_THAT(LoggedWith("open failed"), IsEmpty());
  EXPECT_TRUE(WasLogged("unable to open and lock config file " + path_ + ": Permission denied"));
}

TEST_F(ConfOpenTest, CloseReleasesTheLock) {
  ASSERT_EQ(0, conf_file_open_exclusive_lock(path_.c_str(), &file_, kHandleTimeoutMs));
  conf_close_file(&file_);

  EXPECT_FALSE(FileIO_IsValid(file_));
  EXPECT_TRUE(OtherProcessCanLock(LOCK_EX));
  EXPECT_TRUE(WasLogged("unlocked config file"));

  host_.Log().Clear();
  conf_close_file(&file_);
  EXPECT_THAT(LoggedWith("config file"), IsEmpty());
}

TEST_F(ConfOpenTest, FailedCloseIsLoggedWithItsError) {
  ASSERT_EQ(0, conf_file_open_share_lock(path_.c_str(), &file_, kHandleTimeoutMs));
  const int fd = file_.fd;
  host_.Files().FailNext(FileOp::Close, FILEIO_ERROR, 1, EIO);

  conf_close_file(&file_);
  EXPECT_TRUE(WasLogged("close failed for config file: Input/output error"));
  EXPECT_THAT(LoggedWith("unlocked"), IsEmpty());
  close(fd);
  FileIO_Invalidate(&file_);
}

}  // namespace
