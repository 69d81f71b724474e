#include "platform/local/LocalNamespaces.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <string>

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <nlohmann/json.hpp>

#include "platform/EntryMarshal.h"
#include "platform/Host.h"
#include "platform/Log.h"
#include "platform/PolicyRules.h"
#include "platform/local/AtomicFile.h"
#include "platform/local/LocalPolicyService.h"
#include "platform/local/StorageObjects.h"

namespace zel {
namespace platform {
namespace {

using HostCtl::Lib::Orva::OrvaCtlException;
using nlohmann::json;

const char kTag[] = "Namespaces";
const char kRecordWhat[] = "Namespace record";

// Where a namespace of a given name lives.
struct Location {
  std::string uuid;  // its identity
  std::string dir;   // root/<uuid>
  std::string link;  // root/<name>, or empty when the name is the identity
};

// A name is one entry of the datastore root, never a path.
void CheckName(const std::string& name) {
  if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos ||
      name.find('\0') != std::string::npos) {
    throw OrvaCtlException("Invalid namespace name '" + name + "'");
  }
}

std::string NotFound(const std::string& root, const std::string& name) {
  return "Namespace " + name + " does not exist in " + root;
}

bool PathPresent(const std::string& path) {
  struct stat status;
  return ::lstat(path.c_str(), &status) == 0;
}

// Cleanup after a failure that is being reported already: a leftover is
// logged, never thrown over the cause.
void RemoveTreeQuietly(const std::string& dir) {
  std::error_code error;
  std::filesystem::remove_all(dir, error);
  if (error) {
    ZEL_LOG_WARNING("%s: Failed to remove namespace directory %s: %s", kTag, dir.c_str(),
                    error.message().c_str());
  }
}

class LocalNamespaces final : public Namespaces {
 public:
  explicit LocalNamespaces(std::string hostUuid) : hostUuid_(std::move(hostUuid)) {}

  std::string CreateNamespace(const std::string& root, const std::string& name,
                              const std::string& policy, uint64_t size) override;
  void DeleteNamespace(const std::string& root, const std::string& name) override;
  void UpdateNamespace(const std::string& root, const std::string& name,
                       const std::string& policy) override;

 private:
  const std::string hostUuid_;
};

// Finds the namespace `name` names, following its link. Throws when the
// link is missing or names no identity; the directory itself may be gone.
Location Locate(const std::string& root, const std::string& name) {
  CheckName(name);
  Location where;
  if (!platform::ParseUuidText(name, &where.uuid)) {
    where.link = root + "/" + name;
    char target[PATH_MAX];
    const ssize_t length = ::readlink(where.link.c_str(), target, sizeof target - 1);
    if (length < 0) {
      const int error = errno;
      if (error == ENOENT) throw OrvaCtlException(NotFound(root, name));
      if (error == EINVAL) throw OrvaCtlException(where.link + " is not a namespace link");
      throw OrvaCtlException("Failed to read namespace link " + where.link + ": " +
                             std::strerror(error));
    }
    target[length] = '\0';
    // The link names the namespace's directory, whose name is its identity.
    const char* slash = std::strrchr(target, '/');
    if (!platform::ParseUuidText(slash == nullptr ? target : slash + 1, &where.uuid)) {
      throw OrvaCtlException(where.link + " is not a namespace link");
    }
  }
  where.dir = root + "/" + where.uuid;
  return where;
}

std::string LocalNamespaces::CreateNamespace(const std::string& root, const std::string& name,
                                             const std::string& policy, uint64_t size) {
  CheckName(name);
  NokCtl::Orva::IscsiTarget::Util::VerifyPolicy(policy);
  const std::string taken = "Namespace " + name + " already exists in " + root;

  Location where;
  if (!platform::ParseUuidText(name, &where.uuid)) {
    where.uuid = boost::uuids::to_string(boost::uuids::random_generator()());
    where.link = root + "/" + name;
    if (PathPresent(where.link)) throw NamespaceExistsException(taken);
  }
  where.dir = root + "/" + where.uuid;

  if (::mkdir(where.dir.c_str(), 0700) != 0) {
    const int error = errno;
    if (error == EEXIST) throw NamespaceExistsException(taken);
    throw OrvaCtlException("Failed to create namespace directory " + where.dir + ": " +
                           std::strerror(error));
  }
  try {
    const json record = {{"objectUuid", where.uuid},
                         {"name", name},
                         {"ownerHost", hostUuid_},
                         {"policy", policy},
                         {"size", size}};
    WriteJsonFileAtomically(where.dir + "/" + kNamespaceRecordFile, record, 0600);
    AnnounceStorageObject("namespace " + name, where.uuid, {hostUuid_, policy});
  } catch (const OrvaCtlException&) {
    RemoveTreeQuietly(where.dir);
    throw;
  }

  if (!where.link.empty() && ::symlink(where.uuid.c_str(), where.link.c_str()) != 0) {
    const int error = errno;
    WithdrawStorageObjectQuietly(where.uuid);
    RemoveTreeQuietly(where.dir);
    if (error == EEXIST) throw NamespaceExistsException(taken);
    throw OrvaCtlException("Failed to link namespace " + name + " to " + where.uuid + " in " +
                           root + ": " + std::strerror(error));
  }
  ZEL_LOG_DEBUG("%s: Created namespace %s (%s) in %s", kTag, name.c_str(), where.uuid.c_str(),
                root.c_str());
  return where.uuid;
}

void LocalNamespaces::DeleteNamespace(const std::string& root, const std::string& name) {
  const Location where = Locate(root, name);
  const bool treePresent = PathPresent(where.dir);

  const NOK_ReturnStatus status =
      CurrentHost().GetDirectory().Delete(kStorageObjectEntryType, where.uuid, where.uuid);
  if (status == NOK_NOT_FOUND && where.link.empty() && !treePresent) {
    throw OrvaCtlException(NotFound(root, name));
  }
  if (status != NOK_OK && status != NOK_NOT_FOUND) {
    throw OrvaCtlException("Failed to withdraw namespace " + name + " (" + where.uuid +
                           ") from the cluster directory: " + NOK_ReturnStatusToString(status));
  }

  std::error_code error;
  std::filesystem::remove_all(where.dir, error);
  if (error) {
    throw OrvaCtlException("Failed to remove namespace directory " + where.dir + ": " +
                           error.message());
  }
  if (!where.link.empty() && ::unlink(where.link.c_str()) != 0 && errno != ENOENT) {
    throw OrvaCtlException("Failed to remove namespace link " + where.link + ": " +
                           std::strerror(errno));
  }
  ZEL_LOG_DEBUG("%s: Deleted namespace %s (%s) in %s", kTag, name.c_str(), where.uuid.c_str(),
                root.c_str());
}

void LocalNamespaces::UpdateNamespace(const std::string& root, const std::string& name,
                                      const std::string& policy) {
  const Location where = Locate(root, name);
  NokCtl::Orva::IscsiTarget::Util::VerifyPolicy(policy);

  const std::string recordPath = where.dir + "/" + kNamespaceRecordFile;
  json record;
  if (!ReadJsonFile(recordPath, kRecordWhat, &record)) {
    throw OrvaCtlException(NotFound(root, name));
  }
  const auto owner = record.find("ownerHost");
  if (owner == record.end() || !owner->is_string()) {
    throw OrvaCtlException(std::string(kRecordWhat) + " " + recordPath + " names no owner host");
  }

  json updated = record;
  updated["policy"] = policy;
  WriteJsonFileAtomically(recordPath, updated, 0600);
  try {
    // The namespace stays with the host that made it, whoever changes it.
    AnnounceStorageObject("namespace " + name, where.uuid, {owner->get<std::string>(), policy});
  } catch (const OrvaCtlException&) {
    // The record and the announcement must not disagree about the policy.
    try {
      WriteJsonFileAtomically(recordPath, record, 0600);
    } catch (const OrvaCtlException& e) {
      ZEL_LOG_WARNING("%s: Failed to restore the policy of namespace %s: %s", kTag, name.c_str(),
                      e.GetMessage().c_str());
    }
    throw;
  }
}

}  // namespace

std::unique_ptr<Namespaces> NewLocalNamespaces(const HostConfig& config) {
  return std::make_unique<LocalNamespaces>(config.hostUuid);
}

}  // namespace platform
}  // namespace zel
