// Cluster membership of local hosts: a host that builds its services joins
// the membership in the shared directory, every other process and host sees
// it there, and a host configured out of the cluster leaves it.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "local_directory_support.h"
#include "platform/Host.h"
#include "platform/local/LocalClusterFacts.h"
#include "platform/local/SqliteDirectory.h"
#include "support/Process.h"
#include "support/TestHost.h"

namespace zel {
namespace platform {
namespace {

using test::ChildControl;
using test::ChildProcess;
using test::TempHome;

// Two hosts of one cluster, each with its own home, sharing the directory
// database in the first host's home as the hosts of one machine do.
class LocalClusterMembership : public ::testing::Test {
 protected:
  HostConfig ConfigA() const {
    HostConfig config = LoadHostConfig(homeA_.Path());
    config.hostName = "node-a";
    config.faultDomain = "site-1";
    return config;
  }
  HostConfig ConfigB() const {
    HostConfig config = LoadHostConfig(homeB_.Path());
    config.hostName = "node-b";
    config.faultDomain = "site-2";
    config.directoryPath = homeA_.Path() + "/directory.db";
    return config;
  }

  static ClusterInfo InfoOf(Host& host) {
    ClusterInfo info;
    EXPECT_EQ(NOK_OK, host.Cluster().GetClusterInfo(&info));
    return info;
  }

  static const ClusterMember* Find(const ClusterInfo& info, const std::string& hostUuid) {
    auto found = std::find_if(info.members.begin(), info.members.end(),
                              [&](const ClusterMember& m) { return m.hostUuid == hostUuid; });
    return found == info.members.end() ? nullptr : &*found;
  }

  std::vector<DirectoryEntry> MemberEntries() const {
    std::unique_ptr<Directory> directory = NewSqliteDirectory(homeA_.Path() + "/directory.db");
    std::vector<DirectoryEntry> entries;
    directory->Query(kClusterMemberEntryType, kClusterMembersKey, &entries);
    return entries;
  }

  TempHome homeA_;
  TempHome homeB_;
};

TEST_F(LocalClusterMembership, RegistrationIsSeenByAnotherProcessInBothDirections) {
  const HostConfig a = ConfigA();
  const HostConfig b = ConfigB();
  // Forked before this process opens the directory, so that the child
  // starts without the parent's directory threads.
  ChildProcess child([&](ChildControl& control) {
    control.AwaitRelease();
    std::unique_ptr<Host> host = NewLocalServiceHost(b, LogLevel::Error);
    const ClusterInfo info = InfoOf(*host);
    const ClusterMember* seen = Find(info, a.hostUuid);
    if (!info.isMember) return 1;
    if (seen == nullptr || seen->hostName != "node-a" || seen->faultDomain != "site-1") return 2;
    return 0;
  });

  std::unique_ptr<Host> host = NewLocalServiceHost(a, LogLevel::Error);
  child.Release();
  ASSERT_EQ(0, child.Join());

  const ClusterInfo info = InfoOf(*host);
  EXPECT_TRUE(info.isMember);
  ASSERT_EQ(2u, info.members.size());
  const ClusterMember* seen = Find(info, b.hostUuid);
  ASSERT_NE(nullptr, seen);
  EXPECT_EQ("node-b", seen->hostName);
  EXPECT_EQ("site-2", seen->faultDomain);
  EXPECT_EQ(a.hostUuid, host->Cluster().LocalHostUuid());
}

TEST_F(LocalClusterMembership, HostConfiguredOutOfTheClusterIsNotAMemberAndLeavesTheMembership) {
  HostConfig a = ConfigA();
  NewLocalServiceHost(a, LogLevel::Error);
  std::unique_ptr<Host> b = NewLocalServiceHost(ConfigB(), LogLevel::Error);
  ASSERT_NE(nullptr, Find(InfoOf(*b), a.hostUuid));

  a.clusterMember = false;
  std::unique_ptr<Host> outside = NewLocalServiceHost(a, LogLevel::Error);

  const ClusterInfo own = InfoOf(*outside);
  EXPECT_FALSE(own.isMember);
  EXPECT_EQ(nullptr, Find(own, a.hostUuid));
  const ClusterInfo other = InfoOf(*b);
  EXPECT_TRUE(other.isMember);
  EXPECT_EQ(nullptr, Find(other, a.hostUuid));
}

TEST_F(LocalClusterMembership, ChangedNameOrSiteIsRepublishedAndAnUnchangedOneIsNotRewritten) {
  HostConfig a = ConfigA();
  NewLocalServiceHost(a, LogLevel::Error);
  const uint64_t first = MemberEntries().at(0).version;

  NewLocalServiceHost(a, LogLevel::Error);
  EXPECT_EQ(first, MemberEntries().at(0).version);

  a.faultDomain = "site-3";
  std::unique_ptr<Host> moved = NewLocalServiceHost(a, LogLevel::Error);
  EXPECT_LT(first, MemberEntries().at(0).version);
  const ClusterInfo info = InfoOf(*moved);
  ASSERT_EQ(1u, info.members.size());
  EXPECT_EQ("site-3", info.members[0].faultDomain);
  EXPECT_EQ(a.hostUuid, MemberEntries().at(0).ownerHost);
}

TEST_F(LocalClusterMembership, MemberWithAMalformedEntryIsListedWithoutAName) {
  test::ScopedTestHost testHost;
  std::unique_ptr<Host> a = NewLocalServiceHost(ConfigA(), LogLevel::Error);
  const std::string stranger = "66666666-7777-4888-9999-aaaaaaaaaaaa";
  DirectoryEntry entry;
  entry.type = kClusterMemberEntryType;
  entry.key = kClusterMembersKey;
  entry.ownerHost = stranger;
  entry.entryId = stranger;
  entry.payload = "node-x";
  ASSERT_EQ(NOK_OK, test::PublishAndWait(a->GetDirectory(), entry));

  const ClusterInfo info = InfoOf(*a);
  const ClusterMember* seen = Find(info, stranger);
  ASSERT_NE(nullptr, seen);
  EXPECT_EQ("", seen->hostName);
  EXPECT_TRUE(testHost.Log().Contains("ClusterFacts: Member entry of host " + stranger +
                                      " has a malformed payload"));
}

TEST_F(LocalClusterMembership, EmptyMembershipIsNoFailure) {
  std::unique_ptr<Directory> directory = NewSqliteDirectory(homeA_.Path() + "/directory.db");
  platform::LocalClusterFacts facts(ConfigA(), *directory);
  ClusterInfo info;
  info.isMember = true;
  EXPECT_EQ(NOK_OK, facts.GetClusterInfo(&info));
  EXPECT_FALSE(info.isMember);
  EXPECT_TRUE(info.members.empty());
}

TEST_F(LocalClusterMembership, DirectoryFailureGivesItsStatus) {
  test::UnreachableDirectory directory(NOK_NO_CONNECTION);
  platform::LocalClusterFacts facts(ConfigA(), directory);
  ClusterInfo info;
  EXPECT_EQ(NOK_NO_CONNECTION, facts.GetClusterInfo(&info));
  EXPECT_EQ(NOK_NO_CONNECTION, facts.Announce());

  HostConfig outside = ConfigA();
  outside.clusterMember = false;
  EXPECT_EQ(NOK_NO_CONNECTION, platform::LocalClusterFacts(outside, directory).Announce());
}

}  // namespace
}  // namespace platform
}  // namespace zel
