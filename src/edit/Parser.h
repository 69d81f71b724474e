// Helpers that sit directly on the configuration file: parser start-up, the
// empty file, the cluster-wide initiator limit, and rewriting a target's
// CHAP settings (how the file keeps authentication is conf/ParserAuth.h).
#pragma once

#include <string>

#include "conf/ParserAuth.h"
#include "conf/conf.h"
#include "zel/AuthInfo.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

namespace Parser {

constexpr int kMaxInitiatorsPerCluster = 8192;

void InitZelParserLib();

// Creates zel.conf empty when missing (an existing file is kept unchanged)
// and sets its permission bits to 0660.
void InitConf();

// Throws when `newCount` more initiators would take the cluster past its
// limit. Initiator entries of targets that name a group are not counted.
void checkInitiatorCount(const struct conf* conf, int newCount);

// Makes the target's own auth group (named after its "uuid" option) carry
// `authInfo`, creating the group when missing.
void UpdateTargetAuthGroup(struct target* target, const AuthInfo& authInfo);
void UpdateAuthGroupAuth(struct auth_group* ag, const AuthInfo& authInfo);

}  // namespace Parser
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
