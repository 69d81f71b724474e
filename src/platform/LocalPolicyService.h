// Storage policies of a local host. A storage object (a namespace, a LUN
// disk) is announced in the cluster directory under
// (kStorageObjectEntryType, object UUID) with a JSON payload holding at
// least "ownerHost" and "policy"; the policy is read from there.
//
// Nothing on a local host measures whether an object's storage complies with
// its policy, so compliance is always reported as Compliance::Unknown rather
// than guessed.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "platform/Directory.h"
#include "platform/PolicyService.h"

namespace zel {
namespace platform {

constexpr uint32_t kStorageObjectEntryType = 13;

class LocalPolicyService final : public PolicyService {
 public:
  // REQUIRES: `directory` outlives this object. `hostUuid` is this host's
  // identity; Init queries this host's objects to prove the directory
  // answers.
  LocalPolicyService(Directory& directory, std::string hostUuid);

  // NOK_NO_CONNECTION when the directory cannot be queried. Each success
  // opens one session, to be closed by one Deinit.
  NOK_ReturnStatus Init() override;
  void Deinit() override;

  // Throws OrvaCtlException "Storage object <uuid> not found" when the
  // directory has no entry for it, and another readable message when the
  // directory fails or the entry lacks its owner or policy.
  PolicyStatus GetObjectPolicyStatus(const std::string& objectUuid) override;

 private:
  Directory& directory_;
  const std::string hostUuid_;
  std::mutex mutex_;
  int sessions_ = 0;  // guarded by mutex_
};

}  // namespace platform
}  // namespace zel
