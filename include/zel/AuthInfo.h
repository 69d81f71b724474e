// One set of CHAP credentials as the editing operations take them. Internal
// to the service: it carries secrets and never crosses the public interface.
#pragma once

#include <string>

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

class AuthInfo {
 public:
  AuthInfo(std::string authType, std::string userid, std::string secret,
           std::string mutualUserid, std::string mutualSecret)
      : authType(std::move(authType)),
        userid(std::move(userid)),
        secret(std::move(secret)),
        mutualUserid(std::move(mutualUserid)),
        mutualSecret(std::move(mutualSecret)) {}
  ~AuthInfo() = default;

  std::string authType;
  std::string userid;
  std::string secret;
  std::string mutualUserid;
  std::string mutualSecret;
};

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
