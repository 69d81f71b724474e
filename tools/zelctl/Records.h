// The public records as zelctl shows them: JSON objects with the records'
// field names as camelCase keys, and rows for tables. Secrets never appear.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "zel/DefaultInfo.h"
#include "zel/InitiatorgroupInfo.h"
#include "zel/LunInfo.h"
#include "zel/NamespaceInfo.h"
#include "zel/TargetInfo.h"

namespace zelctl {

nlohmann::ordered_json ToJson(const HostCtl::Orva::IscsiTarget::TargetInfo& target);
nlohmann::ordered_json ToJson(const HostCtl::Orva::IscsiTarget::LunInfo& lun);
nlohmann::ordered_json ToJson(const HostCtl::Orva::IscsiTarget::InitiatorgroupInfo& group);
nlohmann::ordered_json ToJson(const HostCtl::Orva::IscsiTarget::DefaultInfo& defaults);
nlohmann::ordered_json ToJson(const HostCtl::Orva::IscsiTarget::NamespaceInfo& info);

// `record` with "notCompliantBecause" added when its "policyCompliant" is
// false: the policy service's reason for storage object `objectUuid`.
nlohmann::ordered_json WithComplianceReason(nlohmann::ordered_json record,
                                            const std::string& objectUuid);

template <typename Record>
nlohmann::ordered_json ToJson(const std::vector<Record>& records) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const Record& record : records) list.push_back(ToJson(record));
  return list;
}

}  // namespace zelctl
