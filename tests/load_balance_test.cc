// Balancing of target ownership: the hash every host must compute alike,
// the plans of both methods on the documented counts, what is never moved,
// and the transfer behind it (compare-and-set on the owner, a failure that
// leaves the other moves going).
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "directory/HostLookup.h"
#include "placement/ConsistHash.h"
#include "placement/LoadBalance.h"
#include "platform/local/LocalClusterFacts.h"
#include "support/Messages.h"
#include "support/ServiceHome.h"

namespace NokCtl::Orva::IscsiTarget::Util {
namespace {

using HostCtl::Orva::IscsiTarget::LunInfo;
using HostCtl::Orva::IscsiTarget::TargetInfo;
using Moves = std::map<std::string, int>;  // destination -> targets sent there

TargetInfo Target(const std::string& uuid, const std::string& site = "",
                  const std::vector<std::string>& lunStatus = {"online"}) {
  TargetInfo target(uuid, "iqn.2026-11.local.zel:" + uuid, uuid, "", 3260, "None", "", "", uuid, "",
                    "", "", site, true);
  for (const std::string& status : lunStatus) {
    LunInfo lun;
    lun.status = status;
    target.luns.push_back(lun);
  }
  return target;
}

// Plans for host "L" with `counts` (its own count is its number of
// targets), every transfer succeeding; destination -> number.
std::vector<BalancePass> Plan(int method, TargetCounts counts, BalanceInput input = {}) {
  input.localHost = "L";
  input.clusterCounts = counts;
  for (int i = static_cast<int>(input.localTargets.size()); i < counts["L"]; ++i) {
    input.localTargets.push_back(Target("t" + std::to_string(i)));
  }
  ZelLoadBalance job([](const std::string&, const std::string&) { return NOK_OK; });
  job.Load(input, method);
  job.Balance();
  return job.Passes();
}

Moves Destinations(const std::vector<BalancePass>& passes) {
  Moves moves;
  for (const BalancePass& pass : passes) {
    for (const BalanceMove& move : pass.moves) ++moves[move.destination];
  }
  return moves;
}

TEST(HashKey, MatchesThePublishedHashBitForBit) {
  std::ifstream vectors(ZEL_TESTDATA_DIR "/hash64-level42.tsv");
  ASSERT_TRUE(vectors) << "test vectors missing";
  std::string line;
  int rows = 0;
  while (std::getline(vectors, line)) {
    const size_t tab = line.rfind('\t');
    const std::string text = line.substr(1, tab - 2);  // between the quotes
    SCOPED_TRACE(text);
    EXPECT_EQ(GetHashKey(text), std::stoull(line.substr(tab + 1), nullptr, 16));
    ++rows;
  }
  EXPECT_GE(rows, 13);
}

TEST(GreedyPlan, FillsTheLeastLoadedHostsAndAgreesAcrossHosts) {
  struct Row {
    const char* name;
    TargetCounts counts;
    Moves expected;
  };
  const Row rows[] = {
      {"one host above", {{"L", 5}, {"B", 1}, {"C", 0}}, {{"C", 2}, {"B", 1}}},
      // L ranks first, so it fills the host last in the order: equal
      // counts are ordered by identity, D after C.
      {"the larger of two above", {{"L", 6}, {"X", 5}, {"C", 0}, {"D", 0}}, {{"D", 3}}},
      // L ranks second: the first host's surplus covers D, L fills C.
      {"the smaller of two above", {{"L", 5}, {"X", 6}, {"C", 0}, {"D", 0}}, {{"C", 2}}},
      {"at the average", {{"L", 2}, {"B", 2}, {"C", 1}}, {}},
      {"below the average", {{"L", 0}, {"B", 5}, {"C", 1}}, {}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(Destinations(Plan(kLoadBalanceGreedy, row.counts)), row.expected);
  }
}

TEST(GreedyPlan, NeverMovesTargetsWithoutAnOnlineLun) {
  BalanceInput input;
  input.localTargets = {Target("offline", "", {"offline"}), Target("bare", "", {}), Target("a"),
                        Target("b", "", {"offline", "online"}), Target("c")};
  const auto passes = Plan(kLoadBalanceGreedy, {{"L", 5}, {"B", 1}, {"C", 0}}, input);
  ASSERT_EQ(passes.size(), 1u);
  std::vector<std::string> moved;
  for (const BalanceMove& move : passes[0].moves) moved.push_back(move.target);
  EXPECT_EQ(moved, (std::vector<std::string>{"a", "b", "c"}));
}

TEST(SitePlan, MovesAffineTargetsWithinTheSiteThenFreeOnesAcrossTheCluster) {
  BalanceInput input;
  input.stretched = true;
  input.siteCounts = {{"L", 4}, {"S", 0}};
  for (const char* uuid : {"p0", "p1", "p2", "p3"})
    input.localTargets.push_back(Target(uuid, "Preferred"));
  for (const char* uuid : {"f0", "f1"}) input.localTargets.push_back(Target(uuid));
  const auto passes = Plan(kLoadBalanceGreedy, {{"L", 6}, {"S", 0}, {"C", 0}}, input);
  ASSERT_EQ(passes.size(), 2u);
  EXPECT_EQ(passes[0].mode, kSiteBalance);
  EXPECT_EQ(passes[1].mode, kClusterBalance);
  // The cluster pass sees the counts the site pass left: S holds 2 now.
  EXPECT_EQ(passes[1].counts.at("S"), 2);
  std::vector<std::string> moves;
  for (const BalancePass& pass : passes) {
    for (const BalanceMove& move : pass.moves)
      moves.push_back(move.target + ">" + move.destination);
  }
  EXPECT_EQ(moves, (std::vector<std::string>{"p0>S", "p1>S", "f0>C", "f1>C"}));
}

TEST(ConsistHashPlan, OneUnderLoadedHostTakesEverythingWithoutHashing) {
  EXPECT_EQ(Destinations(Plan(kLoadBalanceConsistHash, {{"L", 7}, {"B", 4}, {"C", 1}})),
            (Moves{{"C", 3}}));
}

TEST(ConsistHashPlan, AFullHostLeavesTheRingAndTheRestGoElsewhere) {
  // Average 9: a host is full once its remaining deficit is 1 (9 / 8).
  const TargetCounts counts = {{"L", 30}, {"B", 6}, {"C", 0}, {"D", 0}};
  // B (deficit 3) and D (9) stop one short of the average; the targets
  // hashed to them afterwards go to C, whose deficit is not tested again
  // for them, so C ends above the average. All 21 above it move.
  const Moves expected = {{"B", 2}, {"C", 11}, {"D", 8}};
  EXPECT_EQ(Destinations(Plan(kLoadBalanceConsistHash, counts)), expected);
}

// ---- Through the host: options, membership, directory and transfers ----

class HostBalanceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    home_.SetHostSetting("options", {{"ORVA-iSCSI.zelLoadBalanceMethod", kLoadBalanceGreedy},
                                     {"ORVA-iSCSI.zelLoadBalancePeriod", 1}});
  }
  void Install() { services_ = home_.InstallTestHost(); }
  // A third member besides this host and the peer.
  void AddThirdMember() {
    zel::platform::HostConfig third = zel::platform::LoadHostConfig(home_.Path());
    third.hostUuid = kThirdHost;
    third.hostName = "third-host";
    third.clusterMember = true;
    ASSERT_EQ(zel::platform::LocalClusterFacts(third, *services_.directory).Announce(), NOK_OK);
  }
  // `count` more targets of this host, each with one online LUN.
  std::vector<std::string> AddLocalTargets(int count) {
    std::string conf = zel::test::kStandardConf;
    std::vector<std::string> uuids;
    for (int i = 0; i < count; ++i) {
      const std::string uuid = "00000000-0000-4000-8000-00000000000" + std::to_string(i);
      conf += "target iqn.2026-11.local.zel:t" + std::to_string(i) + " {\n\talias \"t" +
              std::to_string(i) + "\"\n\toption uuid " + uuid + "\n\tlun 0 {\n\t\tpath " + uuid +
              "/d.qdsk\n\t\tsize 2048\n\t}\n}\n";
      home_.AnnounceObject(uuid, home_.HostUuid());
      uuids.push_back(uuid);
    }
    home_.WriteConf(conf);
    return uuids;
  }

  static constexpr const char* kThirdHost = "9c0d6e2a-3b1f-4c5d-8e7f-a1b2c3d4e5f6";
  zel::test::ServiceHome home_;
  zel::test::TestServices services_{};
};

TEST_F(HostBalanceTest, TwoMembersAbortWithTheWarningAndMoveNothing) {
  Install();
  PerformTargetLoadBlance(4);  // one minute of 15-second passes
  EXPECT_TRUE(services_.log->Contains(
      "Util: Abort load balance due to: Not enough nodes in the cluster for load balance. The "
      "minimal 3 nodes are needed, now only 2"));
  EXPECT_EQ(services_.objects->Count("TransferOwnership"), 0);
}

TEST(BalanceSchedule, RunsOnlyWhenOnAndItsPeriodHasComeOnTheRightDiskFormat) {
  struct Row {
    int method, period, tick, diskFormat;
    bool due;
  };
  const Row rows[] = {
      {kLoadBalanceGreedy, 1, 4, 11, true},      {kLoadBalanceGreedy, 1, 3, 11, false},
      {kLoadBalanceGreedy, 5, 20, 11, true},     {kLoadBalanceGreedy, 5, 4, 11, false},
      {kLoadBalanceGreedy, 0, 4, 11, false},     {kLoadBalanceOff, 1, 4, 11, false},
      {kLoadBalanceConsistHash, 1, 8, 10, true},  // due, but refused below
  };
  for (const Row& row : rows) {
    SCOPED_TRACE("method " + std::to_string(row.method) + " period " + std::to_string(row.period) +
                 " tick " + std::to_string(row.tick));
    zel::test::ServiceHome home;
    home.SetHostSetting("options", {{"ORVA-iSCSI.zelLoadBalanceMethod", row.method},
                                    {"ORVA-iSCSI.zelLoadBalancePeriod", row.period}});
    home.SetHostSetting("diskFormatVersion", row.diskFormat);
    home.InstallTestHost();
    ZelLoadBalanceWorker worker;
    if (row.diskFormat < 11) {
      EXPECT_EQ(zel::test::MessageOf([&] { worker.ValidateLoadBalance(row.tick); }),
                "Some hosts didn't finish Disk Format upgrade of Orva 7.0u1, reject load balance "
                "until upgrade completed.");
    } else {
      EXPECT_EQ(worker.ValidateLoadBalance(row.tick), row.due);
    }
  }
}

TEST_F(HostBalanceTest, AFailedTransferLeavesTheOthersMoving) {
  const std::vector<std::string> mine = AddLocalTargets(4);  // finance and 4 more: 5, 1, 0
  Install();
  AddThirdMember();
  PerformTargetLoadBlance(3);  // not a whole period: nothing happens
  EXPECT_EQ(services_.objects->Count("TransferOwnership"), 0);

  services_.objects->FailNext("TransferOwnership", NOK_BUSY);
  PerformTargetLoadBlance(8);
  // finance's only online LUN makes it movable too; the first of three
  // planned transfers fails and stays.
  ASSERT_EQ(services_.objects->Count("TransferOwnership"), 3);
  EXPECT_TRUE(services_.log->Contains("Util: Failed to transfer target uuid " +
                                      std::string(zel::test::kFinanceUuid) + " (" +
                                      NOK_ReturnStatusToString(NOK_BUSY) + ")"));
  std::map<std::string, int> owners;
  for (const std::string& uuid : mine) ++owners[GetTargetOwnerHostUuid(uuid)];
  ++owners[GetTargetOwnerHostUuid(zel::test::kFinanceUuid)];
  EXPECT_EQ(owners, (std::map<std::string, int>{
                        {home_.HostUuid(), 3}, {kThirdHost, 1}, {zel::test::kPeerHostUuid, 1}}));
}

TEST_F(HostBalanceTest, TransferIsACompareAndSetOnTheOwner) {
  Install();
  AddThirdMember();
  zel::platform::ObjectManager& objects = *services_.objects;
  const std::string self = home_.HostUuid();
  // Not the owner (the peer's target), nor for another host, nor to a
  // stranger: refused, and nothing is written.
  const int updates = services_.directory->Count("AsyncUpdate");
  EXPECT_EQ(objects.TransferOwnership(zel::test::kLabUuid, self, kThirdHost), NOK_EXISTS);
  EXPECT_EQ(objects.TransferOwnership(zel::test::kLabUuid, zel::test::kPeerHostUuid, kThirdHost),
            NOK_EXISTS);
  EXPECT_EQ(objects.TransferOwnership(zel::test::kFinanceUuid, self, "stranger"), NOK_BAD_PARAM);
  EXPECT_EQ(services_.directory->Count("AsyncUpdate"), updates);
  EXPECT_EQ(GetTargetOwnerHostUuid(zel::test::kLabUuid), zel::test::kPeerHostUuid);

  // Another host takes finance between the read and the write: the owner
  // is decided again on the stored record, and the transfer is refused.
  bool raced = false;
  services_.directory->Before("AsyncUpdate", [&] {
    if (raced) return;
    raced = true;
    home_.AnnounceObject(zel::test::kFinanceUuid, zel::test::kPeerHostUuid);
  });
  EXPECT_EQ(objects.TransferOwnership(zel::test::kFinanceUuid, self, kThirdHost), NOK_EXISTS);
  EXPECT_EQ(GetTargetOwnerHostUuid(zel::test::kFinanceUuid), zel::test::kPeerHostUuid);
}

}  // namespace
}  // namespace NokCtl::Orva::IscsiTarget::Util
