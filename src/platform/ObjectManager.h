// The object manager of the cluster: it moves the ownership of a storage
// object (a target's namespace) from one host to another. The new owner's
// zeld starts serving the target and the old owner's redirects logins to
// it; both follow the owner recorded in the cluster directory.
#pragma once

#include <string>

#include "platform/NokStatus.h"

namespace zel {
namespace platform {

class ObjectManager {
 public:
  virtual ~ObjectManager() = default;

  // Moves the ownership of `objectUuid` from `fromHost` to `toHost` as one
  // compare-and-set: it happens only while `fromHost` still owns the object,
  // so two hosts that both planned to give the same object away cannot both
  // do it. NOK_OK; NOK_NOT_FOUND when the object is not announced;
  // NOK_EXISTS when `fromHost` is not (or no longer) its owner, or is not a
  // host this backend may act for; NOK_BAD_PARAM when `toHost` is not a
  // cluster member or is `fromHost`; otherwise the directory's status.
  // Thread-safe.
  virtual NOK_ReturnStatus TransferOwnership(const std::string& objectUuid,
                                             const std::string& fromHost,
                                             const std::string& toHost) = 0;
};

}  // namespace platform
}  // namespace zel
