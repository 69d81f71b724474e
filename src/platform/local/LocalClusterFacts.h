// Cluster facts of a local host, kept in the cluster directory: every member
// host publishes one entry under (kClusterMemberEntryType, kClusterMembersKey)
// whose entryId and owner are its host identity and whose payload is the JSON
// object {"hostName": ..., "faultDomain": ..., "diskFormatVersion": ...}.
// The membership is the set of those entries, so every process and host
// sharing the directory sees the same members. A payload without
// "diskFormatVersion" (published before hosts declared one) reads as
// kCurrentDiskFormatVersion.
//
// The preferred site is one entry of the cluster, (kPreferredSiteEntryType,
// kPreferredSiteKey) with that key as its entryId, whose payload is
// {"faultDomain": NAME}; the last host to set it owns it.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "platform/ClusterFacts.h"
#include "platform/Directory.h"
#include "platform/HostConfig.h"

namespace zel {
namespace platform {

constexpr uint32_t kClusterMemberEntryType = 40;
constexpr const char* kClusterMembersKey = "cluster-members";
constexpr uint32_t kPreferredSiteEntryType = 41;
constexpr const char* kPreferredSiteKey = "cluster-preferred-site";

class LocalClusterFacts final : public ClusterFacts {
 public:
  // REQUIRES: `directory` outlives this object; the Host declares its
  // directory before the other services for that reason.
  LocalClusterFacts(const HostConfig& config, Directory& directory);

  // Makes the directory agree with the host configuration: publishes this
  // host's member entry when it is a cluster member (rewriting it only when
  // its name, fault domain or disk format changed, so that starting a process does not
  // wake every subscriber), and removes it otherwise. Waits for the
  // directory. NOK_OK or the directory's status.
  NOK_ReturnStatus Announce();

  std::string LocalHostUuid() override;
  // Every member by identity; this host is a member only while its
  // configuration says so and its entry is present.
  NOK_ReturnStatus GetClusterInfo(ClusterInfo* info) override;
  // Kept in the member entry ("maintenance": true while set), which a later
  // Announce keeps as it finds it.
  NOK_ReturnStatus SetMaintenance(bool maintenance) override;
  // A host that is not a cluster member holds nothing: NOK_OK.
  NOK_ReturnStatus RenewMembership(int ttlSeconds) override;
  // An entry whose payload does not name a fault domain reads as "" (none
  // set, logged), so that a damaged entry stretches no cluster.
  NOK_ReturnStatus GetPreferredFaultDomain(std::string* name) override;
  NOK_ReturnStatus SetPreferredFaultDomain(const std::string& name) override;

 private:
  std::string MemberPayload(bool maintenance) const;
  // Whether this host's member entry says it is in maintenance (false
  // when there is none); NOK_OK or the status of the failure to read it.
  NOK_ReturnStatus InMaintenance(bool* maintenance);
  // Writes this host's member entry unless it is exactly that already,
  // under `lease` (0: whatever lease holds it now).
  NOK_ReturnStatus Publish(bool maintenance, Directory::LeaseId lease = 0);
  // Writes `entry` unless the directory holds exactly it; waits for it.
  NOK_ReturnStatus Write(const DirectoryEntry& entry);

  const std::string hostUuid_;
  const std::string hostName_;
  const std::string faultDomain_;
  const int diskFormatVersion_;
  const bool clusterMember_;
  Directory& directory_;
  std::mutex leaseMutex_;
  Directory::LeaseId lease_ = 0;  // the lease holding the member entry; 0 while none
};

}  // namespace platform
}  // namespace zel
