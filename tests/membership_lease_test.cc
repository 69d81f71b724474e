// A host's membership held under a lease: renewals through an outage shorter than the lease
// keep it, an outage as long as the lease (by the test clock) or a lease the directory ended
// counts as leaving once, the next renewal that reaches the directory joins again, and a writer
// that does not hold the lease (zelctl setting maintenance) leaves the entry bound to it.
#include <gtest/gtest.h>

#include <memory>

#include "platform/local/LocalClusterFacts.h"
#include "platform/local/SqliteDirectory.h"
#include "service/MembershipLease.h"
#include "support/HostDoubles.h"
#include "support/TestHost.h"

namespace zel::test {
namespace {

using NokCtl::Orva::IscsiTarget::MembershipLease;
constexpr int kTtl = 10;
constexpr uint64_t kSecond = 1000000;

platform::HostConfig HostOf(const TempHome& home) {
  platform::HostConfig config = platform::EmbeddedHostConfig(home.Path());
  config.hostUuid = "11111111-2222-4333-8444-555555555555";
  config.hostName = "h1";
  return config;
}

class MembershipLeaseTest : public ::testing::Test {
 protected:
  // This host's member entry as another process reads it; null when absent.
  std::unique_ptr<platform::ClusterMember> Member() {
    platform::ClusterInfo info;
    EXPECT_EQ(reader_.GetClusterInfo(&info), NOK_OK);
    for (const platform::ClusterMember& member : info.members) {
      if (member.hostUuid == config_.hostUuid) return std::make_unique<platform::ClusterMember>(member);
    }
    return nullptr;
  }

  TempHome home_;
  const platform::HostConfig config_ = HostOf(home_);
  DirectoryDouble directory_{platform::NewSqliteDirectory(home_.Path() + "/directory.db")};
  platform::LocalClusterFacts facts_{config_, directory_};
  platform::LocalClusterFacts reader_{config_, directory_};
  TestClock clock_;
  int lost_ = 0;
  MembershipLease lease_{facts_, clock_, kTtl, [this] { ++lost_; }};
};

TEST_F(MembershipLeaseTest, OutagesShorterThanTheLeaseKeepItLongerOnesLeaveOnceAndRejoin) {
  ASSERT_EQ(facts_.Announce(), NOK_OK);
  ASSERT_TRUE(Member());
  EXPECT_FALSE(Member()->alive);  // entered by a process that holds no lease
  lease_.Renew();
  ASSERT_TRUE(Member());
  EXPECT_TRUE(Member()->alive);

  // zelctl's maintenance write keeps the entry bound.
  ASSERT_EQ(reader_.SetMaintenance(true), NOK_OK);
  EXPECT_TRUE(Member()->alive && Member()->maintenance);

  struct Step {
    uint64_t after;        // test-clock seconds since the previous renewal
    NOK_ReturnStatus fault;  // what the renewal meets (0: the directory)
    int lost;              // leavings counted so far
  };
  const Step steps[] = {
      {3, NOK_TIMEOUT, 0}, {3, NOK_TIMEOUT, 0}, {3, NOK_NO_CONNECTION, 0},  // 9 s: still held
      {1, NOK_TIMEOUT, 1},                                                    // 10 s: gone
      {3, NOK_TIMEOUT, 1},                                                    // counted once
      {3, 0, 1},  // reached again: the lease was still running in the directory
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(::testing::Message() << "after " << step.after << " s, fault " << step.fault);
    clock_.SleepMicros(step.after * kSecond);
    if (step.fault != 0) directory_.FailNext("RenewLease", static_cast<int>(step.fault));
    lease_.Renew();
    EXPECT_EQ(lost_, step.lost);
  }

  // Ended behind its back: this host is out of the membership, the next renewal learns it
  // (leaving once more) and the one after joins with a fresh lease.
  std::vector<platform::DirectoryEntry> entries;
  ASSERT_EQ(directory_.Target().Query(platform::kClusterMemberEntryType, platform::kClusterMembersKey,
                                      &entries),
            NOK_OK);
  ASSERT_EQ(directory_.Target().RevokeLease(entries[0].lease), NOK_OK);
  EXPECT_FALSE(Member());
  lease_.Renew();
  EXPECT_EQ(lost_, 2);
  lease_.Renew();
  ASSERT_TRUE(Member());
  EXPECT_TRUE(Member()->alive);
  EXPECT_EQ(lost_, 2);
}

}  // namespace
}  // namespace zel::test
