// zel.conf on disk: its lock against real second processes, bounded retries
// (test clock), atomic saves, the writer's shape, and the reader: entries,
// refusals and their reports, nothing left behind.
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
#include <utility>
#include <string>
#include <vector>

#include "conf/ConfHandle.h"
#include "conf/reader.h"
#include "conf/reader_state.h"
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
using NokCtl::Orva::IscsiTarget::Util::GetBackupConfFilePath;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

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
int OpenDescriptors() {
  int count = 0;
  DIR* dir = opendir("/proc/self/fd");
  while (readdir(dir) != nullptr) ++count;
  closedir(dir);
  return count;
}
class ConfFileTest : public ::testing::Test {
 protected:
  ConfFileTest() {
    log_init(5);
    InstallConf(kConf);
  }
  ~ConfFileTest() override { conf_close_file(&file_); }
  // A second process holding the lock with `operation` until released.
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
  // The configuration layer's lines mentioning `part`, without "ZELD: ".
  std::vector<std::string> LoggedWith(const std::string& part = "") {
    std::vector<std::string> lines;
    for (const std::string& line : host_.Log().Texts()) {
      if (line.rfind("ZELD: ", 0) == 0 && line.find(part) != std::string::npos)
        lines.push_back(line.substr(6));
    }
    return lines;
  }
  ScopedTestHost host_;
  std::string path_ = GetConfFilePath();
  FileIODescriptor file_;
  std::unique_ptr<ChildProcess> holder_;
};

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
  // Retry counts are RetryLimitsFollowTheTimeLimitUpToTheirCaps' to check.
  EXPECT_EQ(FILEIO_LOCK_FAILED, conf_file_open_exclusive_lock(path_.c_str(), &file_, 1000));
  EXPECT_FALSE(FileIO_IsValid(file_));
  EXPECT_EQ(MessageOf([] { ConfHandle editor(ConfHandle::kExclusiveMode, GetConfFilePath()); }),
            "Parser: exclusive lock failed on " + path_);
  // Once the other process lets go, the editor gets in.
  holder_->Release();
  ASSERT_EQ(holder_->Join(), 0);
  ConfHandle editor(ConfHandle::kExclusiveMode, GetConfFilePath());
  EXPECT_EQ(editor.WriteConfFile(), 8u);
}
TEST_F(ConfFileTest, ExclusiveLockExcludesEveryOtherHolderUntilClosedReadingOrNot) {
  EXPECT_EQ(0, conf_file_open_exclusive_lock(path_.c_str(), &file_, kHandleTimeoutMs));
  EXPECT_EQ(O_RDWR, fcntl(file_.fd, F_GETFL) & O_ACCMODE);
  // Reading keeps the descriptor open; a second read starts from the top.
  const int descriptors = OpenDescriptors();
  for (int read = 0; read < 2; ++read) {
    struct conf* conf = conf_new_from_file(&file_, nullptr);
    ASSERT_NE(nullptr, conf);
    EXPECT_EQ(7u, conf->conf_generation);
    conf_delete(conf);
  }
  EXPECT_EQ(descriptors, OpenDescriptors());
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
// The handle waits 300 s: 1500 lock retries 200 ms apart (its not-found limit,
// 5 at any wait this long, is LockAndNotFoundRetriesAreCountedApart's).
TEST_F(ConfFileTest, HandleGivesUpAfterItsRetryLimit) {
  LockElsewhere(LOCK_EX);
  EXPECT_EQ(MessageOf([] { ConfHandle reader(ConfHandle::kShareMode, GetConfFilePath()); }),
            "Parser: share lock failed on " + path_);
  EXPECT_EQ(1501, Opens());
  EXPECT_EQ(Pauses(), std::vector<uint64_t>(1500, kLockPause));
  EXPECT_TRUE(WasLogged("open failed for " + path_ +
                        " after 1500 lock retries and 0 not found retries due to error (" +
                        FileIO_MsgError(FILEIO_LOCK_FAILED) + ")."));
  EXPECT_TRUE(WasLogged("unable to open and lock config file " + path_ +
                        ": Resource temporarily unavailable"));
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
  // Five not-found retries in all, whatever came between: the ninth failure ends it.
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
  // One lock retry per started 200 ms up to 10 min, one not-found retry per 2 s up to 10 s.
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
TEST_F(ConfFileTest, EachSaveRaisesTheGenerationByOneKeepingModeAndNoTemporary) {
  chmod(path_.c_str(), 0660);
  {
    ConfHandle handle(ConfHandle::kExclusiveMode, GetConfFilePath());
    EXPECT_EQ(handle.WriteConfFile(), 8u);
    EXPECT_EQ(handle.WriteConfFile(), 9u);
  }
  ConfHandle reread(ConfHandle::kShareMode, GetConfFilePath());
  EXPECT_EQ(reread.GetCurrentGenerationNum(), 9u);
  EXPECT_THAT(ReadFile(path_), StartsWith("generation 9\n"));
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
  // Last case: the writer fails mid-file on a secret too long to encode.
  for (const Fault& fault :
       {Fault{FileOp::AtomicTempFile, "Failed to create temp config file"},
        Fault{FileOp::Sync, "Failed to sync temp config"},
        Fault{FileOp::AtomicUpdate, "Failed to swap config and temp config"},
        Fault{FileOp::Open, "Base64_Encode failed: Unexpected encoding size"}}) {
    SCOPED_TRACE(fault.message);
    {
      ConfHandle handle(ConfHandle::kExclusiveMode, GetConfFilePath());
      target_new(handle.conf, "iqn.2026-11.local.zel:lost");
      if (fault.op == FileOp::Open) {
        // 22 bytes need 32 characters, one more than fits (21 pass in WriterDetails).
        auth_new_chap(auth_group_new(handle.conf, "long"), "u", std::string(22, 's').c_str(),
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
  ConfHandle handle(ConfHandle::kExclusiveMode, GetConfFilePath());
  EXPECT_EQ(MessageOf([&] { handle.WriteConfFile(); }), "Failed to swap config and temp config");
  EXPECT_TRUE(host_.Log().Contains("Parser: Failed to remove temp config file"));
}
TEST_F(ConfFileTest, BackupHoldsTheSameTextWithTheGenerationUnchanged) {
  ConfHandle handle(ConfHandle::kShareMode, GetConfFilePath());
  handle.UpdateBackupConfigFile(GetBackupConfFilePath());
  EXPECT_EQ(ReadFile(host_.Config().backupConfPath), WrittenText(handle));
  EXPECT_EQ(handle.GetCurrentGenerationNum(), 7u);
  ASSERT_EQ(unlink(host_.Config().backupConfPath.c_str()), 0);
  WriteFile(host_.Config().backupConfPath + "/blocker", "");
  EXPECT_EQ(MessageOf([&] { handle.UpdateBackupConfigFile(GetBackupConfFilePath()); }),
            "Failed to open backup config file: Is a directory");
}
TEST_F(ConfFileTest, ReadersInAnotherProcessNeverSeeAPartialFile) {
  // Each save adds a target: a whole file holds generation - 6. Lock waits may give up.
  constexpr int kSaves = 150;
  ChildProcess writer([&](ChildControl& control) {
    control.Ready();
    for (int saved = 0; saved < kSaves;) {
      try {
        ConfHandle handle(ConfHandle::kExclusiveMode, GetConfFilePath());
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
      ConfHandle reader(ConfHandle::kShareMode, GetConfFilePath());
      const uint64_t generation = reader.GetCurrentGenerationNum();
      ASSERT_GE(generation, last);
      int targets = 0;
      const struct target* t;
      TAILQ_FOREACH(t, &reader.conf->conf_targets, t_next) ++targets;
      ASSERT_EQ(targets, static_cast<int>(generation) - 6);
      last = generation;
      ++reads;
    } catch (const OrvaCtlException& e) {
      ASSERT_EQ(e.GetMessage(), "Parser: share lock failed on " + path_);
    }
  }
  EXPECT_EQ(writer.Join(), 0);
  EXPECT_GT(reads, 0);
  EXPECT_EQ(ConfHandle(ConfHandle::kShareMode, GetConfFilePath()).GetCurrentGenerationNum(),
            7u + kSaves);
}
// The sample is kept in the writer's own shape. Read with its sections out of
// order, its LUNs swapped, a target name in upper case, the default portal
// group left to the reader, "initiator-name" in a group and other spacing, it
// must still be written back as the sample.
TEST_F(ConfFileTest, WriterGivesTheSampleBackFromAnyEquivalentText) {
  const std::string sample = ReadFile(std::string(ZEL_SAMPLES_DIR) + "/zel.conf");
  const auto cut = [&](const std::string& from, const std::string& to) {
    const size_t at = sample.find(from);
    return sample.substr(at, (to.empty() ? sample.size() : sample.find(to)) - at);
  };
  std::string targets = cut("target ", "");
  const size_t lun0 = targets.find("\tlun 0 {");
  const std::string lun0Block = targets.substr(lun0, targets.find("\tlun 1 {") - lun0);
  targets.erase(lun0, lun0Block.size());
  targets.insert(targets.find("}\ntarget"), lun0Block);
  targets.replace(0, targets.find(" {"), "target IQN.2026-11.Local.Zel:Finance");
  std::string groups = cut("initiator-group", "auth-group default");
  groups.replace(groups.find("initiator "), 10, "initiator-name ");
  std::string shuffled = "option zeld-flag on\n" + cut("portal-group pg-", "target ") + groups +
                         cut("auth-group default", "portal-group default") + "generation 7\n" +
                         targets;
  for (size_t tab = shuffled.find('\t'); tab != std::string::npos; tab = shuffled.find('\t'))
    shuffled.replace(tab, 1, "  ");
  const std::string withOption = "generation 7\noption zeld-flag on\n" + sample.substr(13);
  for (const auto& [text, expected] : {std::pair{shuffled, withOption}, std::pair{sample, sample}}) {
    InstallConf(text);
    ConfHandle handle(ConfHandle::kShareMode, GetConfFilePath());
    EXPECT_EQ(WrittenText(handle), expected) << text;
  }
}
TEST_F(ConfFileTest, WriterDetails) {
  InstallConf("generation 1\nauth-group g {\n chap \"u\" \"QWJjZGVmZ2gjMTIz\"\n}\n");
  ConfHandle handle(ConfHandle::kShareMode, GetConfFilePath());
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
  // Built-in groups are skipped with an info line; the default one has no credential.
  EXPECT_THAT(text, ::testing::Not(HasSubstr("no-authentication")));
  EXPECT_THAT(text, ::testing::Not(HasSubstr("no-access")));
  EXPECT_THAT(text, HasSubstr("auth-group default {\n\t auth-type none\n}\n"));
  const std::vector<std::string> lines = host_.Log().Texts();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "ConfHandle: Skipping default auth group"), 2);
}
TEST_F(ConfFileTest, TargetWithPrivateCredentialsIsRefusedNotWrittenWrong) {
  InstallConf("generation 1\ntarget iqn.2026-11.local.zel:t {\n auth-type none\n}\n");
  ConfHandle handle(ConfHandle::kShareMode, GetConfFilePath());
  EXPECT_THROW(WrittenText(handle), OrvaCtlException);
}

const std::string kTarget = "target iqn.2024-01.org.example:t {\n";
const std::string kTargetName = "\"iqn.2024-01.org.example:t\"";
const std::string kLun0 = "\"iqn.2024-01.org.example:t,L,0x0000000000000000\"";

std::string InTarget(const std::string& entries) { return kTarget + entries + "}\n"; }
std::string InLun(const std::string& entries) { return InTarget(" lun 0 {\n" + entries + "}\n"); }
std::string Twice(const std::string& what) {
  return what + " for target " + kTargetName + " specified more than once";
}
std::string TwiceInLun(const std::string& what) {
  return what + " for lun " + kLun0 + " specified more than once";
}
std::string Both(const std::string& what) {
  return "cannot use both auth-group and " + what + " for target " + kTargetName;
}
// zel.conf as a real file, read under the shared lock the way ConfHandle reads it.
class ReaderTest : public ConfFileTest {
 protected:
  ~ReaderTest() override {
    if (conf_ != nullptr) conf_delete(conf_);
  }
  // Null when refused; `old` may lend its ports; exceptions pass after ConfHandle's cleanup.
  struct conf* Read(const std::string& text, int mode = 0600, struct conf* old = nullptr) {
    WriteFile(path_, text, mode);
    if (conf_ != nullptr) conf_delete(conf_);
    conf_ = nullptr;
    FileIODescriptor file;
    EXPECT_EQ(0, conf_file_open_share_lock(path_.c_str(), &file, 300000));
    try {
      conf_ = conf_new_from_file(&file, old);
    } catch (...) {
      ZeldCleanConf();
      conf_close_file(&file);
      throw;
    }
    conf_close_file(&file);
    return conf_;
  }
  static std::vector<std::string> Listens(const struct portal_group* pg) {
    std::vector<std::string> listens;
    const struct portal* portal;
    TAILQ_FOREACH(portal, &pg->pg_portals, p_next) {
      listens.push_back(std::string(portal->p_host) + ":" + portal->p_port +
                        (portal->p_iser ? " iser" : ""));
    }
    return listens;
  }
  // The one lun of a single-lun file.
  struct lun* OnlyLun(const std::string& entries) {
    EXPECT_NE(nullptr, Read(kTarget + " lun 0 {\n" + entries + "\n }\n}\n"));
    return conf_ == nullptr ? nullptr : TAILQ_FIRST(&conf_->conf_luns);
  }
  // The error report's first line and dump for a refused `text`.
  std::vector<std::string> ReportFor(const std::string& text) {
    host_.Log().Clear();
    EXPECT_EQ(nullptr, Read(text));
    std::vector<std::string> report;
    bool in_report = false;
    for (const std::string& line : LoggedWith()) {
      if (line.rfind("error in configuration file", 0) == 0) in_report = true;
      if (line.rfind("Failed to parse config file", 0) == 0) in_report = false;
      if (in_report) report.push_back(line);
    }
    return report;
  }
  // The reader's exception for `path`, checking what ZeldCleanConf finds and removes.
  std::string ThrownReading(const std::string& path) {
    const int descriptors = OpenDescriptors();
    FileIODescriptor file;
    EXPECT_EQ(0, conf_file_open_share_lock(path.c_str(), &file, 300000));
    std::string message = "(nothing thrown)";
    try {
      conf_delete(conf_new_from_file(&file, nullptr));
    } catch (const HostCtl::Lib::Orva::OrvaCtlException& e) {
      message = e.GetMessage();
      EXPECT_NE(nullptr, zeld_reader.conf) << "the partial conf is ZeldCleanConf's to delete";
      EXPECT_EQ(nullptr, zeld_reader.source) << "the stream is closed before the rethrow";
      ZeldCleanConf();
    }
    EXPECT_EQ(nullptr, zeld_reader.conf);
    EXPECT_EQ(nullptr, zeld_reader.auth_group);
    EXPECT_EQ(nullptr, zeld_reader.target);
    conf_close_file(&file);
    EXPECT_EQ(descriptors, OpenDescriptors());
    return message;
  }
  struct conf* conf_ = nullptr;
};

TEST_F(ReaderTest, TopLevelStatementsFillTheConf) {
  ASSERT_NE(nullptr, Read("generation 0x10\ndebug 3\ntimeout 30\nmaxproc 8\n"
                          "isns-server 192.0.2.7\nisns-period 1k\nisns-timeout 9\n"));
  EXPECT_EQ((std::vector<uint64_t>{16, 3, 30, 8, 1024, 9, 1}),
            (std::vector<uint64_t>{conf_->conf_generation, conf_->conf_debug, conf_->conf_timeout,
                                   conf_->conf_maxproc, conf_->conf_isns_period,
                                   conf_->conf_isns_timeout,
                                   static_cast<uint64_t>(conf_->conf_read_from_file)}));
  EXPECT_STREQ("192.0.2.7", TAILQ_FIRST(&conf_->conf_isns)->i_addr);
  EXPECT_TRUE(WasLogged("obtaining configuration from " + path_));
}
// Undefined default groups deny all and listen on nok0; defined ones fill the built-ins.
TEST_F(ReaderTest, DefaultGroupsAreBuiltInUnlessTheFileDefinesThem) {
  for (const bool defined : {false, true}) {
    host_.Log().Clear();
    ASSERT_NE(nullptr, Read(defined ? "auth-group default {\n auth-type none\n}\n"
                                      "portal-group default {\n listen nok1:3261\n}\n"
                                    : ""));
    EXPECT_EQ(defined ? AG_TYPE_NO_AUTHENTICATION : AG_TYPE_DENY,
              auth_group_find(conf_, "default")->ag_type);
    EXPECT_EQ(AG_TYPE_NO_AUTHENTICATION, auth_group_find(conf_, "no-authentication")->ag_type);
    EXPECT_EQ(AG_TYPE_DENY, auth_group_find(conf_, "no-access")->ag_type);
    EXPECT_THAT(Listens(portal_group_find(conf_, "default")),
                ElementsAre(defined ? "nok1:3261" : "nok0:3260"));
    int defaults = 0;
    const struct auth_group* ag;
    TAILQ_FOREACH(ag, &conf_->conf_auth_groups, ag_next)
    defaults += ag->ag_name != nullptr && std::string(ag->ag_name) == "default";
    EXPECT_EQ(1, defaults);
    EXPECT_EQ(defined ? 2 : 0, !!conf_->conf_default_ag_defined + !!conf_->conf_default_pg_defined);
    const std::vector<std::string> going = {
        "auth-group \"default\" not defined; going with defaults",
        "portal-group \"default\" not defined; going with defaults"};
    EXPECT_EQ(LoggedWith("going with defaults"), defined ? std::vector<std::string>{} : going);
  }
}
TEST_F(ReaderTest, PortalGroupEntriesSetTheGroup) {
  ASSERT_NE(nullptr, Read("auth-group disc {\n auth-type none\n}\n"
                          "portal-group pg {\n discovery-auth-group disc\n"
                          " discovery-filter portal-name\n foreign\n listen 192.0.2.1\n"
                          " listen-iser [2001:db8::1]:3261\n option ha on\n redirect 192.0.2.9\n"
                          " tag 0xffff\n}\n"));
  const struct portal_group* pg = portal_group_find(conf_, "pg");
  EXPECT_EQ(auth_group_find(conf_, "disc"), pg->pg_discovery_auth_group);
  EXPECT_EQ(PG_FILTER_PORTAL_NAME, pg->pg_discovery_filter);
  EXPECT_TRUE(pg->pg_foreign);
  EXPECT_THAT(Listens(pg), ElementsAre("192.0.2.1:3260", "2001:db8::1:3261 iser"));
  EXPECT_STREQ("on", option_find(&pg->pg_options, "ha")->o_value);
  EXPECT_STREQ("192.0.2.9", pg->pg_redirection);
  EXPECT_EQ(0xffff, pg->pg_tag);
}
TEST_F(ReaderTest, TargetEntriesLinkPortGroupsAndLuns) {
  ASSERT_NE(nullptr, Read("auth-group port-ag {\n auth-type none\n}\n"
                          "portal-group pg {\n listen nok1\n}\n"
                          "target IQN.2024-01.Org.Example:Mixed {\n portal-group pg port-ag\n"
                          " lun 5 {\n  path 3fb2b402/disk.qdsk\n }\n}\n"));
  struct target* target = target_find(conf_, "iqn.2024-01.org.example:mixed");
  const struct port* port = zeld_target_to_port(target);
  ASSERT_NE(nullptr, port);
  EXPECT_EQ(portal_group_find(conf_, "pg"), port->p_portal_group);
  EXPECT_EQ(auth_group_find(conf_, "port-ag"), port->p_auth_group);
  const struct lun* lun = target->t_luns[5];
  ASSERT_NE(nullptr, lun);
  EXPECT_STREQ("iqn.2024-01.org.example:mixed,L,0x0000000000000005", lun->l_name);
  EXPECT_EQ(5u, lun->l_zeld_lun);
  EXPECT_EQ(1, std::count_if(target->t_luns, target->t_luns + ZELD_MAX_LUNS,
                             [](const struct lun* l) { return l != nullptr; }));
}
TEST_F(ReaderTest, TargetAuthorisationEntriesMakeItsOwnUnnamedGroup) {
  ASSERT_NE(nullptr, Read(kTarget + " chap-mutual u1 QWJjZGVmZ2gjMTIz u2 UXJzdHV2d3gjNDU2\n"
                                    " initiator-name iqn.2024-01.org.example:host\n"
                                    " initiator-portal 192.0.2.0/24\n}\n"));
  const struct target* target = TAILQ_FIRST(&conf_->conf_targets);
  const struct auth_group* own = target->t_auth_group;
  ASSERT_NE(nullptr, own);
  EXPECT_EQ(nullptr, own->ag_name);
  EXPECT_EQ(target, own->ag_target);
  EXPECT_EQ(AG_TYPE_CHAP_MUTUAL, own->ag_type);
  EXPECT_NE(nullptr, auth_name_find(own, "iqn.2024-01.org.example:host"));
  EXPECT_TRUE(auth_portal_defined(own));
}
TEST_F(ReaderTest, LunsMayBeDefinedOutsideAndPortsLentByTheOldConf) {
  struct conf* old = conf_new();
  pport_new(old, "pp0", 42);
  ASSERT_NE(nullptr, Read("lun shared-disk {\n path a/shared.qdsk\n}\n" + kTarget +
                              " lun 7 shared-disk\n port pp0\n}\n",
                          0600, old));
  conf_delete(old);
  const struct target* target = TAILQ_FIRST(&conf_->conf_targets);
  EXPECT_EQ(lun_find(conf_, "shared-disk"), target->t_luns[7]);
  const struct pport* pp = pport_find(conf_, "pp0");
  ASSERT_NE(nullptr, pp);
  EXPECT_EQ(42u, pp->pp_ctl_port);
  EXPECT_EQ(target, TAILQ_FIRST(&pp->pp_ports)->p_target);
}
// Device types take names in any case or numbers up to 15.
TEST_F(ReaderTest, LunEntriesAreStored) {
  struct lun* lun = OnlyLun("path p\ndevice-id \"dev 1\"\nserial SN0001\nctl-lun 12\n"
                            "blocksize 4096\nsize 4k");
  ASSERT_NE(nullptr, lun);
  EXPECT_EQ("dev 1 SN0001", std::string(lun->l_device_id) + " " + lun->l_serial);
  EXPECT_EQ((std::vector<uint64_t>{12, 4096, 4096}),
            (std::vector<uint64_t>{lun->l_ctl_lun, static_cast<uint64_t>(lun->l_blocksize),
                                   lun->l_size}));
  const std::vector<std::pair<std::string, int>> cases = {
      {"disk", 0}, {"DIRECT", 0}, {"Processor", 3}, {"cd", 5},   {"cdrom", 5},
      {"dvd", 5},  {"DVDROM", 5}, {"7", 7},         {"0xf", 15}, {"0", 0}};
  for (const auto& [word, type] : cases) {
    struct lun* lun = OnlyLun("path p\ndevice-type " + word);
    ASSERT_NE(nullptr, lun) << word;
    EXPECT_EQ(type, lun->l_device_type) << word;
  }
}
TEST_F(ReaderTest, ScannerSpellings) {
  // Semicolons may end any statement or entry.
  ASSERT_NE(nullptr, Read("generation 7;\n"
                          "initiator-group ig { initiator iqn.2024-01.org.example:a; };\n"
                          "auth-group ag { auth-type none; initiator-group ig; };\n"
                          "portal-group pg { listen nok1; tag 2; };\n"
                          "target iqn.2024-01.org.example:t { portal-group pg; "
                          "auth-group ag; lun 0 { path p; size 8; }; };\n"));
  EXPECT_EQ(7u, conf_->conf_generation);
  EXPECT_NE(nullptr, TAILQ_FIRST(&conf_->conf_targets)->t_luns[0]);
  // Keywords are lower case only; quoting makes any text a word.
  ASSERT_NE(nullptr, Read("option ALIAS \"target {x}\"\n"));
  EXPECT_STREQ("target {x}", conf_option_find(conf_, "ALIAS")->co_value);
  ASSERT_NE(nullptr, Read("option \"lun\" \"\"\n"));
  EXPECT_STREQ("", conf_option_find(conf_, "lun")->co_value);
  // LUN names with commas are words.
  ASSERT_NE(nullptr, Read("lun iqn.2024-01.org.example:x,L,0x0000000000000001 {\n path p\n}\n" +
                          kTarget + " lun 1 iqn.2024-01.org.example:x,L,0x0000000000000001\n}\n"));
  EXPECT_NE(nullptr, TAILQ_FIRST(&conf_->conf_targets)->t_luns[1]);
  // The writer's type line without line end (WriterDetails) reads back.
  ASSERT_NE(nullptr, Read("initiator-group ig1 {\n}\n"
                          "auth-group g {\n\t auth-type none\t initiator-group ig1\n}\n"));
  EXPECT_NE(nullptr, auth_group_igroup_ref_find(auth_group_find(conf_, "g"), "ig1"));
}
TEST_F(ReaderTest, SyntaxErrorNamesLineAndTokenThenDumpsTheNumberedFile) {
  EXPECT_THAT(ReportFor(kTarget + "  bogus entry\n}\n"),
              ElementsAre("error in configuration file at line 2 near 'bogus': syntax error",
                          "Dumping zel.conf file...", "1: target iqn.2024-01.org.example:t {",
                          "2:   bogus entry", "3: }"));
  EXPECT_THAT(LoggedWith("Failed to parse config file"),
              ElementsAre(StartsWith("Failed to parse config file " + path_ + ": ")));
  // Secrets are masked, user names kept; lines count across blank lines.
  EXPECT_THAT(ReportFor("auth-group g {\n chap \"u1\" \"QWJjZGVmZ2gjMTIz\"\n"
                        " chap-mutual \"u2\" \"QUJD\" \"m2\" \"REVG\"\n}\n\n}\n"),
              ElementsAre("error in configuration file at line 6 near '}': syntax error",
                          "Dumping zel.conf file...", "1: auth-group g {",
                          "2:  chap \"u1\" \"****************\"",
                          "3:  chap-mutual \"u2\" \"****\" \"m2\" \"****\"", "4: }", "5: ",
                          "6: }"));
  EXPECT_THAT(ReportFor("\n\noption a \"b c\"\n\n}\n"),
              ElementsAre("error in configuration file at line 5 near '}': syntax error",
                          "Dumping zel.conf file...", "1: ", "2: ", "3: option a \"b c\"",
                          "4: ", "5: }"));
  // 2509 characters are dumped as 1023 + 1023 + 463 under one number (each
  // logged line keeps 255).
  const std::string a(252, 'a');
  EXPECT_THAT(ReportFor("generation 1\noption x " + std::string(2500, 'a') + "\n{\n"),
              ElementsAre("error in configuration file at line 3 near '{': syntax error",
                          "Dumping zel.conf file...", "1: generation 1",
                          "2: option x " + a.substr(9), "2: " + a, "2: " + a, "3: {"));
  // End of file inside a block.
  const std::vector<std::string> report = ReportFor(kTarget + " lun 0 {\n");
  ASSERT_FALSE(report.empty());
  EXPECT_THAT(report[0], StartsWith("error in configuration file at line 3 near '"));
  EXPECT_THAT(report[0], ::testing::EndsWith("': syntax error"));
}
TEST_F(ReaderTest, ScannerAndNumberErrorsAreReportedWithTheirLineAndToken) {
  const std::string lun0 = kTarget + " lun 0 {\n  path p\n  device-type ";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"generation 1\n$\n", "at line 2 near '$': syntax error"},
      {"option a \"unterminated\n", "at line 1 near '\"': syntax error"},
      {std::string("option a \"x\0y\"\n", 15), "at line 1 near '\"': syntax error"},
      {"option a b\r\n", "at line 1 near '\r': syntax error"},
      {"TARGET iqn.2024-01.org.example:t {\n}\n", "at line 1 near 'TARGET': syntax error"},
      {"; generation 1\n", "at line 1 near ';': syntax error"},
      {"auth-group ag { ; }\n", "at line 1 near ';': syntax error"},
      {"generation x1\n", "at line 1 near 'x1': invalid numeric value"},
      {"\ndebug 1x\n", "at line 2 near '1x': invalid numeric value"},
      {"timeout 4294967296\n", "at line 1 near '4294967296': invalid numeric value"},
      {"portal-group pg {\n tag 65536\n}\n", "at line 2 near '65536': invalid numeric value"},
      {kTarget + " lun 256 shared\n}\n", "at line 2 near 'shared': invalid numeric value"},
      // Checked once the block opens, so the report names the brace.
      {kTarget + " lun 256 {\n }\n}\n", "at line 2 near '{': invalid numeric value"},
      {kTarget + " lun 0 {\n  path p\n  size 16e\n }\n}\n",
       "at line 4 near '16e': invalid numeric value"},
      {kTarget + " lun 0 {\n  blocksize 2147483648\n }\n}\n",
       "at line 3 near '2147483648': invalid numeric value"},
      {lun0 + "tape\n }\n}\n", "at line 4 near 'tape': invalid device-type value"},
      {lun0 + "16\n }\n}\n", "at line 4 near '16': invalid device-type value"},
      {lun0 + "-1\n }\n}\n", "at line 4 near '-1': invalid device-type value"},
      {lun0 + "\"\"\n }\n}\n", "at line 4 near '\"\"': invalid device-type value"},
  };
  for (const auto& [text, where] : cases) {
    std::vector<std::string> report = ReportFor(text);
    ASSERT_THAT(report, SizeIs(::testing::Ge(2u))) << text;
    EXPECT_EQ("error in configuration file " + where, report[0]);
    EXPECT_EQ("Dumping zel.conf file...", report[1]);
  }
}
TEST_F(ReaderTest, SemanticErrorsRefuseTheFileWithTheirMessageAndWithoutDump) {
  const std::string afterGroup = " auth-group default\n ";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {InTarget(" alias a\n alias b\n"), Twice("alias")},
      {"auth-group ag {\n}\n" + InTarget(" auth-group ag\n auth-group ag\n"), Twice("auth-group")},
      {InTarget(" auth-type none\n auth-group default\n"), Both("explicit authorisations")},
      {InTarget(" auth-group nope\n"), "unknown auth-group \"nope\" for target " + kTargetName},
      {InTarget(afterGroup + "auth-type none\n"), Both("auth-type")},
      {InTarget(afterGroup + "chap u QWJjZGVmZ2gjMTIz\n"), Both("chap")},
      {InTarget(afterGroup + "chap-mutual u QWJjZGVmZ2gjMTIz v QWJjZGVmZ2gjMTIz\n"),
       Both("chap-mutual")},
      {InTarget(afterGroup + "initiator-name iqn.2024-01.org.x:i\n"), Both("initiator-name")},
      {InTarget(afterGroup + "initiator-portal 192.0.2.1\n"), Both("initiator-portal")},
      {InTarget(" portal-group nope\n"), "unknown portal-group \"nope\" for target " + kTargetName},
      {InTarget(" portal-group default nope\n"),
       "unknown auth-group \"nope\" for target " + kTargetName},
      {InTarget(" portal-group default\n portal-group default\n"),
       "can't link portal-group \"default\" to target " + kTargetName},
      {InTarget(" port pp9\n"), "unknown port \"pp9\" for target " + kTargetName},
      {InTarget(" port pp0\n") + "target iqn.2024-01.org.example:u {\n port pp0\n}\n",
       "can't link port \"pp0\" to target \"iqn.2024-01.org.example:u\", port already linked to "
       "some target"},
      {"portal-group pp0 {\n}\n" + InTarget(" portal-group pp0\n port pp0\n"),
       "can't link port \"pp0\" to target " + kTargetName},
      {"portal-group pg {\n discovery-auth-group default\n discovery-auth-group default\n}\n",
       "discovery-auth-group for portal-group \"pg\" specified more than once"},
      {"portal-group pg {\n discovery-auth-group nope\n}\n",
       "unknown discovery-auth-group \"nope\" for portal-group \"pg\""},
      {"auth-group ag {\n initiator-group ig\n}\ninitiator-group ig {\n}\n",
       "Failed to add initiator-group ref \"ig\" to auth-group \"ag\". Please make sure initiator "
       "group \"ig\" is in configuration file and it appears ahead of auth-group \"ag\""},
      {InLun(" backend block\n backend block\n"), TwiceInLun("backend")},
      {InLun(" blocksize 512\n blocksize 512\n"), TwiceInLun("blocksize")},
      {InLun(" device-id a\n device-id b\n"), TwiceInLun("device_id")},
      {InLun(" ctl-lun 0\n ctl-lun 1\n"), TwiceInLun("ctl_lun")},
      {InLun(" path a\n path b\n"), TwiceInLun("path")},
      {InLun(" serial a\n serial b\n"), TwiceInLun("serial")},
      {InLun(" size 8\n size 8\n"), TwiceInLun("size")},
      {"lun d {\n path p\n}\n" + InTarget(" lun 0 {\n path q\n }\n lun 0 d\n"), Twice("lun 0")},
      {InTarget(" lun 1 nope\n"), "unknown lun \"nope\" for target " + kTargetName},
      {InTarget("") + "target IQN.2024-01.org.example:T {\n}\n",
       "duplicated target \"IQN.2024-01.org.example:T\""},
      {"auth-group default {\n}\nauth-group default {\n}\n", "duplicated auth-group \"default\""},
      {"auth-group no-access {\n}\n", "duplicated auth-group \"no-access\""},
      {"portal-group default {\n}\nportal-group default {\n}\n",
       "duplicated portal-group \"default\""},
      {"auth-group ag {\n auth-type bogus\n}\n",
       "invalid auth-type \"bogus\" for auth-group \"ag\""},
      {"portal-group pg {\n listen [::1\n}\n", "invalid listen address [::1"},
      {"portal-group pg {\n redirect a\n redirect b\n}\n",
       "cannot set redirection to \"b\" for portal-group \"pg\"; already defined"},
      {"option a 1\noption a 2\n", "duplicated config option a "}};
  for (const auto& [text, message] : cases) {
    SCOPED_TRACE(text);
    host_.Log().Clear();
    // Some cases link targets to a port that an earlier conf lends.
    struct conf* old = conf_new();
    pport_new(old, "pp0", 3);
    EXPECT_EQ(nullptr, Read(text, 0600, old));
    conf_delete(old);
    EXPECT_TRUE(WasLogged(message)) << ::testing::PrintToString(LoggedWith());
    EXPECT_THAT(LoggedWith("Failed to parse config file " + path_), SizeIs(1));
    EXPECT_THAT(LoggedWith("Dumping"), IsEmpty());
  }
}
TEST_F(ReaderTest, FailedValidationRefusesTheFile) {
  EXPECT_EQ(nullptr, Read(kTarget + " lun 0 {\n backend block\n }\n}\n"));
  EXPECT_TRUE(WasLogged("missing path for lun " + kLun0));
  EXPECT_THAT(LoggedWith("failed to validate configuration"),
              ElementsAre(StartsWith("failed to validate configuration " + path_ + ": ")));
}
TEST_F(ReaderTest, RefusedFileIsNeverHalfLoaded) {
  const int descriptors = OpenDescriptors();
  EXPECT_EQ(nullptr, Read("portal-group pg {\n listen nok1\n}\n" + kTarget +
                          " portal-group pg\n chap-mutual a b c\n}\n"));
  EXPECT_EQ(nullptr, zeld_reader.conf);
  EXPECT_EQ(nullptr, zeld_reader.target);
  EXPECT_EQ(nullptr, zeld_reader.source);
  EXPECT_EQ(descriptors, OpenDescriptors());
  ASSERT_NE(nullptr, Read("generation 5\n"));
  EXPECT_EQ(5u, conf_->conf_generation);
  EXPECT_EQ(nullptr, portal_group_find(conf_, "pg"));
  EXPECT_TRUE(TAILQ_EMPTY(&conf_->conf_targets));
}
TEST_F(ReaderTest, ModelExceptionsReachTheCallerAndTheNextParseStartsClean) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"initiator-group ig {\n initiator iqn.2024-01.org.example:a\n}\n"
       "auth-group ag {\n initiator-group ig\n initiator-portal 10.0.0.1/33\n}\n" +
           kTarget + "}\n",
       "Incorrect initiator portal '10.0.0.1/33'"},
      {kTarget + " initiator-name iqn.2024-01.org.example:host\n"
                 " initiator-portal [fe80::1]/129\n lun 0 {\n  path p\n }\n}\n",
       "Incorrect initiator portal '[fe80::1]/129'"},
      {"auth-group ag {\n chap user \"!!not base64!!\"\n}\n", "Base64_Decode"},
      // Decoded, the secret would not fit the secret buffer.
      {"auth-group ag {\n chap-mutual u QWJjZGVmZ2gjMTIz v \"" + std::string(60, 'Q') + "\"\n}\n",
       "Base64_Decode"},
  };
  for (const auto& [text, message] : cases) {
    WriteFile(path_, "generation 9\n" + text);
    EXPECT_THAT(ThrownReading(path_), StartsWith(message)) << text;
  }
  // A scanner failure throws too instead of ending the process: a directory
  // opens and locks like a file but cannot be read.
  const std::string directory = host_.Home() + "/zel.conf.d";
  ASSERT_EQ(0, mkdir(directory.c_str(), 0700));
  EXPECT_EQ("input in flex scanner failed", ThrownReading(directory));
}
TEST_F(ReaderTest, FilesOpenToTheWorldAreReadWithOneWarning) {
  const std::vector<std::pair<int, std::string>> cases = {
      {0644, " is world-readable"}, {0666, " is world-writable"},
      {0661, " is world-executable"}, {0660, ""}};
  for (const auto& [mode, warning] : cases) {
    host_.Log().Clear();
    EXPECT_NE(nullptr, Read("generation 2\n", mode)) << mode;
    const std::vector<std::string> warnings = LoggedWith(" is world-");
    if (warning.empty()) {
      EXPECT_THAT(warnings, IsEmpty());
    } else {
      EXPECT_THAT(warnings, ElementsAre(path_ + warning));
    }
  }
}

}  // namespace
}  // namespace test
}  // namespace zel
