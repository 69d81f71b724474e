// Parameters of creating a target, or of changing one (alias names the
// target to change; empty fields keep the current values where noted).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace HostCtl {
namespace Orva {
namespace IscsiTarget {

struct TargetCreateParam {
  std::string alias;     // 1 to 127 bytes, not whitespace only
  std::string newAlias;  // update only; empty keeps the alias
  // Empty on creation: the service generates one and stores it here.
  std::string iqn;
  // The target's namespace object. Creation fills it and sets both the
  // "uuid" and the "owner-id" option of the new target to it.
  std::string uuid;
  // Storage policy text for the target's namespace; empty keeps the
  // datastore's policy. The affinity check reads it with faultDomain.
  std::string policy;
  // Empty selects the default interface on creation and keeps the current
  // one on update.
  std::string networkInterface;
  int32_t port = 3260;
  // "No-Authentication", "CHAP" or "CHAP-Mutual"; empty keeps the current
  // authentication on update.
  std::string authType;
  std::string userid;
  std::string secret;
  std::string mutualUserid;
  std::string mutualSecret;
  std::string faultDomain;  // "Preferred", "NonPreferred" or empty
  std::vector<std::string> initiatorsToAdd;     // initiator IQNs or group names
  std::vector<std::string> initiatorsToRemove;  // initiator IQNs or group names
};

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace HostCtl
