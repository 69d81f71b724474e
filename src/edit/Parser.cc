#include "edit/Parser.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "directory/DirectoryEntries.h"
#include "edit/NamePatterns.h"
#include "platform/Log.h"
#include "storage/DatastoreLayout.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

using HostCtl::Lib::Orva::OrvaCtlException;

namespace Parser {

void InitZelParserLib() {
  ZEL_LOG_INFO("%s: Initializing ZEL parser lib\n", "Parser");
  log_init(4);
}

void InitConf() {
  ZEL_LOG_INFO("%s: Initialize conf file\n", "Parser");
  const std::string path = Util::GetConfFilePath();
  const bool created = access(path.c_str(), F_OK) != 0;
  FILE* file = fopen(path.c_str(), "a");
  if (file == nullptr) {
    throw OrvaCtlException("Failed to create config file " + path + ": " + strerror(errno));
  }
  // A namespace made again continues the cluster's generations: starting
  // below the published one, its saves would never reach the other hosts
  // and would be refused as a file that went back in time.
  uint64_t published = 0;
  if (created && ZeldGetConfigGenNumInBrix(&published) == NOK_OK) {
    fprintf(file, "generation %llu\n", static_cast<unsigned long long>(published));
  }
  fclose(file);
  if (chmod(path.c_str(), 0660) != 0) {
    throw OrvaCtlException("Failed to set permissions of config file " + path + ": " +
                           strerror(errno));
  }
}

void checkInitiatorCount(const struct conf* conf, int newCount) {
  if (newCount < 1) return;
  long count = 0;
  const struct target* target;
  TAILQ_FOREACH(target, &conf->conf_targets, t_next) {
    if (target->t_auth_group == nullptr) continue;
    const struct auth_name* name;
    TAILQ_FOREACH(name, &target->t_auth_group->ag_names, an_next) {
      if (Util::IsValidInitiatorIQN(name->an_initator_name)) ++count;
    }
  }
  const struct initiator_group* ig;
  TAILQ_FOREACH(ig, &conf->conf_initiator_groups, ig_next) {
    const struct initiator* ini;
    TAILQ_FOREACH(ini, &ig->ig_initiators, i_next) ++count;
  }
  if (count + newCount > kMaxInitiatorsPerCluster) {
    throw OrvaCtlException("the maximum initiators allowed per cluster is: " +
                           std::to_string(kMaxInitiatorsPerCluster) +
                           ". Current initiator count: " + std::to_string(count) +
                           ". New initiators count: " + std::to_string(newCount) + ".");
  }
}

void UpdateTargetAuthGroup(struct target* target, const AuthInfo& authInfo) {
  const struct target_option* uuid = target_option_find(target, "uuid");
  if (uuid == nullptr) {
    throw OrvaCtlException(std::string("Target ") + target->t_name + " has no uuid option");
  }
  struct auth_group* ag = auth_group_find(target->t_conf, uuid->to_value);
  if (ag == nullptr) {
    ag = auth_group_new(target->t_conf, uuid->to_value);
    if (ag == nullptr) {
      throw OrvaCtlException(std::string("Failed to create auth-group ") + uuid->to_value);
    }
    ag->ag_target = target;
    target->t_auth_group = ag;
  }
  ZEL_LOG_INFO("%s: Updating auth type '%s' for target %s\n", "Parser",
               authInfo.authType.c_str(), target->t_name);
  UpdateAuthGroupAuth(ag, authInfo);
}

void UpdateAuthGroupAuth(struct auth_group* ag, const AuthInfo& authInfo) {
  std::string type = authInfo.authType;
  std::transform(type.begin(), type.end(), type.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (!TAILQ_EMPTY(&ag->ag_auths)) auth_delete(TAILQ_FIRST(&ag->ag_auths));
  const std::string groupName = ag->ag_name != nullptr ? ag->ag_name : "";
  if (type == "chap") {
    if (auth_new_chap(ag, authInfo.userid.c_str(), authInfo.secret.c_str(), false) == nullptr) {
      throw OrvaCtlException("Failed to update auth type 'CHAP' for auth-group " + groupName);
    }
  } else if (type == "chap-mutual") {
    if (auth_new_chap_mutual(ag, authInfo.userid.c_str(), authInfo.secret.c_str(),
                             authInfo.mutualUserid.c_str(), authInfo.mutualSecret.c_str(),
                             false) == nullptr) {
      throw OrvaCtlException("Failed to update auth type 'CHAP-Mutual' for auth-group" +
                             groupName);
    }
  } else if (type == "no-authentication") {
    ag->ag_type = AG_TYPE_NO_AUTHENTICATION;
  }
}

}  // namespace Parser
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
