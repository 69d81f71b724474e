// How the file keeps authentication: the type texts of auth groups, a
// group's first credential, and the Base64 form of secrets. Shared by the
// writer, the conversion into records and the editors.
#pragma once

#include <string>

#include "conf/conf.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

// 3 "CHAP", 4 "CHAP-Mutual", 2 "No-Authentication", anything else "None".
const char* AuthTypeToStr(int type);

namespace Parser {

// Standard Base64 of `data` into `out`, NUL-terminated; throws when it does
// not fit.
void Base64EncodeWrapper(const unsigned char* data, unsigned long length, char* out,
                         unsigned long outSize);

// The group's type text, and its first credential when it is a CHAP group.
const struct auth* GetAuthInfo(const struct auth_group* ag, std::string& type);

}  // namespace Parser
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
