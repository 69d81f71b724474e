#include "Records.h"

#include "common/EngineLun.h"
#include "platform/Host.h"
#include "zel/OrvaCtlException.h"

namespace zelctl {

using nlohmann::ordered_json;

ordered_json ToJson(const HostCtl::Orva::IscsiTarget::LunInfo& lun) {
  return ordered_json{{"id", lun.id},
                      {"scsiLun", lun.id + static_cast<int>(zeltools::kEngineLunOffset)},
                      {"alias", lun.alias},
                      {"uuid", lun.uuid},
                      {"path", lun.path},
                      {"size", lun.size},
                      {"sizeMiB", lun.sizeMiB},
                      {"sizeSectors", lun.sizeSectors},
                      {"target", lun.target},
                      {"policy", lun.policy},
                      {"policyCompliant", lun.policyCompliant},
                      {"status", lun.status},
                      {"naa", lun.naa}};
}

ordered_json ToJson(const HostCtl::Orva::IscsiTarget::TargetInfo& target) {
  return ordered_json{{"alias", target.alias},
                      {"iqn", target.iqn},
                      {"uuid", target.uuid},
                      {"networkInterface", target.networkInterface},
                      {"port", target.port},
                      {"authType", target.authType},
                      {"userid", target.userid},
                      {"mutualUserid", target.mutualUserid},
                      {"ownerId", target.ownerId},
                      {"ownerHostUuid", target.ownerHostUuid},
                      {"ownerHostName", target.ownerHostName},
                      {"policy", target.policy},
                      {"faultDomain", target.faultDomain},
                      {"policyCompliant", target.policyCompliant},
                      {"initiators", target.initiators},
                      {"initiatorGroups", target.initiatorGroups},
                      {"luns", ToJson(target.luns)}};
}

ordered_json ToJson(const HostCtl::Orva::IscsiTarget::InitiatorgroupInfo& group) {
  ordered_json targets = ordered_json::object();
  for (const auto& [alias, iqn] : group.targets) targets[alias] = iqn;
  return ordered_json{{"name", group.name}, {"initiators", group.initiators}, {"targets", targets}};
}

// The defaults carry secrets in the record; they are left out on purpose.
ordered_json ToJson(const HostCtl::Orva::IscsiTarget::DefaultInfo& defaults) {
  return ordered_json{{"networkInterface", defaults.networkInterface},
                      {"port", defaults.port},
                      {"authType", defaults.authType},
                      {"userid", defaults.userid},
                      {"mutualUserid", defaults.mutualUserid}};
}

ordered_json WithComplianceReason(ordered_json record, const std::string& objectUuid) {
  if (record.value("policyCompliant", true)) return record;
  std::string reason;
  try {
    reason = zel::platform::CurrentHost().Policies().GetObjectPolicyStatus(objectUuid).reason;
  } catch (const HostCtl::Lib::Orva::OrvaCtlException& e) {
    reason = e.GetMessage();
  }
  record["notCompliantBecause"] = reason;
  return record;
}

ordered_json ToJson(const HostCtl::Orva::IscsiTarget::NamespaceInfo& info) {
  return ordered_json{
      {"uuid", info.uuid}, {"policy", info.policy}, {"policyCompliant", info.policyCompliant}};
}

}  // namespace zelctl
