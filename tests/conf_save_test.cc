// Saving zel.conf: one generation per save, atomic swap, nothing partial or
// left behind after any failure, and the locks a handle holds against other
// processes.
#include <dirent.h>
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "conf/ConfHandle.h"
#include "storage/DatastoreLayout.h"
#include "support/ConfText.h"
#include "support/Messages.h"
#include "support/Process.h"
#include "support/TestHost.h"
#include "zel/OrvaCtlException.h"

namespace {

using zel::test::MessageOf;

using HostCtl::Lib::Orva::OrvaCtlException;
using NokCtl::Orva::IscsiTarget::ConfHandle;
using NokCtl::Orva::IscsiTarget::Util::GetConfDirPath;
using NokCtl::Orva::IscsiTarget::Util::GetConfFilePath;
using zel::test::ChildControl;
using zel::test::ChildProcess;
using zel::test::FileOp;
using zel::test::InstallConf;
using zel::test::ReadFile;
using zel::test::ScopedTestHost;

const char kConf[] =
    "generation 7\n"
    "auth-group default {\n\t auth-type none\n}\n"
    "portal-group default {\n\t discovery-auth-group default\n\t listen nok0:3260\n}\n"
    "target iqn.2026-11.local.zel:a {\n\talias \"a\"\n\tportal-group default\n"
    "\tauth-group default\n}\n";

std::vector<std::string> DirectoryEntries(const std::string& dir) {
  std::vector<std::string> names;
  DIR* d = opendir(dir.c_str());
  while (struct dirent* entry = readdir(d)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(d);
  return names;
}

class SaveTest : public ::testing::Test {
 protected:
  void SetUp() override {
    log_init(4);
    InstallConf(kConf);
  }
  ScopedTestHost host_;
};

TEST_F(SaveTest, EachSaveRaisesTheGenerationByOne) {
  {
    ConfHandle handle(ConfHandle::kExclusiveMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
    EXPECT_EQ(handle.WriteConfFile(), 8u);
    EXPECT_EQ(handle.WriteConfFile(), 9u);
  }
  ConfHandle reread(ConfHandle::kShareMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
  EXPECT_EQ(reread.GetCurrentGenerationNum(), 9u);
  EXPECT_THAT(ReadFile(GetConfFilePath()), ::testing::StartsWith("generation 9\n"));
}

TEST_F(SaveTest, SaveKeepsPermissionsAndLeavesNoTemporaryFile) {
  chmod(GetConfFilePath().c_str(), 0660);
  ConfHandle handle(ConfHandle::kExclusiveMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
  handle.WriteConfFile();

  struct stat st;
  ASSERT_EQ(stat(GetConfFilePath().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0660u);
  EXPECT_THAT(DirectoryEntries(GetConfDirPath()), ::testing::ElementsAre("zel.conf"));
}

struct SaveFault {
  FileOp op;
  const char* message;
};

class SaveFaultTest : public SaveTest, public ::testing::WithParamInterface<SaveFault> {};

TEST_P(SaveFaultTest, FailedSaveLeavesThePreviousFileAndNoTemporary) {
  const std::string before = ReadFile(GetConfFilePath());
  host_.Files().FailNext(GetParam().op, FILEIO_ERROR);
  {
    ConfHandle handle(ConfHandle::kExclusiveMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
    target_new(handle.conf, "iqn.2026-11.local.zel:lost");
    EXPECT_EQ(MessageOf([&] { handle.WriteConfFile(); }), GetParam().message);
  }
  EXPECT_EQ(ReadFile(GetConfFilePath()), before);
  EXPECT_THAT(DirectoryEntries(GetConfDirPath()), ::testing::ElementsAre("zel.conf"));
}

INSTANTIATE_TEST_SUITE_P(
    EveryStep, SaveFaultTest,
    ::testing::Values(SaveFault{FileOp::AtomicTempFile, "Failed to create temp config file"},
                      SaveFault{FileOp::Sync, "Failed to sync temp config"},
                      SaveFault{FileOp::AtomicUpdate, "Failed to swap config and temp config"}));

TEST_F(SaveTest, WriterFailureMidFileLeavesThePreviousFile) {
  const std::string before = ReadFile(GetConfFilePath());
  {
    ConfHandle handle(ConfHandle::kExclusiveMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
    auth_new_chap(auth_group_new(handle.conf, "long"), "u", std::string(24, 's').c_str(), false);
    EXPECT_EQ(MessageOf([&] { handle.WriteConfFile(); }),
              "Base64_Encode failed: Unexpected encoding size");
  }
  EXPECT_EQ(ReadFile(GetConfFilePath()), before);
  EXPECT_THAT(DirectoryEntries(GetConfDirPath()), ::testing::ElementsAre("zel.conf"));
}

TEST_F(SaveTest, TemporaryThatCannotBeRemovedIsOnlyAWarning) {
  host_.Files().FailNext(FileOp::AtomicUpdate, FILEIO_ERROR);
  host_.Files().FailNext(FileOp::CloseAndUnlink, FILEIO_ERROR);
  ConfHandle handle(ConfHandle::kExclusiveMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
  EXPECT_EQ(MessageOf([&] { handle.WriteConfFile(); }), "Failed to swap config and temp config");
  EXPECT_TRUE(host_.Log().Contains("Parser: Failed to remove temp config file"));
}

TEST_F(SaveTest, BackupHoldsTheSameTextWithTheGenerationUnchanged) {
  ConfHandle handle(ConfHandle::kShareMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
  handle.UpdateBackupConfigFile(NokCtl::Orva::IscsiTarget::Util::GetBackupConfFilePath());
  EXPECT_EQ(ReadFile(host_.Config().backupConfPath), zel::test::WrittenText(handle));
  EXPECT_EQ(handle.GetCurrentGenerationNum(), 7u);
}

TEST_F(SaveTest, UnwritableBackupPathIsReported) {
  zel::test::WriteFile(host_.Home() + "/var/run/log/zel.conf.backup/blocker", "");
  ConfHandle handle(ConfHandle::kShareMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
  EXPECT_EQ(MessageOf([&] { handle.UpdateBackupConfigFile(NokCtl::Orva::IscsiTarget::Util::GetBackupConfFilePath()); }),
            "Failed to open backup config file: Is a directory");
}

TEST_F(SaveTest, ReadersInAnotherProcessNeverSeeAPartialFile) {
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
      ASSERT_EQ(e.GetMessage(), "Parser: share lock failed on " + GetConfFilePath());
    }
  }
  EXPECT_EQ(writer.Join(), 0);
  EXPECT_GT(reads, 0);
  ConfHandle final(ConfHandle::kShareMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
  EXPECT_EQ(final.GetCurrentGenerationNum(), 7u + kSaves);
}

class HandleLockTest : public SaveTest {
 protected:
  // A second process holding a handle in `mode` until released.
  std::unique_ptr<ChildProcess> HoldHandle(int mode) {
    auto child = std::make_unique<ChildProcess>([mode](ChildControl& control) {
      ConfHandle held(mode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
      control.Ready();
      control.AwaitRelease();
      return 0;
    });
    EXPECT_TRUE(child->AwaitReady());
    return child;
  }
};

TEST_F(HandleLockTest, SharedReadersReadTogether) {
  auto other = HoldHandle(ConfHandle::kShareMode);
  ConfHandle reader(ConfHandle::kShareMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
  EXPECT_EQ(reader.GetCurrentGenerationNum(), 7u);
  EXPECT_TRUE(host_.Clock().Sleeps().empty());
}

TEST_F(HandleLockTest, ExclusiveWriterElsewhereMakesAReaderGiveUpAfterTheLimit) {
  auto writer = HoldHandle(ConfHandle::kExclusiveMode);
  EXPECT_EQ(MessageOf([] { ConfHandle reader(ConfHandle::kShareMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath()); }),
            "Parser: share lock failed on " + GetConfFilePath());
  EXPECT_EQ(host_.Clock().Sleeps(), std::vector<uint64_t>(1500, 200000));
}

TEST_F(HandleLockTest, ReaderElsewhereKeepsAnEditorOut) {
  auto reader = HoldHandle(ConfHandle::kShareMode);
  EXPECT_EQ(MessageOf([] { ConfHandle editor(ConfHandle::kExclusiveMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath()); }),
            "Parser: exclusive lock failed on " + GetConfFilePath());
}

TEST_F(HandleLockTest, EditorGetsInOnceTheOtherProcessLetsGo) {
  auto reader = HoldHandle(ConfHandle::kShareMode);
  reader->Release();
  ASSERT_EQ(reader->Join(), 0);
  ConfHandle editor(ConfHandle::kExclusiveMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
  EXPECT_EQ(editor.WriteConfFile(), 8u);
}

TEST_F(HandleLockTest, MissingFileIsWaitedForFiveTimesTwoSeconds) {
  ASSERT_EQ(unlink(GetConfFilePath().c_str()), 0);
  EXPECT_EQ(MessageOf([] { ConfHandle reader(ConfHandle::kShareMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath()); }),
            "Parser: share lock failed on " + GetConfFilePath());
  EXPECT_EQ(host_.Clock().Sleeps(), std::vector<uint64_t>(5, 2000000));
}

}  // namespace
