// The cluster-wide defaults that new targets inherit. Carries secrets: the
// service fills them only for callers that asked for them.
#pragma once

#include <cstdint>
#include <string>

namespace HostCtl {
namespace Orva {
namespace IscsiTarget {

struct DefaultInfo {
  std::string networkInterface;
  int32_t port = 3260;  // the iSCSI well-known port until a listen entry says otherwise
  std::string authType;  // "No-Authentication", "CHAP" or "CHAP-Mutual"
  std::string userid;
  std::string secret;
  std::string mutualUserid;
  std::string mutualSecret;
};

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace HostCtl
