// The configuration namespace, its "etc/" and "targets" directories, and
// each target's namespace with its link (tried twelve times, undone when it
// cannot be made) on a real datastore and SQLite directory.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "platform/EntryMarshal.h"
#include "platform/Host.h"
#include "platform/local/LocalNamespaces.h"
#include "platform/local/SqliteDirectory.h"
#include "platform/local/LocalPolicyService.h"
#include "storage/DatastoreLayout.h"
#include "storage/Namespace.h"
#include "storage/NamespaceDirs.h"
#include "storage/TargetNamespace.h"
#include "support/Messages.h"
#include "support/TestHost.h"

namespace NokCtl::Orva::IscsiTarget {
namespace {

using zel::test::MessageOf;
namespace fs = std::filesystem;
using zel::platform::CurrentHost;
using zel::platform::LogLevel;
using zel::test::NamespacesDouble;
using ::testing::ElementsAre;
using ::testing::StartsWith;

const std::string kHost = "11111111-2222-4333-8444-555555555555";
const std::string kTarget = "3fb2b402-cfcb-4738-9622-3a566bb58dbf";
const std::string kPolicy = "\"stripeWidth\" \"4\"";

class NamespaceDirsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(Root());
    zel::platform::HostConfig config = host_.Config();
    config.hostUuid = kHost;
    spaces_ = &host_.Install<NamespacesDouble>(zel::platform::NewLocalNamespaces(config));
    host_.Install<zel::test::DirectoryDouble>(
        zel::platform::NewSqliteDirectory(host_.Home() + "/directory.db"));
  }
  const std::string& Root() const { return host_.Config().datastoreRoot; }
  std::string ConfigNamespacePath() const { return Root() + "/.iSCSI-CONFIG"; }
  std::string TargetLink() const { return Util::GetTargetsDirPath() + "/" + kTarget; }
  // The lines logged at exactly `level` that contain `part`.
  std::vector<std::string> Logged(LogLevel level, const std::string& part = "") {
    std::vector<std::string> lines;
    for (const zel::test::LogLine& line : host_.Log().Lines()) {
      if (line.level == level && line.text.find(part) != std::string::npos) {
        lines.push_back(line.text);
      }
    }
    return lines;
  }

  // The announced policy of `uuid`, or "(none)" when it is not announced.
  std::string AnnouncedPolicy(const std::string& uuid) {
    std::vector<zel::platform::DirectoryEntry> entries;
    zel::platform::StorageObjectRecord record;
    if (CurrentHost().GetDirectory().Query(zel::platform::kStorageObjectEntryType, uuid,
                                           &entries) != NOK_OK) {
      return "(none)";
    }
    EXPECT_EQ(NOK_OK, zel::platform::UnmarshalStorageObjectRecord(entries.front().payload,
                                                                   &record, nullptr));
    return record.policy;
  }
  void MakeConfigNamespace() {
    Util::CreateNamespaceDir("");
    Util::CreateConfigDirs();
    host_.Log().Clear();
  }
  void FailDeletes() { spaces_->FailNext("DeleteNamespace", "datastore busy", spaces_->kAlways); }
  std::string MakeTarget(const std::string& policy = "") {
    MakeConfigNamespace();
    std::string uuid;
    Util::CreateTargetNamespace(kTarget, policy, uuid);
    return uuid;
  }
  zel::test::ScopedTestHost host_;
  NamespacesDouble* spaces_ = nullptr;
};

TEST_F(NamespaceDirsTest, ConfigNamespaceGetsTheDefaultPolicyAndIsSkippedWhenThere) {
  Util::CreateNamespaceDir("");
  const std::string uuid = Util::GetNamespaceUuid();
  EXPECT_EQ(fs::path(uuid), fs::read_symlink(ConfigNamespacePath()));
  EXPECT_EQ(host_.Config().defaultPolicy, AnnouncedPolicy(uuid));
  host_.Log().Clear();
  Util::CreateNamespaceDir(kPolicy);
  EXPECT_THAT(Logged(LogLevel::Info),
              ElementsAre("Util: Orva iSCSI Target namespace already exists. Skipping namespace "
                          "creation.."));
  EXPECT_EQ(uuid, Util::GetNamespaceUuid());
  EXPECT_EQ(host_.Config().defaultPolicy, AnnouncedPolicy(uuid));
}

TEST_F(NamespaceDirsTest, ConfigNamespaceMadeByAnotherHostMeanwhileCountsAsMade) {
  std::string theirs;
  spaces_->Before("CreateNamespace", [&] {
    theirs = spaces_->Target().CreateNamespace(Root(), ".iSCSI-CONFIG", kPolicy, 0);
  });
  Util::CreateNamespaceDir("");
  EXPECT_THAT(Logged(LogLevel::Info),
              ElementsAre("Util: ZEL namespace already exists Namespace .iSCSI-CONFIG already "
                          "exists in " + Root()));
  EXPECT_EQ(theirs, Util::GetNamespaceUuid());
  EXPECT_EQ(kPolicy, AnnouncedPolicy(theirs));
}

TEST_F(NamespaceDirsTest, ConfigNamespaceFailureIsLoggedAndThrownAsReported) {
  fs::remove(Root());
  const std::string message = MessageOf([] { Util::CreateNamespaceDir(kPolicy); });
  EXPECT_THAT(message, StartsWith("Failed to create namespace directory " + Root() + "/"));
  EXPECT_THAT(Logged(LogLevel::Error), ElementsAre("Util: Failed to create namespace " + message));
}

TEST_F(NamespaceDirsTest, ConfigNamespaceDeletionRemovesItOrNamesItWhenItCannot) {
  MakeConfigNamespace();
  FailDeletes();
  const std::string message = "Failed to delete Orva iSCSI target namespace " +
                              ConfigNamespacePath() + " with error: datastore busy";
  EXPECT_EQ(message, MessageOf([] { Util::DeleteNamespaceDir(); }));
  EXPECT_THAT(Logged(LogLevel::Error), ElementsAre("Util: " + message));
  EXPECT_TRUE(Util::PathExists(Util::GetConfDirPath()));
  spaces_->Heal("DeleteNamespace");
  host_.Log().Clear();
  const std::string uuid = Util::GetNamespaceUuid();
  Util::DeleteConfigDirs();
  Util::DeleteNamespaceDir();
  EXPECT_TRUE(fs::is_empty(Root()));
  EXPECT_EQ("(none)", AnnouncedPolicy(uuid));
  Util::DeleteNamespaceDir();
  EXPECT_TRUE(Logged(LogLevel::Error).empty());
}

TEST_F(NamespaceDirsTest, ConfigDirsNeedTheNamespaceAndASecondRunLogsBothAsPresent) {
  const std::string message = "Failed to create dir " + Util::GetConfDirPath() + " with errno (2).";
  EXPECT_EQ(message, MessageOf([] { Util::CreateConfigDirs(); }));
  EXPECT_THAT(Logged(LogLevel::Error), ElementsAre("Util: " + message));
  Util::CreateNamespaceDir("");
  Util::CreateConfigDirs();
  EXPECT_TRUE(Logged(LogLevel::Info, "Config dir").empty());
  Util::CreateConfigDirs();
  EXPECT_THAT(Logged(LogLevel::Info, "Config dir"),
              ElementsAre("Util: Config dir " + Util::GetConfDirPath() + " already exists.",
                          "Util: Config dir " + Util::GetTargetsDirPath() + " already exists."));
  EXPECT_EQ(fs::perms::owner_all, fs::status(Util::GetConfDirPath()).permissions());
  EXPECT_EQ(fs::perms::owner_all, fs::status(Util::GetTargetsDirPath()).permissions());
}

TEST_F(NamespaceDirsTest, DeletingConfigDirsRemovesTheFileAndBothAndToleratesTheirAbsence) {
  MakeConfigNamespace();
  zel::test::WriteFile(NokCtl::Orva::IscsiTarget::Util::GetConfFilePath(), "generation 3\n");
  Util::DeleteConfigDirs();
  EXPECT_FALSE(Util::PathExists(Util::GetConfDirPath()));
  EXPECT_FALSE(Util::PathExists(Util::GetTargetsDirPath()));
  EXPECT_THAT(Logged(LogLevel::Info), ElementsAre("Util: Removing dir " + Util::GetConfDirPath(),
                                                  "Util: Removing dir " + Util::GetTargetsDirPath()));
  host_.Log().Clear();
  Util::DeleteConfigDirs();
  EXPECT_THAT(Logged(LogLevel::Info),
              ElementsAre("Util: Config file " + NokCtl::Orva::IscsiTarget::Util::GetConfFilePath() + " does not exist.",
                          "Util: Removing dir " + Util::GetConfDirPath(),
                          "Util: Dir " + Util::GetConfDirPath() + " does not exist.",
                          "Util: Removing dir " + Util::GetTargetsDirPath(),
                          "Util: Dir " + Util::GetTargetsDirPath() + " does not exist."));
}

TEST_F(NamespaceDirsTest, DeletingConfigDirsWhileATargetIsLinkedFailsAtTheTargetsDir) {
  MakeTarget();
  zel::test::WriteFile(NokCtl::Orva::IscsiTarget::Util::GetConfFilePath(), "generation 3\n");
  EXPECT_EQ("Failed to delete config directory: Failed to remove dir " +
                Util::GetTargetsDirPath() + " with (errno 39).",
            MessageOf([] { Util::DeleteConfigDirs(); }));
  EXPECT_FALSE(Util::PathExists(Util::GetConfDirPath()));
  EXPECT_TRUE(Util::PathExists(TargetLink()));
}

TEST_F(NamespaceDirsTest, PathExistsFindsAnythingThereAndThrowsWhenItCannotLook) {
  zel::test::WriteFile(Root() + "/file", "");
  ::symlink("file", (Root() + "/link").c_str());
  for (const std::string there : {"", "/file", "/link"}) EXPECT_TRUE(Util::PathExists(Root() + there));
  EXPECT_FALSE(Util::PathExists(Root() + "/missing"));
  EXPECT_FALSE(Util::PathExists(Root() + "/missing/deeper"));
  // A loop of links stands for an unreachable device: the lookup fails
  // for a reason other than absence.
  ::symlink("b", (Root() + "/a").c_str());
  ::symlink("a", (Root() + "/b").c_str());
  EXPECT_EQ("Failed to find path '" + Root() +
                "/a' with error: Too many levels of symbolic links. Please check its "
                "availability on this host manually and try again.",
            MessageOf([&] { Util::PathExists(Root() + "/a"); }));
}

TEST_F(NamespaceDirsTest, TargetNamespaceHasARelativeLinkUnderTargetsAndGoesWithIt) {
  EXPECT_EQ(kTarget, MakeTarget(kPolicy));
  EXPECT_EQ(fs::path("../../" + kTarget), fs::read_symlink(TargetLink()));
  EXPECT_TRUE(fs::equivalent(TargetLink(), Root() + "/" + kTarget));
  EXPECT_EQ(kPolicy, AnnouncedPolicy(kTarget));
  EXPECT_TRUE(host_.Clock().Sleeps().empty());
  zel::test::WriteFile(Root() + "/" + kTarget + "/lun.qdsk", "disk");
  Util::DeleteTargetNamespace(kTarget);
  EXPECT_THAT(Logged(LogLevel::Info, "target uuid"),
              ElementsAre("Util: Delete target namespace, target uuid: " + kTarget));
  EXPECT_FALSE(fs::exists(fs::symlink_status(TargetLink())));
  EXPECT_FALSE(Util::PathExists(Root() + "/" + kTarget));
  EXPECT_EQ("(none)", AnnouncedPolicy(kTarget));
  MakeTarget();
  EXPECT_EQ(host_.Config().defaultPolicy, AnnouncedPolicy(kTarget));
}

TEST_F(NamespaceDirsTest, TargetLinkIsTriedTwelveTimesThenTheNamespaceIsRemoved) {
  // The configuration namespace without its targets directory.
  Util::CreateNamespaceDir("");
  host_.Log().Clear();
  std::string uuid = "unchanged";
  EXPECT_EQ("Util: Failed to create target symlink with error: No such file or directory",
            MessageOf([&] { Util::CreateTargetNamespace(kTarget, "", uuid); }));
  const std::string arrow = TargetLink() + "->../../" + kTarget;
  std::vector<std::string> retries;
  for (int n = 1; n <= 11; ++n) {
    retries.push_back("Util: " + std::to_string(n) + "th retry to create target symlink(" + arrow +
                      ") due to No such file or directory (2)");
  }
  EXPECT_EQ(retries, Logged(LogLevel::Info));
  EXPECT_EQ(std::vector<uint64_t>(11, 1000000), host_.Clock().Sleeps());
  EXPECT_THAT(Logged(LogLevel::Error),
              ElementsAre("Util: Failed to create target symlink(" + arrow +
                          ") witherror: No such file or directory (2)"));
  EXPECT_FALSE(Util::PathExists(Root() + "/" + kTarget));
  EXPECT_EQ("(none)", AnnouncedPolicy(kTarget));
  EXPECT_EQ("unchanged", uuid);

  // A clean-up that fails is logged and the link failure still reported.
  FailDeletes();
  host_.Log().Clear();
  EXPECT_EQ("Util: Failed to create target symlink with error: No such file or directory",
            MessageOf([&] { Util::CreateTargetNamespace(kTarget, "", uuid); }));
  EXPECT_THAT(Logged(LogLevel::Error, "clean up"),
              ElementsAre("Util: Failed to delete (clean up) namespace for target UUID " + kTarget +
                          " with error: datastore busy"));
}

TEST_F(NamespaceDirsTest, TargetNamespaceFailureIsThrownAsReportedAndMakesNoLink) {
  MakeConfigNamespace();
  fs::create_directory(Root() + "/" + kTarget);
  std::string uuid;
  EXPECT_EQ("Namespace " + kTarget + " already exists in " + Root(),
            MessageOf([&] { Util::CreateTargetNamespace(kTarget, "", uuid); }));
  EXPECT_FALSE(fs::is_symlink(fs::symlink_status(TargetLink())));
}

TEST_F(NamespaceDirsTest, FailedTargetDeletionPutsTheLinkBackOrLogsWhyItCannot) {
  MakeTarget(kPolicy);
  FailDeletes();
  EXPECT_EQ("Failed to delete namespace for target with UUID " + kTarget +
                " with error: datastore busy",
            MessageOf([] { Util::DeleteTargetNamespace(kTarget); }));
  EXPECT_EQ(fs::path("../../" + kTarget), fs::read_symlink(TargetLink()));
  EXPECT_TRUE(fs::equivalent(TargetLink(), Root() + "/" + kTarget));
  EXPECT_EQ(kPolicy, AnnouncedPolicy(kTarget));
  spaces_->Before("DeleteNamespace", [] { fs::remove_all(Util::GetTargetsDirPath()); });
  host_.Log().Clear();
  EXPECT_THAT(MessageOf([] { Util::DeleteTargetNamespace(kTarget); }),
              StartsWith("Failed to delete namespace for target with UUID " + kTarget));
  EXPECT_THAT(Logged(LogLevel::Error),
              ElementsAre("Util: Failed to restore symlink for target with UUID " + kTarget +
                          " with error: No such file or directory (2)"));
}

TEST_F(NamespaceDirsTest, TargetDeletionWithoutLinkFailsAndWithoutNamespaceRemovesTheLink) {
  MakeTarget();
  fs::remove(TargetLink());
  EXPECT_EQ("Util: Failed to remove target symlink: " + TargetLink() +
                " with error: No such file or directory",
            MessageOf([] { Util::DeleteTargetNamespace(kTarget); }));
  EXPECT_TRUE(Util::PathExists(Root() + "/" + kTarget));
  fs::remove_all(Root());
  fs::create_directories(Root());
  MakeTarget();
  fs::remove_all(Root() + "/" + kTarget);
  Util::DeleteTargetNamespace(kTarget);
  EXPECT_THAT(Logged(LogLevel::Error),
              ElementsAre("Util: Cannot find target namespace dir for target " + kTarget));
  EXPECT_FALSE(fs::exists(fs::symlink_status(TargetLink())));
}

}  // namespace
}  // namespace NokCtl::Orva::IscsiTarget
