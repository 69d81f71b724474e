// Whether the host may create the service's namespace or enable the
// service: cluster membership first, then the namespace on the datastore and
// its two directories, each gap logged before the one refusal.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "edit/HostState.h"
#include "platform/Host.h"
#include "support/Messages.h"
#include "support/TestHost.h"

namespace {

using zel::test::MessageOf;
using ::testing::ElementsAre;
using zel::platform::LogLevel;
using zel::test::ScopedTestHost;
namespace Util = NokCtl::Orva::IscsiTarget::Util;

const std::string kNotInCluster = "Orva is not enabled on this host.";
const std::string kNoNamespace =
    "Orva iSCSI namespace does not exist. Please create namespace if not already created.";
const std::string kBadNamespace =
    "Bad Orva iSCSI target namespace configuration detected. Recreate namespace before "
    "enabling Orva iSCSI Target.";

// Membership as the test sets it; a status other than NOK_OK says it could
// not be learned.
class ScriptedClusterFacts final : public zel::platform::ClusterFacts {
 public:
  ScriptedClusterFacts(bool member, NOK_ReturnStatus status) : member_(member), status_(status) {}
  std::string LocalHostUuid() override { return "0f3a6c1e-2b4d-4e8f-9a7b-6c5d4e3f2a1b"; }
  NOK_ReturnStatus GetClusterInfo(zel::platform::ClusterInfo* info) override {
    if (status_ != NOK_OK) return status_;
    info->isMember = member_;
    return NOK_OK;
  }

 private:
  bool member_;
  NOK_ReturnStatus status_;
};

class HostStateTest : public ::testing::Test {
 protected:
  void SetMembership(bool member, NOK_ReturnStatus status = NOK_OK) {
    zel::platform::CurrentHost().SetCluster(std::make_unique<ScriptedClusterFacts>(member, status));
  }

  // The namespace as the platform lays it out: ".iSCSI-CONFIG" is a link to
  // the namespace object's own directory.
  std::string MakeNamespace() {
    const std::string root = host_.Config().datastoreRoot;
    const std::string object = root + "/5e0c2a7d-8f41-4b6e-9d3a-2c7b1e0f4a58";
    std::filesystem::create_directories(object);
    std::filesystem::create_directory_symlink("5e0c2a7d-8f41-4b6e-9d3a-2c7b1e0f4a58",
                                              root + "/.iSCSI-CONFIG");
    return object;
  }

  std::vector<std::string> Errors() { return host_.Log().Texts(LogLevel::Error); }

  ScopedTestHost host_;
};

TEST_F(HostStateTest, NamespaceCreationNeedsClusterMembership) {
  SetMembership(true);
  EXPECT_EQ(MessageOf(Util::VerifyEnvForNamespaceCreate), "");

  SetMembership(false);
  EXPECT_EQ(MessageOf(Util::VerifyEnvForNamespaceCreate), kNotInCluster);
}

TEST_F(HostStateTest, UnknownMembershipCountsAsNoneAndSaysWhy) {
  SetMembership(true, NOK_NO_CONNECTION);
  EXPECT_EQ(MessageOf(Util::VerifyEnvForNamespaceCreate), kNotInCluster);
  EXPECT_TRUE(host_.Log().Contains(std::string("Util: Failed to get cluster info: ") +
                                   NOK_ReturnStatusToString(NOK_NO_CONNECTION)));
}

TEST_F(HostStateTest, EnableChecksMembershipBeforeTheNamespace) {
  SetMembership(false);
  EXPECT_EQ(MessageOf(Util::VerifyEnvForEnable), kNotInCluster);

  SetMembership(true);
  EXPECT_EQ(MessageOf(Util::VerifyEnvForEnable), kNoNamespace);
  EXPECT_TRUE(Errors().empty());
}

TEST_F(HostStateTest, EnableLogsEveryMissingDirectoryBeforeRefusing) {
  SetMembership(true);
  MakeNamespace();
  const std::string root = host_.Config().datastoreRoot;

  EXPECT_EQ(MessageOf(Util::VerifyEnvForEnable), kBadNamespace);
  EXPECT_THAT(Errors(),
              ElementsAre("Util: Target dir " + root + "/.iSCSI-CONFIG/targets does not exist",
                          "Util: Etc  dir " + root + "/.iSCSI-CONFIG/etc/ does not exist"));
}

TEST_F(HostStateTest, EnableRefusesWhenOnlyOneDirectoryIsMissing) {
  SetMembership(true);
  const std::string object = MakeNamespace();
  const std::string root = host_.Config().datastoreRoot;

  std::filesystem::create_directory(object + "/targets");
  EXPECT_EQ(MessageOf(Util::VerifyEnvForEnable), kBadNamespace);
  EXPECT_THAT(Errors(),
              ElementsAre("Util: Etc  dir " + root + "/.iSCSI-CONFIG/etc/ does not exist"));

  host_.Log().Clear();
  std::filesystem::remove(object + "/targets");
  std::filesystem::create_directory(object + "/etc");
  EXPECT_EQ(MessageOf(Util::VerifyEnvForEnable), kBadNamespace);
  EXPECT_THAT(Errors(),
              ElementsAre("Util: Target dir " + root + "/.iSCSI-CONFIG/targets does not exist"));
}

TEST_F(HostStateTest, EnableAcceptsACompleteNamespace) {
  SetMembership(true);
  const std::string object = MakeNamespace();
  std::filesystem::create_directory(object + "/targets");
  std::filesystem::create_directory(object + "/etc");

  EXPECT_EQ(MessageOf(Util::VerifyEnvForEnable), "");
  EXPECT_TRUE(Errors().empty());
}

TEST_F(HostStateTest, NamespaceLinkToNothingIsNoNamespace) {
  SetMembership(true);
  std::filesystem::create_directories(host_.Config().datastoreRoot);
  std::filesystem::create_directory_symlink("gone",
                                            host_.Config().datastoreRoot + "/.iSCSI-CONFIG");
  EXPECT_EQ(MessageOf(Util::VerifyEnvForEnable), kNoNamespace);
}

}  // namespace
