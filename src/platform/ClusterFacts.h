// Facts about the cluster this host belongs to: who this host is, which
// hosts are members. Call sites use OrvaUtil::GetNodeUuid,
// OrvaInfoImpl::GetClusterInfo and Util::GetHostNameFromUuid.
#pragma once

#include <string>
#include <vector>

#include "platform/HostConfig.h"
#include "platform/NokStatus.h"

namespace zel {
namespace platform {

struct ClusterMember {
  std::string hostUuid;
  std::string hostName;
  std::string faultDomain;  // the host's site; empty when the cluster is not stretched
  int diskFormatVersion = kCurrentDiskFormatVersion;  // the disk format the host has reached
  bool maintenance = false;  // decommissioned for maintenance: it serves no target
  // Its agent holds its membership under a lease (RenewMembership): the
  // member disappears when the agent stops renewing it. A member entered by
  // a host that runs no agent is a member, but not known to be alive.
  bool alive = false;
};

struct ClusterInfo {
  bool isMember = false;               // this host is in a cluster
  std::vector<ClusterMember> members;  // every member, this host included, by identity
};

class ClusterFacts {
 public:
  virtual ~ClusterFacts() = default;

  // This host's identity, canonical UUID text. Never fails.
  virtual std::string LocalHostUuid() = 0;

  // NOK_OK with the current membership, or the status of the failure to
  // learn it. Thread-safe.
  virtual NOK_ReturnStatus GetClusterInfo(ClusterInfo* info) = 0;

  // Holds this host's membership under a lease that the directory ends
  // when it goes `ttlSeconds` without renewal, taking the member entry with
  // it: the first call, and the first after the lease was lost, grants one
  // and binds this host's member entry to it; later calls renew it. NOK_OK
  // while held; NOK_NOT_FOUND when the lease had run out (this host had
  // dropped out of the membership; the next call joins again); another
  // status when the directory could not be reached. Thread-safe.
  virtual NOK_ReturnStatus RenewMembership(int ttlSeconds) = 0;

  // Marks this host as decommissioned for maintenance, or back in service,
  // for every host to see. NOK_OK or the status of the failure.
  virtual NOK_ReturnStatus SetMaintenance(bool maintenance) = 0;

  // The preferred site of a stretched cluster, named by its fault domain
  // as the members name theirs. A fault domain has no identity besides its
  // name: where placement asks for a fault-domain UUID, the name is it.
  // NOK_OK with "" when none is set, or the status of the failure.
  virtual NOK_ReturnStatus GetPreferredFaultDomain(std::string* name) = 0;
  // Sets it for every host to see. NOK_OK or the status of the failure.
  virtual NOK_ReturnStatus SetPreferredFaultDomain(const std::string& name) = 0;
};

// Whether `cluster` is stretched: its members name exactly two fault
// domains and `preferredFaultDomain` is one of them. A preferred site that
// no member names (or a third site) leaves the other site undefined, so
// anything decided by site would be a guess. Placement and the compliance
// judge both ask this, so that a policy is never judged against sites that
// placement does not use.
bool IsStretchedCluster(const ClusterInfo& cluster, const std::string& preferredFaultDomain);

}  // namespace platform
}  // namespace zel
