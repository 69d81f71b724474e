#include "edit/InitiatorGroupEditor.h"

#include <cctype>
#include <string>
#include <vector>

#include "cache/ConfigSave.h"
#include "conf/ConfHandle.h"
#include "edit/Parser.h"
#include "edit/Validation.h"
#include "platform/Log.h"
#include "storage/DatastoreLayout.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Parser {

using HostCtl::Lib::Orva::OrvaCtlException;

namespace {

const char kTag[] = "Parser";

// iSCSI names are case-insensitive; members are kept in one case so that
// the byte comparisons of the model find them in any spelling.
std::string LowerCase(const std::string& text) {
  std::string lower = text;
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return lower;
}

struct initiator_group* FindGroup(const struct conf* conf, const std::string& name) {
  struct initiator_group* ig = initiator_group_find(conf, name.c_str());
  if (ig == nullptr) throw OrvaCtlException("Initiator group " + name + " not found.");
  return ig;
}

[[noreturn]] void Rethrow(const std::string& message) {
  ZEL_LOG_ERROR("%s: %s\n", kTag, message.c_str());
  throw OrvaCtlException(message);
}

}  // namespace

void AddNewInitiatorgroupToConfFile(const std::string& name) {
  try {
    ConfHandle handle(ConfHandle::kExclusiveMode, Util::GetConfFilePath());
    int count = 0;
    const struct initiator_group* ig;
    TAILQ_FOREACH(ig, &handle.conf->conf_initiator_groups, ig_next) {
      if (name == ig->ig_name) {
        throw OrvaCtlException("initiator group " + name + " already exists");
      }
      ++count;
    }
    if (count >= kMaxInitiatorGroupsPerCluster) {
      throw OrvaCtlException("the maximum initiator group allowed per cluster is " +
                             std::to_string(kMaxInitiatorGroupsPerCluster) +
                             ". Current value: " + std::to_string(count) + ".");
    }
    if (initiator_group_new(handle.conf, name.c_str()) == nullptr) {
      throw OrvaCtlException("Failed add new initiator group.");
    }
    Util::SaveAndAnnounceConfig(handle);
  } catch (const OrvaCtlException& e) {
    Rethrow("Failed to add initiator group " + name + " with error: " + e.GetMessage());
  }
  ZEL_LOG_INFO("%s: Added new initiator group %s successfully.\n", kTag, name.c_str());
}

void RemoveInitiatorgroupFromConfFile(const std::string& name, bool force) {
  ZEL_LOG_INFO("%s: Remove initiator group %s from conf file (force enabled: %d).\n", kTag,
               name.c_str(), force ? 1 : 0);
  try {
    ConfHandle handle(ConfHandle::kExclusiveMode, Util::GetConfFilePath());
    struct initiator_group* ig = FindGroup(handle.conf, name);
    if (!TAILQ_EMPTY(&ig->ig_initiators) && !force) {
      throw OrvaCtlException("Initiator group " + name +
                             " is not empty. Use '--force' option to delete.");
    }
    // References first: the group's deletion does not follow them.
    initiator_group_delete_all_refs(handle.conf, name.c_str());
    initiator_group_delete(ig);
    Util::SaveAndAnnounceConfig(handle);
  } catch (const OrvaCtlException& e) {
    Rethrow("Failed to remove initiator group " + name + " with error " + e.GetMessage());
  }
  ZEL_LOG_INFO("%s: Removed initiator group %s successfully.\n", kTag, name.c_str());
}

void AddInitiatorsToInitiatorgroup(const std::string& name,
                                   const std::vector<std::string>& initiators) {
  ZEL_LOG_INFO("%s: Adding %zd initiators to initiator group %s.\n", kTag, initiators.size(),
               name.c_str());
  try {
    ConfHandle handle(ConfHandle::kExclusiveMode, Util::GetConfFilePath());
    struct initiator_group* ig = FindGroup(handle.conf, name);
    checkInitiatorCount(handle.conf, static_cast<int>(initiators.size()));
    for (const std::string& initiator : initiators) {
      Util::ValidateInitiatorIQN(initiator);
      const std::string lower = LowerCase(initiator);
      if (initiator_find(ig, lower.c_str()) != nullptr) {
        throw OrvaCtlException("initiator " + lower + " already exists for initiator group " +
                               name);
      }
      if (initiator_new(ig, lower.c_str()) == nullptr) {
        throw OrvaCtlException("Failed to add initiator " + initiator + " to initiator group " +
                               name);
      }
    }
    Util::SaveAndAnnounceConfig(handle);
  } catch (const OrvaCtlException& e) {
    Rethrow("Failed to add initiators to initiator group " + name +
            " with error: " + e.GetMessage());
  }
  ZEL_LOG_INFO("%s: Added %zd initiators to initiator group %s\n", kTag, initiators.size(),
               name.c_str());
}

void RemoveInitiatorsFromInitiatorgroup(const std::string& name,
                                        const std::vector<std::string>& initiators) {
  ZEL_LOG_INFO("%s: Removing %zd initiators from initiator group %s.\n", kTag, initiators.size(),
               name.c_str());
  try {
    ConfHandle handle(ConfHandle::kExclusiveMode, Util::GetConfFilePath());
    struct initiator_group* ig = FindGroup(handle.conf, name);
    for (const std::string& initiator : initiators) {
      struct initiator* member = initiator_find(ig, LowerCase(initiator).c_str());
      if (member == nullptr) {
        throw OrvaCtlException("Initiator " + initiator + " is not found for initiator group " +
                               name);
      }
      initiator_delete(member);
    }
    Util::SaveAndAnnounceConfig(handle);
  } catch (const OrvaCtlException& e) {
    Rethrow("Failed to remove initiators from initiator group " + name + " with error " +
            e.GetMessage());
  }
  ZEL_LOG_INFO("%s: Removed %zd initiators successfully from group %s.\n", kTag, initiators.size(),
               name.c_str());
}

}  // namespace Parser
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
