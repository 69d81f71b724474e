// A host's site in a stretched cluster, and the move of a misplaced local target.
#include <gtest/gtest.h>

#include "placement/Affinity.h"
#include "placement/Sites.h"
#include "platform/Host.h"
#include "platform/local/LocalClusterFacts.h"
#include "support/ServiceHome.h"

namespace {
namespace Util = NokCtl::Orva::IscsiTarget::Util;
using zel::test::kPeerHostUuid;

// This host, the peer and a third member in fault domains `sites`, in turn.
zel::test::TestServices Install(zel::test::ServiceHome& home, const std::string (&sites)[3],
                                const std::string& preferred) {
  home.SetHostSetting("faultDomain", sites[0]);
  home.SetHostSetting("options", {{"ORVA.ZelStretchedCluster", 1}});
  zel::test::TestServices services = home.InstallTestHost();
  zel::platform::HostConfig member = zel::platform::LoadHostConfig(home.Path());
  for (int i : {1, 2}) {
    member.hostUuid = i == 1 ? kPeerHostUuid : "9c0d6e2a-3b1f-4c5d-8e7f-a1b2c3d4e5f6";
    member.faultDomain = sites[i];
    EXPECT_EQ(zel::platform::LocalClusterFacts(member, *services.directory).Announce(), NOK_OK);
  }
  EXPECT_EQ(zel::platform::CurrentHost().Cluster().SetPreferredFaultDomain(preferred), NOK_OK);
  return services;
}

TEST(Sites, AHostsSiteNeedsExactlyTwoFaultDomainsOneOfThemPreferred) {
  const struct {
    std::string sites[3], preferred, mine, peers;
  } rows[] = {{{"a", "b", "b"}, "a", "Preferred", "NonPreferred"},
              {{"a", "b", ""}, "b", "NonPreferred", "Preferred"},
              // A third site; none preferred; the preferred one named by no member; one site.
              {{"a", "b", "c"}, "a", "", ""}, {{"a", "b", "b"}, "", "", ""},
              {{"a", "b", "b"}, "c", "", ""}, {{"a", "a", "a"}, "a", "", ""}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.sites[0] + row.sites[1] + row.sites[2] + " preferred " + row.preferred);
    zel::test::ServiceHome home;
    Install(home, row.sites, row.preferred);
    std::string faultDomain = "stale";
    EXPECT_EQ(Util::GetNodeSiteDomain(home.HostUuid(), &faultDomain), row.mine);
    EXPECT_EQ(faultDomain, row.mine.empty() ? "" : "a");
    EXPECT_EQ(Util::GetNodeSiteDomain(kPeerHostUuid, &faultDomain), row.peers);
  }
}

TEST(Sites, OnlyALocalTargetWhoseAffinityNamesTheOtherSiteMovesThere) {
  for (const std::string affinity : {"NonPreferred", "Preferred"}) {
    zel::test::ServiceHome home;
    std::string conf = zel::test::kStandardConf;
    const size_t at = conf.find(std::string("\toption uuid ") + zel::test::kFinanceUuid);
    home.WriteConf(conf.insert(at, "\toption fault-domain " + affinity + "\n"));
    const zel::test::TestServices services = Install(home, {"a", "b", "b"}, "a");
    Util::CheckLocalTargetAffinity();
    const std::vector<std::string> calls = services.objects->Calls();
    ASSERT_EQ(calls.size(), affinity == "Preferred" ? 0u : 1u);
    if (calls.empty()) continue;
    const std::string to = calls[0].substr(calls[0].rfind(' ') + 1);
    EXPECT_NE(to, home.HostUuid()) << calls[0];  // the peer or the third, both in "b"
    EXPECT_TRUE(services.log->Contains("Util: Move target (finance) to DestNode: " + to));
  }
}
}  // namespace
