// In-memory targets for the doubles of the cluster facts and the policy
// service, answering what the test set.
#pragma once

#include <map>
#include <string>

#include "platform/ClusterFacts.h"
#include "platform/PolicyService.h"

namespace zel {
namespace test {

// A cluster of which this host (`hostUuid`) is a member; GetClusterInfo
// answers `info`.
struct FixedCluster final : platform::ClusterFacts {
  explicit FixedCluster(std::string uuid = "11111111-2222-4333-8444-555555555555")
      : hostUuid(std::move(uuid)) {
    info.isMember = true;
  }
  // `count` members, the first `sited` of them in a named fault domain.
  void SetMembers(int count, int sited = 0) {
    info.members.clear();
    for (int i = 0; i < count; ++i) {
      info.members.push_back({"host-" + std::to_string(i), "h" + std::to_string(i),
                              i < sited ? "Preferred" : ""});
    }
  }
  std::string LocalHostUuid() override { return hostUuid; }
  NOK_ReturnStatus GetClusterInfo(platform::ClusterInfo* answer) override {
    *answer = info;
    return NOK_OK;
  }

  std::string hostUuid;
  platform::ClusterInfo info;
};

// Compliant objects with the policies by object UUID; an unknown object throws.
struct FixedPolicies final : platform::PolicyService {
  explicit FixedPolicies(std::map<std::string, std::string> byObject)
      : policies(std::move(byObject)) {}
  NOK_ReturnStatus Init() override { return NOK_OK; }
  void Deinit() override {}
  platform::PolicyStatus GetObjectPolicyStatus(const std::string& uuid) override {
    return {policies.at(uuid), platform::Compliance::Compliant};
  }

  std::map<std::string, std::string> policies;
};

}  // namespace test
}  // namespace zel
