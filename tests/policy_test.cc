// Storage policies: the rule language and its messages, the datastore's
// default policy from the host configuration, compliance judged against the
// cluster's membership, and policy updates reaching the namespace objects.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/EntryMarshal.h"
#include "platform/local/AtomicFile.h"
#include "platform/Host.h"
#include "platform/local/LocalNamespaces.h"
#include "platform/local/LocalPolicyService.h"
#include "platform/local/SqliteDirectory.h"
#include "storage/Compliance.h"
#include "storage/Namespace.h"
#include "storage/Policy.h"
#include "support/HostDoubles.h"
#include "support/Messages.h"
#include "support/TestHost.h"

namespace NokCtl::Orva::IscsiTarget {
namespace {

using zel::test::MessageOf;
namespace fs = std::filesystem;
using zel::platform::Compliance;
using zel::platform::CurrentHost;
using zel::platform::LocalPolicyService;
using zel::platform::ParsePolicyRules;
using zel::platform::PolicyRules;

const std::string kHost = "11111111-2222-4333-8444-555555555555";
const std::string kObject = "8f3b6c1e-52d4-4a0b-9c7e-1d2f3a4b5c6d";

std::string VerifyFailure(const std::string& policy) {
  return MessageOf([&] { Util::VerifyPolicy(policy); });
}

// Each rule with its value; absent rules are unset; no rule asks for nothing.
TEST(PolicyText, EveryKnownRuleIsReadWithItsValue) {
  const auto read = [](const std::string& policy) {
    PolicyRules rules;
    std::string why;
    EXPECT_TRUE(ParsePolicyRules(policy, &rules, &why)) << why;
    EXPECT_EQ("", VerifyFailure(policy));
    return rules.locality.value_or("-") + " " + std::to_string(rules.failuresToTolerate.value_or(-1)) +
           " " + std::to_string(rules.stripeWidth.value_or(-1)) + " " +
           (rules.thinProvisioned ? (*rules.thinProvisioned ? "thin" : "thick") : "-");
  };
  EXPECT_EQ("NonPreferred 3 12 thick",
            read(" \"locality\" \"NonPreferred\"  \"failuresToTolerate\" \"3\" \"stripeWidth\" "
                 "\"12\" \"thinProvisioned\" \"false\" "));
  EXPECT_EQ("- 0 1 -", read("\"failuresToTolerate\" \"0\" \"stripeWidth\" \"1\""));
  EXPECT_EQ("Preferred 1 -1 -", read("\"locality\" \"Preferred\" \"failuresToTolerate\" \"1\""));
  EXPECT_EQ("- -1 -1 thin", read("\"thinProvisioned\" \"true\""));
  EXPECT_EQ("- -1 -1 -", read("   "));
  EXPECT_EQ("- -1 -1 -", read(""));
}

TEST(PolicyText, EachRefusalSaysWhatIsWrongAndWhere) {
  const std::string kHead = "Invalid storage policy '";
  struct Case {
    std::string policy, expected;  // `expected` follows "<kHead><policy>': "
  };
  const Case cases[] = {
      {"\"copies\" \"2\"", "unknown rule \"copies\""},
      {"\"Locality\" \"Preferred\"", "unknown rule \"Locality\""},
      {"\"locality\" \"preferred\"",
       "rule \"locality\" takes Preferred or NonPreferred, not \"preferred\""},
      {"\"failuresToTolerate\" \"4\"",
       "rule \"failuresToTolerate\" takes a whole number from 0 to 3, not \"4\""},
      {"\"failuresToTolerate\" \"-1\"",
       "rule \"failuresToTolerate\" takes a whole number from 0 to 3, not \"-1\""},
      {"\"failuresToTolerate\" \"\"",
       "rule \"failuresToTolerate\" takes a whole number from 0 to 3, not \"\""},
      {"\"stripeWidth\" \"0\"", "rule \"stripeWidth\" takes a whole number from 1 to 12, not \"0\""},
      {"\"stripeWidth\" \"99999999999\"",
       "rule \"stripeWidth\" takes a whole number from 1 to 12, not \"99999999999\""},
      {"\"thinProvisioned\" \"yes\"", "rule \"thinProvisioned\" takes true or false, not \"yes\""},
      {"failuresToTolerate=1", "expected a double-quoted rule name at offset 0"},
      // The locality check matches a rule with exactly one blank inside.
      {"\"locality\"  \"Preferred\"", "rule \"locality\" needs one blank and a double-quoted value"},
      {"\"locality\"", "rule \"locality\" needs one blank and a double-quoted value"},
      {"\"locality\" \"Preferred", "unterminated quoted text at offset 11"},
      {"\"stripeWidth\" \"2\"x",
       "expected a blank after the value of rule \"stripeWidth\" at offset 17"},
      {"\"stripeWidth\" \"2\" \"stripeWidth\" \"2\"", "rule \"stripeWidth\" is given twice"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(kHead + c.policy + "': " + c.expected, VerifyFailure(c.policy));
  }
}

// The configuration of `home` once its host.json sets `defaultPolicy`.
zel::platform::HostConfig WithDefaultPolicy(const zel::test::TempHome& home,
                                            const std::string& policy) {
  zel::platform::WriteJsonFileAtomically(home.Path() + "/host.json",
                                         nlohmann::json{{"defaultPolicy", policy}}, 0644);
  return zel::platform::LoadHostConfig(home.Path());
}

TEST(DatastoreDefaultPolicy, IsTheHostConfigurationsOrTolerateOneFailureAndNeverAnInvalidOne) {
  {
    zel::test::ScopedTestHost host;
    EXPECT_EQ("\"failuresToTolerate\" \"1\"", Util::GetDatastoreDefaultPolicy());
  }
  zel::test::TempHome home;
  {
    zel::test::ScopedTestHost host(WithDefaultPolicy(home, "\"locality\" \"Preferred\""));
    EXPECT_EQ("\"locality\" \"Preferred\"", Util::GetDatastoreDefaultPolicy());
  }
  zel::test::ScopedTestHost host(WithDefaultPolicy(home, "mirrored"));
  EXPECT_EQ("Invalid default storage policy 'mirrored' in the host configuration: expected a "
            "double-quoted rule name at offset 0",
            MessageOf([] { Util::GetDatastoreDefaultPolicy(); }));
}

class PolicyCompliance : public ::testing::Test {
 protected:
  void SetUp() override {
    directory_ = zel::platform::NewSqliteDirectory(host_.Home() + "/directory.db");
    service_ = std::make_unique<LocalPolicyService>(*directory_, kHost, &double_);
  }
  Compliance Judged(const std::string& policy) {
    zel::platform::DirectoryEntry entry{zel::platform::kStorageObjectEntryType, kObject, kHost,
                                        kObject, "", 0};
    EXPECT_EQ(NOK_OK, zel::platform::MarshalStorageObjectRecord({kHost, policy}, &entry.payload));
    EXPECT_EQ(NOK_OK, zel::test::PublishAndWait(*directory_, entry));
    const zel::platform::PolicyStatus status = service_->GetObjectPolicyStatus(kObject);
    EXPECT_EQ(policy, status.policy);
    return status.compliance;
  }
  zel::test::ScopedTestHost host_;
  zel::test::ClusterFactsDouble double_{std::make_unique<zel::test::FixedCluster>(kHost)};
  zel::test::FixedCluster& cluster_ = static_cast<zel::test::FixedCluster&>(double_.Target());
  std::unique_ptr<zel::platform::Directory> directory_;
  std::unique_ptr<LocalPolicyService> service_;
};

TEST_F(PolicyCompliance, FailuresToTolerateNeedTwoPerFailurePlusOneMembers) {
  // 2f+1 members comply, 2f do not.
  for (int failures = 0; failures <= 3; ++failures) {
    for (int members : {2 * failures, 2 * failures + 1}) {
      if (members == 0) continue;
      cluster_.SetMembers(members);
      EXPECT_EQ(members == 2 * failures + 1 ? Compliance::Compliant : Compliance::NonCompliant,
                Judged("\"failuresToTolerate\" \"" + std::to_string(failures) + "\""))
          << failures << " failures, " << members << " members";
    }
  }
}

// A locality is judged by placement's rule of a stretched cluster, not by any member naming a site.
TEST_F(PolicyCompliance, LocalityNeedsTheClusterStretchedAsPlacementSeesIt) {
  struct Case {
    std::vector<std::string> sites;
    std::string preferred;
    Compliance expected;
  };
  const Case cases[] = {
      {{"", "", ""}, "", Compliance::NonCompliant},
      {{"west", "", ""}, "west", Compliance::NonCompliant},
      {{"west", "east", "east"}, "", Compliance::NonCompliant},
      {{"west", "east", "east"}, "north", Compliance::NonCompliant},
      {{"west", "east", "north"}, "west", Compliance::NonCompliant},
      {{"west", "east", ""}, "east", Compliance::Compliant},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.sites) + " preferred " + c.preferred);
    cluster_.info.members.clear();
    for (const std::string& site : c.sites) cluster_.info.members.push_back({site + "-host", "", site});
    cluster_.preferredFaultDomain = c.preferred;
    EXPECT_EQ(c.expected, Judged("\"locality\" \"Preferred\""));
  }
  EXPECT_EQ(Compliance::NonCompliant,
            Judged("\"locality\" \"Preferred\" \"failuresToTolerate\" \"2\""));
  double_.FailNext("GetPreferredFaultDomain", NOK_TIMEOUT);
  EXPECT_EQ(Compliance::Unknown, Judged("\"locality\" \"Preferred\""));
  cluster_.SetMembers(5, 5);  // a stored policy that does not parse is not complied with
  EXPECT_EQ(Compliance::NonCompliant, Judged("mirrored"));
  EXPECT_TRUE(host_.Log().Contains("PolicyService: Storage object " + kObject +
                                   " has an unreadable policy: expected a double-quoted rule "
                                   "name at offset 0"));
}

TEST_F(PolicyCompliance, UnknownMembershipLeavesOnlyRulesThatNeedItUnknown) {
  double_.FailNext("GetClusterInfo", NOK_TIMEOUT, double_.kAlways);
  EXPECT_EQ(Compliance::Compliant, Judged(""));
  EXPECT_EQ(Compliance::Compliant, Judged("\"stripeWidth\" \"12\" \"thinProvisioned\" \"true\""));
  EXPECT_EQ(Compliance::Unknown, Judged("\"failuresToTolerate\" \"1\""));
  EXPECT_TRUE(host_.Log().Contains("PolicyService: Cannot judge the compliance of storage object " +
                                   kObject + ", the membership is unknown: Timeout"));
}

class PolicyUpdate : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(host_.Config().datastoreRoot);
    zel::platform::HostConfig config = host_.Config();
    config.hostUuid = kHost;
    auto directory = zel::platform::NewSqliteDirectory(host_.Home() + "/directory.db");
    auto cluster = std::make_unique<zel::test::FixedCluster>(kHost);
    cluster->SetMembers(3);
    host_.Install<zel::test::PolicyServiceDouble>(
        std::make_unique<LocalPolicyService>(*directory, kHost, cluster.get()));
    host_.Install<zel::test::ClusterFactsDouble>(std::move(cluster));
    host_.Install<zel::test::DirectoryDouble>(std::move(directory));
    host_.Install<zel::test::NamespacesDouble>(zel::platform::NewLocalNamespaces(config));
  }
  std::string PolicyOf(const std::string& uuid) {
    OrvaComplianceHandle handle{&CurrentHost().Policies()};
    std::string policy;
    bool compliant = false;
    Util::GetPolicyComplianceStatusForObject(&handle, uuid, policy, compliant);
    return policy + (compliant ? " compliant" : " not compliant");
  }
  zel::test::ScopedTestHost host_;
};

TEST_F(PolicyUpdate, NewNamespacePolicyReachesItsObjectAndCompliance) {
  Util::CreateNamespaceDir("\"failuresToTolerate\" \"1\"");
  const std::string uuid = Util::GetNamespaceUuid();
  EXPECT_EQ("\"failuresToTolerate\" \"1\" compliant", PolicyOf(uuid));
  Util::UpdateNamespacePolicy("\"failuresToTolerate\" \"2\"");
  EXPECT_EQ("\"failuresToTolerate\" \"2\" not compliant", PolicyOf(uuid));
  CurrentHost().GetNamespaces().CreateNamespace(host_.Config().datastoreRoot, kObject, "", 0);
  Util::UpdateTargetNamespacePolicy(kObject, "\"stripeWidth\" \"3\"");
  EXPECT_EQ("\"stripeWidth\" \"3\" compliant", PolicyOf(kObject));
}

TEST_F(PolicyUpdate, FailureNamesTheNamespaceAndIsLogged) {
  const std::string message = "Failed to update storage policy of namespace " + kObject +
                              " with error: Namespace " + kObject + " does not exist in " +
                              host_.Config().datastoreRoot;
  EXPECT_EQ(message, MessageOf([] { Util::UpdateTargetNamespacePolicy(kObject, ""); }));
  EXPECT_TRUE(host_.Log().Contains("Util: " + message));
}

}  // namespace
}  // namespace NokCtl::Orva::IscsiTarget
