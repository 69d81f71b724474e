// Site affinity against storage policies: which location and policy pairs
// are refused, and with which message on creation and on update.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "placement/Affinity.h"
#include "support/HostDoubles.h"
#include "support/Messages.h"

namespace NokCtl::Orva::IscsiTarget::Util {
namespace {

using zel::test::MessageOf;
using HostCtl::Orva::IscsiTarget::LunInfo;
using HostCtl::Orva::IscsiTarget::TargetCreateParam;
using HostCtl::Orva::IscsiTarget::TargetInfo;

const std::string kPreferred = R"("locality" "Preferred" "failuresToTolerate" "1")";
const std::string kNonPreferred = R"("stripeWidth" "2" "locality" "NonPreferred")";
const std::string kNoLocality = R"("failuresToTolerate" "1")";
const char kLunMessage[] = "Incompatible between target location and lun policy locality";

TargetCreateParam Param(const std::string& location, const std::string& policy) {
  TargetCreateParam param;
  param.alias = "t1";
  param.faultDomain = location;
  param.policy = policy;
  return param;
}

TargetInfo Target(const std::string& location, const std::vector<std::string>& lunPolicies) {
  TargetInfo target("t1", "iqn.1998-01.local.zel:t1", "ns-1", "", 3260, "No-Authentication", "",
                    "", "ns-1", "", "", "", location, false);
  for (size_t i = 0; i < lunPolicies.size(); ++i) {
    LunInfo lun;
    lun.id = static_cast<int32_t>(i);
    lun.uuid = "lun-" + std::to_string(i);
    lun.policy = lunPolicies[i];
    target.luns.push_back(lun);
  }
  return target;
}

TEST(PolicyLocality, OnlyOppositeSitesAreIncompatible) {
  struct Row {
    std::string location, policy;
    bool compatible;
  };
  const Row rows[] = {
      {"Preferred", kPreferred, true},        {"Preferred", kNonPreferred, false},
      {"NonPreferred", kPreferred, false},    {"NonPreferred", kNonPreferred, true},
      {"Preferred", kNoLocality, true},       {"NonPreferred", "", true},
      {"", kNonPreferred, true},              {"None", kPreferred, true},
      // The rule is found by its exact text only, Preferred first.
      {"Preferred", R"("locality"  "NonPreferred")", true},
      {"NonPreferred", R"("locality" "NonPreferred" "locality" "Preferred")", false},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(row.compatible, IsLocationCompatibleWithPolicy(row.location, row.policy))
        << row.location << " / " << row.policy;
  }
}

TEST(NewTargetAffinity, OppositeSitePolicyIsRefusedAndMissingEitherSideIsNot) {
  for (const auto& [location, policy, message] :
       std::vector<std::tuple<std::string, std::string, std::string>>{
           {"NonPreferred", kPreferred, "Incompatible between Target location and policy locality"},
           {"Preferred", kPreferred, ""}, {"Preferred", "", ""}, {"", kNonPreferred, ""}}) {
    EXPECT_EQ(message, MessageOf([&] { VerifyNewTargetAffinity(Param(location, policy)); }));
  }
}

// The message of updating `current` with `param` with compliance `handle`.
std::string UpdateMessage(const TargetCreateParam& param, const TargetInfo& current,
                          OrvaComplianceHandle* handle = nullptr) {
  return MessageOf([&] { VerifyUpdateTargetAffinity(handle, param, current); });
}

TEST(UpdateTargetAffinity, NewPolicyMeetsTheKeptLocationAndNewLocationEveryLunUnlessNone) {
  EXPECT_EQ("Incompatible between target location and policy locality",
            UpdateMessage(Param("", kNonPreferred), Target("Preferred", {})));
  const TargetInfo current = Target("NonPreferred", {kNoLocality, kNonPreferred});
  EXPECT_EQ(kLunMessage, UpdateMessage(Param("Preferred", ""), current));
  EXPECT_EQ("", UpdateMessage(Param("", kNonPreferred), current));
  // None clears the location whatever the policies.
  EXPECT_EQ("", UpdateMessage(Param("None", kNonPreferred), Target("Preferred", {kNonPreferred, ""})));
}

TEST(UpdateTargetAffinity, LunPolicyMissingFromTheRecordIsReadFromTheStorageObject) {
  zel::test::PolicyServiceDouble policies(std::make_unique<zel::test::FixedPolicies>(
      std::map<std::string, std::string>{{"lun-0", kNoLocality}, {"lun-1", kPreferred}}));
  OrvaComplianceHandle handle{&policies};
  const TargetInfo current = Target("Preferred", {"", ""});
  EXPECT_EQ(kLunMessage, UpdateMessage(Param("NonPreferred", ""), current, &handle));
  EXPECT_EQ("", UpdateMessage(Param("", kPreferred), current, &handle));
  // A policy that cannot be read fails the check with the service's message.
  policies.FailNext("GetObjectPolicyStatus", "Storage object lun-0 not found");
  EXPECT_EQ("Storage object lun-0 not found",
            UpdateMessage(Param("NonPreferred", ""), current, &handle));
  // Without a compliance session the policy cannot be seen, so it is not passed.
  EXPECT_EQ("Orva compliance lib is not initialized",
            UpdateMessage(Param("NonPreferred", ""), current));
}

}  // namespace
}  // namespace NokCtl::Orva::IscsiTarget::Util
