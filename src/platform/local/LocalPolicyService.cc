#include "platform/local/LocalPolicyService.h"

#include <vector>

#include <nlohmann/json.hpp>

#include "platform/Log.h"
#include "platform/PolicyRules.h"
#include "zel/OrvaCtlException.h"

namespace zel {
namespace platform {
namespace {

using HostCtl::Lib::Orva::OrvaCtlException;
using nlohmann::json;

const char kTag[] = "PolicyService";

}  // namespace

LocalPolicyService::LocalPolicyService(Directory& directory, std::string hostUuid,
                                       ClusterFacts* cluster)
    : directory_(directory), hostUuid_(std::move(hostUuid)), cluster_(cluster) {}

NOK_ReturnStatus LocalPolicyService::Init() {
  std::vector<DirectoryEntry> owned;
  const NOK_ReturnStatus status =
      directory_.QueryByHost(kStorageObjectEntryType, hostUuid_, &owned);
  if (status != NOK_OK && status != NOK_NOT_FOUND) {
    ZEL_LOG_WARNING("%s: Cannot open a compliance session, the directory failed: %s", kTag,
                    NOK_ReturnStatusToString(status));
    return NOK_NO_CONNECTION;
  }
  std::lock_guard<std::mutex> guard(mutex_);
  ++sessions_;
  ZEL_LOG_DEBUG("%s: Compliance session opened (%d open)", kTag, sessions_);
  return NOK_OK;
}

void LocalPolicyService::Deinit() {
  std::lock_guard<std::mutex> guard(mutex_);
  if (sessions_ == 0) {
    // A caller that closes more than it opened has lost track of its handle.
    ZEL_LOG_WARNING("%s: Compliance session closed while none is open", kTag);
    return;
  }
  --sessions_;
  ZEL_LOG_DEBUG("%s: Compliance session closed (%d open)", kTag, sessions_);
}

PolicyStatus LocalPolicyService::GetObjectPolicyStatus(const std::string& objectUuid) {
  std::vector<DirectoryEntry> entries;
  const NOK_ReturnStatus status = directory_.Query(kStorageObjectEntryType, objectUuid, &entries);
  if (status == NOK_NOT_FOUND) {
    throw OrvaCtlException("Storage object " + objectUuid + " not found");
  }
  if (status != NOK_OK) {
    throw OrvaCtlException("Failed to look up storage object " + objectUuid + ": " +
                           NOK_ReturnStatusToString(status));
  }
  // One entry per object; its announcer names its identity.
  const json payload = json::parse(entries.front().payload, nullptr, /*allow_exceptions=*/false);
  const auto owner = payload.find("ownerHost");
  const auto policy = payload.find("policy");
  if (owner == payload.end() || !owner->is_string() || policy == payload.end() ||
      !policy->is_string()) {
    throw OrvaCtlException("Storage object " + objectUuid +
                           " has a malformed directory entry: it needs the texts 'ownerHost' "
                           "and 'policy'");
  }
  PolicyStatus result;
  result.policy = policy->get<std::string>();
  result.compliance = Judge(objectUuid, result.policy, &result.reason);
  return result;
}

Compliance LocalPolicyService::Judge(const std::string& objectUuid, const std::string& policy,
                                     std::string* reason) {
  if (cluster_ == nullptr) {
    *reason = "this host has no cluster facts to judge it by";
    return Compliance::Unknown;
  }
  platform::PolicyRules rules;
  std::string why;
  if (!platform::ParsePolicyRules(policy, &rules, &why)) {
    ZEL_LOG_WARNING("%s: Storage object %s has an unreadable policy: %s", kTag,
                    objectUuid.c_str(), why.c_str());
    *reason = "its policy does not read: " + why;
    return Compliance::NonCompliant;
  }
  if (!rules.failuresToTolerate && !rules.locality) return Compliance::Compliant;

  ClusterInfo cluster;
  const NOK_ReturnStatus status = cluster_->GetClusterInfo(&cluster);
  if (status != NOK_OK) {
    ZEL_LOG_WARNING("%s: Cannot judge the compliance of storage object %s, the membership is "
                    "unknown: %s",
                    kTag, objectUuid.c_str(), NOK_ReturnStatusToString(status));
    *reason = std::string("the cluster's membership is unknown: ") + NOK_ReturnStatusToString(status);
    return Compliance::Unknown;
  }
  if (rules.failuresToTolerate &&
      cluster.members.size() < static_cast<size_t>(2 * *rules.failuresToTolerate + 1)) {
    *reason = "failuresToTolerate " + std::to_string(*rules.failuresToTolerate) + " needs " +
              std::to_string(2 * *rules.failuresToTolerate + 1) +
              " cluster members; the cluster has " + std::to_string(cluster.members.size());
    return Compliance::NonCompliant;
  }
  if (rules.locality) {
    std::string preferred;
    const NOK_ReturnStatus site = cluster_->GetPreferredFaultDomain(&preferred);
    if (site != NOK_OK) {
      *reason = std::string("the cluster's preferred site is unknown: ") +
                NOK_ReturnStatusToString(site);
      return Compliance::Unknown;
    }
    // Placement's own rule: a locality is kept only where placement places by site.
    if (!IsStretchedCluster(cluster, preferred)) {
      *reason = "locality " + *rules.locality +
                " needs a stretched cluster: members in exactly two fault domains, one of them "
                "the preferred site";
      return Compliance::NonCompliant;
    }
  }
  return Compliance::Compliant;
}

}  // namespace platform
}  // namespace zel
