#include "platform/local/LocalClusterFacts.h"

#include <future>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/Log.h"

namespace zel {
namespace platform {

using nlohmann::json;

LocalClusterFacts::LocalClusterFacts(const HostConfig& config, Directory& directory)
    : hostUuid_(config.hostUuid),
      hostName_(config.hostName),
      faultDomain_(config.faultDomain),
      diskFormatVersion_(config.diskFormatVersion),
      clusterMember_(config.clusterMember),
      directory_(directory) {}

std::string LocalClusterFacts::MemberPayload(bool maintenance) const {
  json payload = {{"hostName", hostName_},
                  {"faultDomain", faultDomain_},
                  {"diskFormatVersion", diskFormatVersion_}};
  // Only while set, so that the entry of a host in service never changes.
  if (maintenance) payload["maintenance"] = true;
  return payload.dump();
}

NOK_ReturnStatus LocalClusterFacts::Announce() {
  if (!clusterMember_) {
    const NOK_ReturnStatus status =
        directory_.Delete(kClusterMemberEntryType, kClusterMembersKey, hostUuid_);
    return status == NOK_NOT_FOUND ? NOK_OK : status;
  }
  // A process starting on a host in maintenance keeps it in maintenance. A
  // directory that cannot say fails the announcement at once: a write would
  // only wait for it as long again.
  bool maintenance = false;
  const NOK_ReturnStatus status = InMaintenance(&maintenance);
  return status == NOK_OK ? Publish(maintenance) : status;
}

NOK_ReturnStatus LocalClusterFacts::InMaintenance(bool* maintenance) {
  ClusterInfo current;
  const NOK_ReturnStatus status = GetClusterInfo(&current);
  *maintenance = false;
  for (const ClusterMember& member : current.members) {
    if (member.hostUuid == hostUuid_) *maintenance = member.maintenance;
  }
  return status;
}

NOK_ReturnStatus LocalClusterFacts::SetMaintenance(bool maintenance) {
  return Publish(maintenance);
}

NOK_ReturnStatus LocalClusterFacts::RenewMembership(int ttlSeconds) {
  if (!clusterMember_) return NOK_OK;
  std::lock_guard<std::mutex> guard(leaseMutex_);
  if (lease_ != 0) {
    const NOK_ReturnStatus renewed = directory_.RenewLease(lease_);
    if (renewed == NOK_NOT_FOUND) lease_ = 0;
    return renewed;
  }
  Directory::LeaseId lease = 0;
  NOK_ReturnStatus status = directory_.GrantLease(ttlSeconds, &lease);
  if (status != NOK_OK) return status;
  bool maintenance = false;
  status = InMaintenance(&maintenance);
  if (status == NOK_OK) status = Publish(maintenance, lease);
  if (status != NOK_OK) {
    // The entry stays as it was; the unused lease must not linger.
    directory_.RevokeLease(lease);
    return status;
  }
  lease_ = lease;
  return NOK_OK;
}

NOK_ReturnStatus LocalClusterFacts::Publish(bool maintenance, Directory::LeaseId lease) {
  DirectoryEntry entry;
  entry.type = kClusterMemberEntryType;
  entry.key = kClusterMembersKey;
  entry.ownerHost = hostUuid_;
  entry.entryId = hostUuid_;
  entry.payload = MemberPayload(maintenance);
  entry.lease = lease;
  return Write(entry);
}

NOK_ReturnStatus LocalClusterFacts::Write(const DirectoryEntry& entry) {
  const std::string owner = entry.ownerHost;
  const std::string payload = entry.payload;
  const Directory::LeaseId lease = entry.lease;
  std::promise<NOK_ReturnStatus> completed;
  std::future<NOK_ReturnStatus> result = completed.get_future();
  directory_.AsyncUpdate(
      entry,
      [owner, payload, lease](const DirectoryEntry* stored) {
        return stored == nullptr || stored->ownerHost != owner || stored->payload != payload ||
               (lease != 0 && stored->lease != lease);
      },
      [&completed](NOK_ReturnStatus status, const DirectoryEntry*) {
        completed.set_value(status);
      });
  const NOK_ReturnStatus status = result.get();
  // NOK_EXISTS: the entry is already exactly this one.
  return status == NOK_EXISTS ? NOK_OK : status;
}

NOK_ReturnStatus LocalClusterFacts::GetPreferredFaultDomain(std::string* name) {
  std::vector<DirectoryEntry> entries;
  const NOK_ReturnStatus status =
      directory_.Query(kPreferredSiteEntryType, kPreferredSiteKey, &entries);
  if (status != NOK_OK && status != NOK_NOT_FOUND) return status;
  name->clear();
  for (const DirectoryEntry& entry : entries) {
    if (entry.entryId != kPreferredSiteKey) continue;
    const json payload = json::parse(entry.payload, nullptr, /*allow_exceptions=*/false);
    const auto site = payload.find("faultDomain");  // end() unless an object holds it
    if (site != payload.end() && site->is_string()) {
      *name = site->get<std::string>();
    } else {
      ZEL_LOG_WARNING("%s: The preferred site entry has a malformed payload", "ClusterFacts");
    }
  }
  return NOK_OK;
}

NOK_ReturnStatus LocalClusterFacts::SetPreferredFaultDomain(const std::string& name) {
  DirectoryEntry entry;
  entry.type = kPreferredSiteEntryType;
  entry.key = kPreferredSiteKey;
  entry.ownerHost = hostUuid_;
  entry.entryId = kPreferredSiteKey;
  entry.payload = json{{"faultDomain", name}}.dump();
  return Write(entry);
}

std::string LocalClusterFacts::LocalHostUuid() { return hostUuid_; }

NOK_ReturnStatus LocalClusterFacts::GetClusterInfo(ClusterInfo* info) {
  std::vector<DirectoryEntry> entries;
  const NOK_ReturnStatus status =
      directory_.Query(kClusterMemberEntryType, kClusterMembersKey, &entries);
  if (status != NOK_OK && status != NOK_NOT_FOUND) return status;

  ClusterInfo result;
  bool selfPresent = false;
  for (const DirectoryEntry& entry : entries) {
    ClusterMember member;
    member.hostUuid = entry.entryId;
    const json payload = json::parse(entry.payload, nullptr, /*allow_exceptions=*/false);
    const auto name = payload.find("hostName");  // end() unless an object holds it
    const auto site = payload.find("faultDomain");
    if (name != payload.end() && name->is_string() && site != payload.end() && site->is_string()) {
      member.hostName = name->get<std::string>();
      member.faultDomain = site->get<std::string>();
    } else {
      // The membership itself is the entry; a host that published a payload
      // of another form is still a member, only nameless.
      ZEL_LOG_WARNING("%s: Member entry of host %s has a malformed payload", "ClusterFacts",
                      entry.entryId.c_str());
    }
    const auto format = payload.find("diskFormatVersion");
    if (format != payload.end()) {
      // A value that cannot be read must not pass for an upgraded host.
      const bool valid = format->is_number_integer() && format->get<int64_t>() >= 1 &&
                         format->get<int64_t>() <= 255;
      member.diskFormatVersion = valid ? format->get<int>() : 1;
      if (!valid) {
        ZEL_LOG_WARNING("%s: Member entry of host %s has an invalid disk format version",
                        "ClusterFacts", entry.entryId.c_str());
      }
    }
    const auto maintenance = payload.find("maintenance");
    member.maintenance = maintenance != payload.end() && maintenance->is_boolean() &&
                         maintenance->get<bool>();
    member.alive = entry.lease != 0;
    selfPresent = selfPresent || member.hostUuid == hostUuid_;
    result.members.push_back(std::move(member));
  }
  result.isMember = clusterMember_ && selfPresent;
  *info = std::move(result);
  return NOK_OK;
}

}  // namespace platform
}  // namespace zel
