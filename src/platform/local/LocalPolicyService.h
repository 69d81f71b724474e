// Storage policies of a local host. A storage object (a namespace, a LUN
// disk) is announced in the cluster directory under
// (kStorageObjectEntryType, object UUID) with a JSON payload holding at
// least "ownerHost" and "policy"; the policy is read from there.
//
// Compliance is judged from the policy's rules (storage/Policy.h) against
// the cluster's membership, which is all a local host can know of where
// the object's copies could live:
//   - "failuresToTolerate" n needs at least 2n+1 members, so that a
//     majority of the copies survives n failed hosts;
//   - "locality" needs a stretched cluster: some member names a fault
//     domain;
//   - the other rules shape the object's layout and ask nothing of the
//     membership; a policy without rules is always compliant.
// A stored policy that does not parse is not complied with. Without
// cluster facts, or when the membership cannot be learnt, compliance is
// Compliance::Unknown rather than guessed.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "platform/ClusterFacts.h"
#include "platform/Directory.h"
#include "platform/PolicyService.h"

namespace zel {
namespace platform {

constexpr uint32_t kStorageObjectEntryType = 13;

class LocalPolicyService final : public PolicyService {
 public:
  // REQUIRES: `directory` and `cluster` (when given) outlive this object.
  // `hostUuid` is this host's identity; Init queries this host's objects to
  // prove the directory answers.
  LocalPolicyService(Directory& directory, std::string hostUuid, ClusterFacts* cluster = nullptr);

  // NOK_NO_CONNECTION when the directory cannot be queried. Each success
  // opens one session, to be closed by one Deinit.
  NOK_ReturnStatus Init() override;
  void Deinit() override;

  // Throws OrvaCtlException "Storage object <uuid> not found" when the
  // directory has no entry for it, and another readable message when the
  // directory fails or the entry lacks its owner or policy.
  PolicyStatus GetObjectPolicyStatus(const std::string& objectUuid) override;

 private:
  Compliance Judge(const std::string& objectUuid, const std::string& policy, std::string* reason);

  Directory& directory_;
  const std::string hostUuid_;
  ClusterFacts* const cluster_;  // null: compliance is unknown
  std::mutex mutex_;
  int sessions_ = 0;  // guarded by mutex_
};

}  // namespace platform
}  // namespace zel
