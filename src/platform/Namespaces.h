// Storage namespaces on the datastore (NokCtl::Storage::DiskLunApi at the
// call sites): a namespace is a directory backed by a storage object with
// an identity and a storage policy, announced in the cluster directory as a
// storage object owned by the host that created it.
#pragma once

#include <cstdint>
#include <string>

#include "zel/OrvaCtlException.h"

namespace zel {
namespace platform {

// Thrown by CreateNamespace when a namespace of that name is already there
// (another host may have created it a moment ago).
class NamespaceExistsException : public HostCtl::Lib::Orva::OrvaCtlException {
 public:
  using OrvaCtlException::OrvaCtlException;
};

class Namespaces {
 public:
  virtual ~Namespaces() = default;

  // Creates namespace `name` under the datastore `root` with `policy` and
  // returns its object identity (canonical UUID text). A `name` that is a
  // UUID is the identity itself; any other name is a link beside the
  // object's directory. Throws NamespaceExistsException or
  // OrvaCtlException; a failure leaves nothing behind.
  virtual std::string CreateNamespace(const std::string& root, const std::string& name,
                                      const std::string& policy, uint64_t size) = 0;

  // Removes the namespace, its directory with everything in it, its link
  // and its announcement. Throws OrvaCtlException.
  virtual void DeleteNamespace(const std::string& root, const std::string& name) = 0;

  // Gives the namespace a new policy. Throws OrvaCtlException.
  virtual void UpdateNamespace(const std::string& root, const std::string& name,
                               const std::string& policy) = 0;
};

}  // namespace platform
}  // namespace zel
