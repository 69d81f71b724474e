// Helpers that sit directly on the configuration file: parser start-up, the
// empty file, the cluster-wide initiator limit, secret encoding, the
// authentication type texts, and rewriting a target's CHAP settings.
#pragma once

#include <string>

#include "conf/conf.h"
#include "zel/AuthInfo.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

// 3 "CHAP", 4 "CHAP-Mutual", 2 "No-Authentication", anything else "None".
const char* AuthTypeToStr(int type);

namespace Parser {

constexpr int kMaxInitiatorsPerCluster = 8192;

void InitZelParserLib();

// Creates zel.conf empty when missing (an existing file is kept unchanged)
// and sets its permission bits to 0660.
void InitConf();

// Throws when `newCount` more initiators would take the cluster past its
// limit. Initiator entries of targets that name a group are not counted.
void checkInitiatorCount(const struct conf* conf, int newCount);

// Standard Base64 of `data` into `out`, NUL-terminated; throws when it does
// not fit.
void Base64EncodeWrapper(const unsigned char* data, unsigned long length, char* out,
                         unsigned long outSize);

// The group's type text, and its first credential when it is a CHAP group.
const struct auth* GetAuthInfo(const struct auth_group* ag, std::string& type);

// Makes the target's own auth group (named after its "uuid" option) carry
// `authInfo`, creating the group when missing.
void UpdateTargetAuthGroup(struct target* target, const AuthInfo& authInfo);
void UpdateAuthGroupAuth(struct auth_group* ag, const AuthInfo& authInfo);

}  // namespace Parser
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
