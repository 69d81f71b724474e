// Whether the host may create the namespace or enable the service:
// membership first, then the namespace and its two directories.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "edit/HostState.h"
#include "support/HostDoubles.h"
#include "support/Messages.h"
#include "support/TestHost.h"

namespace {

namespace fs = std::filesystem;
namespace Util = NokCtl::Orva::IscsiTarget::Util;
using ::testing::ElementsAreArray;
using zel::platform::LogLevel;
using zel::test::MessageOf;

const std::string kNotInCluster = "Orva is not enabled on this host.";
const std::string kNoNamespace =
    "Orva iSCSI namespace does not exist. Please create namespace if not already created.";
const std::string kBadNamespace =
    "Bad Orva iSCSI target namespace configuration detected. Recreate namespace before "
    "enabling Orva iSCSI Target.";

class HostStateTest : public ::testing::Test {
 protected:
  // ".iSCSI-CONFIG" linked to the namespace's own directory holding `dirs`.
  void MakeNamespace(const std::vector<std::string>& dirs) {
    const std::string object = "5e0c2a7d-8f41-4b6e-9d3a-2c7b1e0f4a58";
    fs::create_directories(Root() + "/" + object);
    fs::create_directory_symlink(object, Root() + "/.iSCSI-CONFIG");
    for (const std::string& dir : dirs) fs::create_directory(Root() + "/" + object + "/" + dir);
  }
  const std::string& Root() const { return host_.Config().datastoreRoot; }
  zel::test::ScopedTestHost host_;
  zel::test::ClusterFactsDouble& cluster_ = host_.Install<zel::test::ClusterFactsDouble>(
      std::make_unique<zel::test::FixedCluster>());
  zel::platform::ClusterInfo& membership_ =
      static_cast<zel::test::FixedCluster&>(cluster_.Target()).info;
};

TEST_F(HostStateTest, MembershipIsCheckedFirstAndUnknownCountsAsNone) {
  for (auto verify : {Util::VerifyEnvForNamespaceCreate, Util::VerifyEnvForEnable}) {
    membership_.isMember = false;
    EXPECT_EQ(MessageOf(verify), kNotInCluster);
    membership_.isMember = true;
    cluster_.FailNext("GetClusterInfo", NOK_NO_CONNECTION);
    EXPECT_EQ(MessageOf(verify), kNotInCluster);
  }
  EXPECT_EQ(MessageOf(Util::VerifyEnvForNamespaceCreate), "");
  EXPECT_TRUE(host_.Log().Contains(std::string("Util: Failed to get cluster info: ") +
                                   NOK_ReturnStatusToString(NOK_NO_CONNECTION)));
}

TEST_F(HostStateTest, EnableWithoutNamespaceOrWithALinkToNothingIsNoNamespace) {
  EXPECT_EQ(MessageOf(Util::VerifyEnvForEnable), kNoNamespace);
  fs::create_directories(Root());
  fs::create_directory_symlink("gone", Root() + "/.iSCSI-CONFIG");
  EXPECT_EQ(MessageOf(Util::VerifyEnvForEnable), kNoNamespace);
  EXPECT_TRUE(host_.Log().Texts(LogLevel::Error).empty());
}

TEST_F(HostStateTest, EnableLogsEveryMissingDirectoryBeforeRefusing) {
  const std::string targets = "Util: Target dir " + Root() + "/.iSCSI-CONFIG/targets does not exist";
  const std::string etc = "Util: Etc  dir " + Root() + "/.iSCSI-CONFIG/etc/ does not exist";
  struct Case {
    std::vector<std::string> dirs, errors;
  };
  for (const Case& c : {Case{{}, {targets, etc}}, Case{{"targets"}, {etc}},
                        Case{{"etc"}, {targets}}, Case{{"etc", "targets"}, {}}}) {
    SCOPED_TRACE(c.dirs.size());
    fs::remove_all(Root());
    host_.Log().Clear();
    MakeNamespace(c.dirs);
    EXPECT_EQ(MessageOf(Util::VerifyEnvForEnable), c.errors.empty() ? "" : kBadNamespace);
    EXPECT_THAT(host_.Log().Texts(LogLevel::Error), ElementsAreArray(c.errors));
  }
}

}  // namespace
