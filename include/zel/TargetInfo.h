// One configured target as the service reports it.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "zel/LunInfo.h"

namespace HostCtl {
namespace Orva {
namespace IscsiTarget {

struct TargetInfo {
  // Member-wise, except that the two user names are not taken: userid and
  // mutualUserid start empty and only the configuration conversion fills
  // them, field by field, from the target's auth group. A record built by a
  // caller therefore never claims credentials that the configuration lacks.
  TargetInfo(std::string alias, std::string iqn, std::string uuid,
             std::string networkInterface, int port, std::string authType,
             const std::string& /*userid, ignored*/,
             const std::string& /*mutualUserid, ignored*/, std::string ownerId,
             std::string ownerHostUuid, std::string ownerHostName,
             std::string policy, std::string faultDomain, bool policyCompliant)
      : alias(std::move(alias)),
        iqn(std::move(iqn)),
        uuid(std::move(uuid)),
        networkInterface(std::move(networkInterface)),
        port(port),
        authType(std::move(authType)),
        ownerId(std::move(ownerId)),
        ownerHostUuid(std::move(ownerHostUuid)),
        ownerHostName(std::move(ownerHostName)),
        policy(std::move(policy)),
        faultDomain(std::move(faultDomain)),
        policyCompliant(policyCompliant) {}

  std::string alias;  // the key by which operations address a target
  std::string iqn;
  std::string uuid;   // identity of the target's namespace object
  std::string networkInterface;
  int port;           // 3260 when the target has no listen entry
  // "CHAP", "CHAP-Mutual", "No-Authentication" (also for a target without
  // an auth group) or "None".
  std::string authType;
  std::string userid;        // only for CHAP and CHAP-Mutual
  std::string mutualUserid;  // only for CHAP-Mutual; secrets are never reported
  std::string ownerId;       // the "owner-id" option: the object whose owner serves the target
  // Filled by the service facade, never by the configuration conversion:
  // the host that currently owns the target's object, its host name, and
  // the storage policy of the target's namespace with its compliance.
  std::string ownerHostUuid;
  std::string ownerHostName;
  std::string policy;
  std::string faultDomain;   // "Preferred", "NonPreferred" or empty
  bool policyCompliant;
  std::vector<std::string> initiators;       // permitted initiator names, configuration order
  std::vector<std::string> initiatorGroups;  // attached initiator groups, configuration order
  std::vector<LunInfo> luns;                 // in LUN number order
};

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace HostCtl
