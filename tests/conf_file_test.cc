// zel.conf on disk: opening it under its advisory lock against real second
// processes, the bounded retries while the lock is held or the file is
// missing (timed by the test clock); saving it (one generation per save,
// atomic swap, nothing partial or left behind after any failure); and the
// writer's templates, order and spacing, and what survives a round trip.
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "conf/ConfHandle.h"
#include "conf/reader.h"
#include "storage/DatastoreLayout.h"
#include "support/ConfText.h"
#include "support/Messages.h"
#include "support/Process.h"
#include "support/TestHost.h"

namespace zel {
namespace test {
namespace {

using HostCtl::Lib::Orva::OrvaCtlException;
using NokCtl::Orva::IscsiTarget::ConfHandle;
using NokCtl::Orva::IscsiTarget::Util::GetConfDirPath;
using NokCtl::Orva::IscsiTarget::Util::GetConfFilePath;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr uint64_t kLockPause = 200 * 1000;
constexpr uint64_t kNotFoundPause = 2 * 1000 * 1000;
constexpr int kHandleTimeoutMs = 300000;

const char kConf[] =
    "generation 7\n"
    "auth-group default {\n\t auth-type none\n}\n"
    "portal-group default {\n\t discovery-auth-group default\n\t listen nok0:3260\n}\n"
    "target iqn.2026-11.local.zel:a {\n\talias \"a\"\n\tportal-group default\n"
    "\tauth-group default\n}\n";

std::vector<std::string> ConfDirEntries() {
  std::vector<std::string> names;
  DIR* d = opendir(GetConfDirPath().c_str());
  while (struct dirent* entry = readdir(d)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(d);
  return names;
}

class ConfFileTest : public ::testing::Test {
 protected:
  ConfFileTest() {
    log_init(5);
    InstallConf(kConf);
  }
  ~ConfFileTest() override { conf_close_file(&file_); }
  // A second process that holds the file's lock with `operation` until
  // released or the test ends.
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
  ScopedTestHost host_;
  std::string path_ = GetConfFilePath();
  FileIODescriptor file_;
  std::unique_ptr<ChildProcess> holder_;
};

// ---- opening under the lock ------------------------------------------------------

TEST_F(ConfFileTest, SharedHoldersReadTogetherAndKeepAnEditorOut) {
  LockElsewhere(LOCK_SH);
  EXPECT_EQ(0, conf_file_open_share_lock(path_.c_str(), &file_, kHandleTimeoutMs));
  EXPECT_THAT(Pauses(), IsEmpty());
  EXPECT_EQ(O_RDONLY, fcntl(file_.fd, F_GETFL) & O_ACCMODE);
  EXPECT_TRUE(OtherProcessCanLock(LOCK_SH));
  EXPECT_FALSE(OtherProcessCanLock(LOCK_EX));
  EXPECT_TRUE(WasLogged("requesting share lock for config file " + path_));
  EXPECT_TRUE(WasLogged("share lock succeeded for config file " + path_));
  conf_close_file(&file_);
  // 1000 ms allow five retries.
  EXPECT_EQ(FILEIO_LOCK_FAILED, conf_file_open_exclusive_lock(path_.c_str(), &file_, 1000));
  EXPECT_EQ(7, Opens());
  EXPECT_THAT(Pauses(), ElementsAre(kLockPause, kLockPause, kLockPause, kLockPause, kLockPause));
  EXPECT_FALSE(FileIO_IsValid(file_));
  EXPECT_TRUE(WasLogged("unable to open and lock config file " + path_ +
                        ": Resource temporarily unavailable"));
  EXPECT_EQ(MessageOf([] { ConfHandle editor(ConfHandle::kExclusiveMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath()); }),
            "Parser: exclusive lock failed on " + path_);
  // Once the other process lets go, the editor gets in.
  holder_->Release();
  ASSERT_EQ(holder_->Join(), 0);
  ConfHandle editor(ConfHandle::kExclusiveMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
  EXPECT_EQ(editor.WriteConfFile(), 8u);
}

TEST_F(ConfFileTest, ExclusiveLockExcludesEveryOtherHolderUntilClosed) {
  EXPECT_EQ(0, conf_file_open_exclusive_lock(path_.c_str(), &file_, kHandleTimeoutMs));
  EXPECT_EQ(O_RDWR, fcntl(file_.fd, F_GETFL) & O_ACCMODE);
  EXPECT_FALSE(OtherProcessCanLock(LOCK_SH));
  EXPECT_TRUE(WasLogged("requesting exclusive lock for config file " + path_));
  EXPECT_TRUE(WasLogged("exclusive lock succeeded for config file " + path_));
  conf_close_file(&file_);
  EXPECT_FALSE(FileIO_IsValid(file_));
  EXPECT_TRUE(OtherProcessCanLock(LOCK_EX));
  EXPECT_TRUE(WasLogged("unlocked config file"));
  host_.Log().Clear();
  conf_close_file(&file_);
  EXPECT_THAT(LoggedWith("config file"), IsEmpty());
}

// The handle waits as long as its time limit allows: 1500 lock retries
// 200 ms apart, or 5 not-found retries 2 s apart.
TEST_F(ConfFileTest, HandleGivesUpAfterItsRetryLimits) {
  LockElsewhere(LOCK_EX);
  EXPECT_EQ(MessageOf([] { ConfHandle reader(ConfHandle::kShareMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath()); }),
            "Parser: share lock failed on " + path_);
  EXPECT_EQ(1501, Opens());
  EXPECT_EQ(Pauses(), std::vector<uint64_t>(1500, kLockPause));
  EXPECT_TRUE(WasLogged("open failed for " + path_ +
                        " after 1500 lock retries and 0 not found retries due to error (" +
                        FileIO_MsgError(FILEIO_LOCK_FAILED) + ")."));
  EXPECT_TRUE(WasLogged("unable to open and lock config file " + path_ +
                        ": Resource temporarily unavailable"));
  host_.Clock().ClearSleeps();
  ASSERT_EQ(unlink(path_.c_str()), 0);
  EXPECT_EQ(MessageOf([] { ConfHandle reader(ConfHandle::kShareMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath()); }),
            "Parser: share lock failed on " + path_);
  EXPECT_EQ(1507, Opens());
  EXPECT_EQ(Pauses(), std::vector<uint64_t>(5, kNotFoundPause));
  EXPECT_TRUE(WasLogged("open failed for " + path_ +
                        " after 0 lock retries and 5 not found retries due to error (" +
                        FileIO_MsgError(FILEIO_FILE_NOT_FOUND) + ")."));
  EXPECT_TRUE(WasLogged("unable to open and lock config file " + path_ +
                        ": No such file or directory"));
}

TEST_F(ConfFileTest, LockReleasedWhileWaitingIsTaken) {
  host_.Files().FailNext(FileOp::Open, FILEIO_LOCK_FAILED, 3, EWOULDBLOCK);
  EXPECT_EQ(0, conf_file_open_share_lock(path_.c_str(), &file_, kHandleTimeoutMs));
  EXPECT_TRUE(FileIO_IsValid(file_));
  EXPECT_THAT(Pauses(), ElementsAre(kLockPause, kLockPause, kLockPause));
  EXPECT_TRUE(WasLogged("open succeeded for " + path_ +
                        " after 3 lock retries and 0 not found retries"));
  EXPECT_THAT(LoggedWith("open failed"), IsEmpty());
}

TEST_F(ConfFileTest, LockAndNotFoundRetriesAreCountedApart) {
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

TEST_F(ConfFileTest, RetryLimitsFollowTheTimeLimitUpToTheirCaps) {
  struct Case {
    int timeoutMs;
    size_t lockRetries;
    size_t notFoundRetries;
  };
  // Lock: one retry per started 200 ms, at most 10 minutes' worth.
  // Not found: one per started 2 s, at most 10 s' worth. Each open fails
  // once more than it may retry; a wrong limit either stops early or
  // reaches the real file, which opens.
  for (const Case& c : {Case{0, 0, 0}, Case{1, 1, 1}, Case{200, 1, 1}, Case{201, 2, 1},
                        Case{2001, 11, 2}, Case{20 * 60 * 1000, 3000, 5}}) {
    SCOPED_TRACE(c.timeoutMs);
    for (const auto& [result, error, retries] :
         {std::tuple{FILEIO_LOCK_FAILED, EWOULDBLOCK, c.lockRetries},
          std::tuple{FILEIO_FILE_NOT_FOUND, ENOENT, c.notFoundRetries}}) {
      host_.Files().FailNext(FileOp::Open, result, static_cast<int>(retries) + 1, error);
      host_.Clock().ClearSleeps();
      EXPECT_EQ(result, conf_file_open_share_lock(path_.c_str(), &file_, c.timeoutMs));
      EXPECT_EQ(retries, Pauses().size());
    }
  }
}

TEST_F(ConfFileTest, OtherFailuresAreNotRetriedAndAFailedCloseIsLogged) {
  host_.Files().FailNext(FileOp::Open, FILEIO_NO_PERMISSION, 1, EACCES);
  EXPECT_EQ(FILEIO_NO_PERMISSION,
            conf_file_open_exclusive_lock(path_.c_str(), &file_, kHandleTimeoutMs));
  EXPECT_EQ(1, Opens());
  EXPECT_THAT(Pauses(), IsEmpty());
  EXPECT_THAT(LoggedWith("open failed"), IsEmpty());
  EXPECT_TRUE(WasLogged("unable to open and lock config file " + path_ + ": Permission denied"));
  ASSERT_EQ(0, conf_file_open_share_lock(path_.c_str(), &file_, kHandleTimeoutMs));
  const int fd = file_.fd;
  host_.Files().FailNext(FileOp::Close, FILEIO_ERROR, 1, EIO);
  conf_close_file(&file_);
  EXPECT_TRUE(WasLogged("close failed for config file: Input/output error"));
  EXPECT_THAT(LoggedWith("unlocked"), IsEmpty());
  close(fd);
  FileIO_Invalidate(&file_);
}

// ---- saving ----------------------------------------------------------------------

TEST_F(ConfFileTest, EachSaveRaisesTheGenerationByOneKeepingModeAndNoTemporary) {
  chmod(path_.c_str(), 0660);
  {
    ConfHandle handle(ConfHandle::kExclusiveMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
    EXPECT_EQ(handle.WriteConfFile(), 8u);
    EXPECT_EQ(handle.WriteConfFile(), 9u);
  }
  ConfHandle reread(ConfHandle::kShareMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
  EXPECT_EQ(reread.GetCurrentGenerationNum(), 9u);
  EXPECT_THAT(ReadFile(path_), ::testing::StartsWith("generation 9\n"));
  struct stat st;
  ASSERT_EQ(stat(path_.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0660u);
  EXPECT_THAT(ConfDirEntries(), ElementsAre("zel.conf"));
}

TEST_F(ConfFileTest, FailedSaveAtAnyStepLeavesThePreviousFileAndNoTemporary) {
  const std::string before = ReadFile(path_);
  struct Fault {
    FileOp op;
    const char* message;
  };
  // No file step fails in the last case: the writer does, mid-file, on a
  // secret too long to encode.
  for (const Fault& fault :
       {Fault{FileOp::AtomicTempFile, "Failed to create temp config file"},
        Fault{FileOp::Sync, "Failed to sync temp config"},
        Fault{FileOp::AtomicUpdate, "Failed to swap config and temp config"},
        Fault{FileOp::Open, "Base64_Encode failed: Unexpected encoding size"}}) {
    SCOPED_TRACE(fault.message);
    {
      ConfHandle handle(ConfHandle::kExclusiveMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
      target_new(handle.conf, "iqn.2026-11.local.zel:lost");
      if (fault.op == FileOp::Open) {
        auth_new_chap(auth_group_new(handle.conf, "long"), "u", std::string(24, 's').c_str(),
                      false);
      } else {
        host_.Files().FailNext(fault.op, FILEIO_ERROR);
      }
      EXPECT_EQ(MessageOf([&] { handle.WriteConfFile(); }), fault.message);
    }
    EXPECT_EQ(ReadFile(path_), before);
    EXPECT_THAT(ConfDirEntries(), ElementsAre("zel.conf"));
  }
  // A temporary that cannot be removed is only a warning.
  host_.Files().FailNext(FileOp::AtomicUpdate, FILEIO_ERROR);
  host_.Files().FailNext(FileOp::CloseAndUnlink, FILEIO_ERROR);
  ConfHandle handle(ConfHandle::kExclusiveMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
  EXPECT_EQ(MessageOf([&] { handle.WriteConfFile(); }), "Failed to swap config and temp config");
  EXPECT_TRUE(host_.Log().Contains("Parser: Failed to remove temp config file"));
}

TEST_F(ConfFileTest, BackupHoldsTheSameTextWithTheGenerationUnchanged) {
  ConfHandle handle(ConfHandle::kShareMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
  handle.UpdateBackupConfigFile(NokCtl::Orva::IscsiTarget::Util::GetBackupConfFilePath());
  EXPECT_EQ(ReadFile(host_.Config().backupConfPath), WrittenText(handle));
  EXPECT_EQ(handle.GetCurrentGenerationNum(), 7u);
  ASSERT_EQ(unlink(host_.Config().backupConfPath.c_str()), 0);
  WriteFile(host_.Config().backupConfPath + "/blocker", "");
  EXPECT_EQ(MessageOf([&] { handle.UpdateBackupConfigFile(NokCtl::Orva::IscsiTarget::Util::GetBackupConfFilePath()); }),
            "Failed to open backup config file: Is a directory");
}

TEST_F(ConfFileTest, ReadersInAnotherProcessNeverSeeAPartialFile) {
  // The test clock makes lock waits spin instead of pause, so either side
  // may give up on a busy lock; only what a successful read sees matters.
  constexpr int kSaves = 150;
  ChildProcess writer([&](ChildControl& control) {
    control.Ready();
    for (int saved = 0; saved < kSaves;) {
      try {
        ConfHandle handle(ConfHandle::kExclusiveMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
        target_new(handle.conf, ("iqn.2026-11.local.zel:t" + std::to_string(saved)).c_str());
        handle.WriteConfFile();
        ++saved;
      } catch (const OrvaCtlException&) {
      }
    }
    return 0;
  });
  ASSERT_TRUE(writer.AwaitReady());
  uint64_t last = 0;
  int reads = 0;
  for (int i = 0; i < 2 * kSaves; ++i) {
    try {
      ConfHandle reader(ConfHandle::kShareMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
      const uint64_t generation = reader.GetCurrentGenerationNum();
      ASSERT_GE(generation, last);
      // Every save adds one target: a whole file has exactly as many.
      int targets = 0;
      const struct target* t;
      TAILQ_FOREACH(t, &reader.conf->conf_targets, t_next) ++targets;
      ASSERT_EQ(targets, static_cast<int>(generation - 7) + 1);
      last = generation;
      ++reads;
    } catch (const OrvaCtlException& e) {
      ASSERT_EQ(e.GetMessage(), "Parser: share lock failed on " + path_);
    }
  }
  EXPECT_EQ(writer.Join(), 0);
  EXPECT_GT(reads, 0);
  ConfHandle final(ConfHandle::kShareMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
  EXPECT_EQ(final.GetCurrentGenerationNum(), 7u + kSaves);
}

// ---- the writer ------------------------------------------------------------------

TEST_F(ConfFileTest, WriterWritesEverySectionInFixedOrderAndSpacing) {
  InstallConf(
      "option zeld-flag on\ngeneration 41\n"
      "portal-group pg-a {\n  discovery-auth-group default\n  listen nok1:3261\n"
      "  listen nok2:3262\n}\n"
      "initiator-group ig1 {\n  initiator-name iqn.2024-01.org.example:one\n"
      "  initiator iqn.2024-01.org.example:two\n}\n"
      "auth-group default {\n  auth-type none\n}\n"
      "auth-group grp {\n  chap \"u1\" \"QWJjZGVmZ2gjMTIz\"\n  initiator-group ig1\n"
      "  initiator-name iqn.2024-01.org.example:three\n}\n"
      "target IQN.2026-11.Local.Zel:Mixed {\n  alias \"Mixed Case\"\n  portal-group pg-a\n"
      "  auth-group grp\n  option uuid 3fb2b402-cfcb-4738-9622-3a566bb58dbf\n"
      "  lun 5 {\n    backend block\n    path a/b.qdsk\n    size 16\n"
      "    option lun-alias \"x y\"\n  }\n"
      "  lun 1 {\n    path a/c.qdsk\n    size 8\n  }\n}\n");
  ConfHandle handle(ConfHandle::kShareMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
  EXPECT_EQ(WrittenText(handle),
            "generation 41\noption zeld-flag on\n"
            "initiator-group ig1 {\n\t initiator iqn.2024-01.org.example:one \n"
            "\t initiator iqn.2024-01.org.example:two \n}\n"
            "auth-group default {\n\t auth-type none\n}\n"
            "auth-group grp {\n\t chap \"u1\" \"QWJjZGVmZ2gjMTIz\" \n\t initiator-group ig1\n"
            "\t initiator-name iqn.2024-01.org.example:three\n}\n"
            "portal-group default {\n\t discovery-auth-group default\n\t listen nok0:3260\n}\n"
            "portal-group pg-a {\n\t discovery-auth-group default\n\t listen nok1:3261\n}\n"
            "target iqn.2026-11.local.zel:mixed {\n\talias \"Mixed Case\"\n"
            "\tportal-group pg-a\n\tauth-group grp\n"
            "\toption uuid 3fb2b402-cfcb-4738-9622-3a566bb58dbf\n"
            "\tlun 1 {\n\t\tbackend block\n\t\tpath a/c.qdsk\n\t\tsize 8\n\t}\n"
            "\tlun 5 {\n\t\tbackend block\n\t\tpath a/b.qdsk\n\t\tsize 16\n"
            "\t\toption lun-alias \"x y\"\n\t}\n}\n");
}

TEST_F(ConfFileTest, WriterDetails) {
  InstallConf("generation 1\nauth-group g {\n chap \"u\" \"QWJjZGVmZ2gjMTIz\"\n}\n");
  ConfHandle handle(ConfHandle::kShareMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
  // A none group holding a credential has no line end.
  auth_group_find(handle.conf, "g")->ag_type = AG_TYPE_NO_AUTHENTICATION;
  // Only the first listen that has a host is written.
  struct portal_group* pg = portal_group_new(handle.conf, "pg-three");
  portal_new(pg);
  ASSERT_EQ(portal_group_add_listen(pg, "nok3:3300", false), 0);
  ASSERT_EQ(portal_group_add_listen(pg, "nok4:3301", false), 0);
  auth_new_chap_mutual(auth_group_new(handle.conf, "m"), "out", "Abcdefgh#123", "in",
                       "Zyxwvuts#987", false);
  auth_new_chap(auth_group_new(handle.conf, "ok"), "u", std::string(21, 'a').c_str(), false);
  host_.Log().Clear();
  const std::string text = WrittenText(handle);
  EXPECT_THAT(text, HasSubstr("auth-group g {\n\t auth-type none}\n"));
  EXPECT_THAT(text, HasSubstr("portal-group pg-three {\n\t listen nok3:3300\n}\n"));
  EXPECT_THAT(
      text, HasSubstr("\t chap-mutual \"out\" \"QWJjZGVmZ2gjMTIz\" \"in\" \"Wnl4d3Z1dHMjOTg3\"\n"));
  // Built-in groups are skipped with an info line; the unconfigured default
  // group denies, yet has no credential to write.
  EXPECT_THAT(text, ::testing::Not(HasSubstr("no-authentication")));
  EXPECT_THAT(text, ::testing::Not(HasSubstr("no-access")));
  EXPECT_THAT(text, HasSubstr("auth-group default {\n\t auth-type none\n}\n"));
  const std::vector<std::string> lines = host_.Log().Texts();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "ConfHandle: Skipping default auth group"), 2);
  // 21 bytes encode to 28 characters; 22 would need 32, one more than fits.
  auth_new_chap(auth_group_new(handle.conf, "long"), "u", std::string(22, 'a').c_str(), false);
  EXPECT_EQ(MessageOf([&] { WrittenText(handle); }),
            "Base64_Encode failed: Unexpected encoding size");
}

TEST_F(ConfFileTest, TargetWithPrivateCredentialsIsRefusedNotWrittenWrong) {
  InstallConf("generation 1\ntarget iqn.2026-11.local.zel:t {\n auth-type none\n}\n");
  ConfHandle handle(ConfHandle::kShareMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
  EXPECT_THROW(WrittenText(handle), OrvaCtlException);
}

TEST_F(ConfFileTest, ReadWriteReadWriteGivesIdenticalText) {
  const std::string sample = ReadFile(std::string(ZEL_SAMPLES_DIR) + "/zel.conf");
  InstallConf(sample);
  std::string first;
  {
    ConfHandle handle(ConfHandle::kShareMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
    first = WrittenText(handle);
  }
  InstallConf(first);
  ConfHandle again(ConfHandle::kShareMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
  EXPECT_EQ(WrittenText(again), first);
  EXPECT_EQ(first, sample);  // the sample is kept in the writer's own shape
}

}  // namespace
}  // namespace test
}  // namespace zel
