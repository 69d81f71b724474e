#include "conf/ParserAuth.h"

#include <sodium.h>

#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

using HostCtl::Lib::Orva::OrvaCtlException;

const char* AuthTypeToStr(int type) {
  switch (type) {
    case AG_TYPE_CHAP: return "CHAP";
    case AG_TYPE_CHAP_MUTUAL: return "CHAP-Mutual";
    case AG_TYPE_NO_AUTHENTICATION: return "No-Authentication";
    default: return "None";
  }
}

namespace Parser {

void Base64EncodeWrapper(const unsigned char* data, unsigned long length, char* out,
                         unsigned long outSize) {
  const unsigned long encodedLength = 4 * ((length + 2) / 3);
  if (outSize == 0 || encodedLength > outSize - 1) {
    throw OrvaCtlException("Base64_Encode failed: Unexpected encoding size");
  }
  if (sodium_bin2base64(out, outSize, data, length, sodium_base64_VARIANT_ORIGINAL) == nullptr) {
    throw OrvaCtlException("Base64_Encode failed");
  }
  out[encodedLength] = '\0';
}

const struct auth* GetAuthInfo(const struct auth_group* ag, std::string& type) {
  if (ag == nullptr) {
    type = "No-Authentication";
    return nullptr;
  }
  type = AuthTypeToStr(ag->ag_type);
  if (ag->ag_type == AG_TYPE_CHAP || ag->ag_type == AG_TYPE_CHAP_MUTUAL) {
    return TAILQ_FIRST(&ag->ag_auths);
  }
  return nullptr;
}

}  // namespace Parser
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
