#include "service/Doctor.h"

#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <dirent.h>
#include <functional>
#include <map>
#include <set>

#include "conf/ConfHandle.h"
#include "directory/DirectoryEntries.h"
#include "platform/EntryMarshal.h"
#include "platform/FileIO.h"
#include "platform/Log.h"
#include "storage/DatastoreLayout.h"
#include "storage/DiskLunApi.h"
#include "storage/LunPaths.h"
#include "storage/TargetNamespace.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {
namespace {

using HostCtl::Lib::Orva::OrvaCtlException;

const char kTag[] = "Util";
// A target being added has its namespace and link before zel.conf names it;
// anything younger than this may be such a target and is left alone.
constexpr time_t kSettleSeconds = 60;

struct Problem {
  ConsistencyFinding finding;
  std::function<void()> repair;  // empty: needs an operator
};

std::vector<std::string> Names(const std::string& directory) {
  std::vector<std::string> names;
  DIR* listing = ::opendir(directory.c_str());
  if (listing == nullptr) return names;
  while (const struct dirent* entry = ::readdir(listing)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  ::closedir(listing);
  return names;
}

bool Settled(const struct stat& status) { return ::time(nullptr) - status.st_mtime >= kSettleSeconds; }

// What zel.conf names: its targets by identity, and its LUNs' disks.
struct Named {
  std::map<std::string, std::string> targets;  // identity -> alias
  std::map<std::string, std::string> disks;    // absolute path -> "LUN n of target a"
};

// What `handle` names, and whether its file is behind the published
// generation.
void CollectNamed(const ConfHandle& handle, Named* named, std::vector<Problem>* problems) {
  const struct target* target;
  TAILQ_FOREACH(target, &handle.conf->conf_targets, t_next) {
    const std::string alias = target->t_alias ? target->t_alias : "";
    const struct target_option* uuid = target_option_find(target, "uuid");
    if (uuid != nullptr) named->targets[uuid->to_value] = alias;
    for (const struct lun* lun : target->t_luns) {
      const std::string path = lun == nullptr ? "" : GetLunAbsPath(lun);
      if (!path.empty()) {
        named->disks[path] = "LUN " + std::to_string(lun->l_zeld_lun) + " of target " + alias;
      }
    }
  }
  uint64_t published = 0;
  const uint64_t generation = handle.GetCurrentGenerationNum();
  if (ZeldGetConfigGenNumInBrix(&published) == NOK_OK && generation < published) {
    problems->push_back({{"zel.conf holds generation " + std::to_string(generation) +
                          ", behind generation " + std::to_string(published) +
                          " published in the cluster directory; the local backup copy is " +
                          GetBackupConfFilePath()},
                         {}});
  }
}

bool EndsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// `held`: the caller's handle on zel.conf, or null to read it here.
std::vector<Problem> FindProblems(const ConfHandle* held) {
  std::vector<Problem> problems;
  const std::string root = GetNamespaceRoot(), links = GetTargetsDirPath();
  const std::string conf = GetConfFilePath();
  struct stat status;
  if (::stat(conf.c_str(), &status) != 0) {
    problems.push_back({{"zel.conf not found at " + conf}, {}});
    return problems;
  }
  Named named;
  const std::map<std::string, std::string>& targets = named.targets;
  bool read = true;
  if (held != nullptr) {
    CollectNamed(*held, &named, &problems);
  } else {
    try {
      CollectNamed(ConfHandle(ConfHandle::kShareMode, conf), &named, &problems);
    } catch (const OrvaCtlException& e) {
      problems.push_back({{"zel.conf does not read: " + e.GetMessage()}, {}});
      read = false;
    }
  }

  for (const auto& [uuid, alias] : targets) {
    const std::string target = "target " + alias + " (" + uuid + ")";
    if (::stat((root + "/" + uuid).c_str(), &status) != 0) {
      problems.push_back({{target + " has no namespace"}, {}});
    } else if (::lstat((links + "/" + uuid).c_str(), &status) != 0) {
      problems.push_back({{target + " has no namespace link", true},
                          [uuid = uuid] { RelinkTargetNamespace(uuid); }});
    }
  }
  for (const auto& [path, lun] : named.disks) {
    if (::stat(path.c_str(), &status) != 0) problems.push_back({{lun + " has no disk " + path}, {}});
  }
  if (read) {
    // Disks in target namespaces that no LUN names: left by a creation that
    // died before zel.conf named the disk, or by a removal that died after
    // zel.conf dropped it.
    for (const auto& [uuid, alias] : targets) {
      const std::string dir = root + "/" + uuid;
      for (const std::string& name : Names(dir)) {
        const std::string path = dir + "/" + name;
        if (!EndsWith(name, ".qdsk") || named.disks.count(path) != 0 ||
            ::lstat(path.c_str(), &status) != 0 || !Settled(status)) {
          continue;
        }
        problems.push_back({{"LUN disk " + path + " belongs to no LUN", true},
                            [path] { NokCtl::Storage::DiskLunApi::RemoveVirtualDisk(path); }});
      }
    }
    for (const std::string& name : Names(links)) {
      const std::string link = links + "/" + name;
      if (targets.count(name) != 0 || ::lstat(link.c_str(), &status) != 0 || !Settled(status)) {
        continue;
      }
      problems.push_back({{"namespace link " + link + " names no target", true},
                          [link] { ::unlink(link.c_str()); }});
    }
    char configNamespace[4096] = {};
    ::readlink((root + "/.iSCSI-CONFIG").c_str(), configNamespace, sizeof configNamespace - 1);
    for (const std::string& name : Names(root)) {
      std::string uuid;
      if (!zel::platform::ParseUuidText(name, &uuid) || uuid != name || name == configNamespace ||
          targets.count(name) != 0 || ::lstat((root + "/" + name).c_str(), &status) != 0 ||
          !S_ISDIR(status.st_mode) || !Settled(status)) {
        continue;
      }
      problems.push_back({{"namespace " + root + "/" + name + " belongs to no target", true},
                          [root, name] { NokCtl::Storage::DiskLunApi::DeleteNamespace(root, name); }});
    }
  }
  for (const std::string& path : FileIO_TempFilesOf(conf)) {
    problems.push_back({{"temporary file " + path + " was left by a save that died", true},
                        [path] { ::unlink(path.c_str()); }});
  }
  return problems;
}

}  // namespace

std::vector<ConsistencyFinding> CheckConsistency() {
  std::vector<ConsistencyFinding> findings;
  for (const Problem& problem : FindProblems(nullptr)) findings.push_back(problem.finding);
  return findings;
}

std::vector<ConsistencyFinding> RepairConsistency() {
  // Held throughout: no editor saves, and none names a namespace, meanwhile.
  ConfHandle handle(ConfHandle::kExclusiveMode, GetConfFilePath());
  std::vector<ConsistencyFinding> repaired;
  for (const Problem& problem : FindProblems(&handle)) {
    if (!problem.repair) continue;
    problem.repair();
    ZEL_LOG_WARNING("%s: Repaired: %s\n", kTag, problem.finding.text.c_str());
    repaired.push_back(problem.finding);
  }
  return repaired;
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
