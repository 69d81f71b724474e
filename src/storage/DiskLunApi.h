// The datastore's namespace operations under the names the service's call
// sites use: thin dispatch to the selected host's Namespaces backend
// (platform/Namespaces.h), whose failure semantics they keep.
#pragma once

#include <cstdint>
#include <string>

namespace NokCtl {
namespace Storage {
namespace DiskLunApi {

// Creates namespace `name` under the datastore `root` with `policy` and
// `size`, and sets `objectUuid` to its identity. Throws
// zel::platform::NamespaceExistsException when the name is taken, and
// OrvaCtlException for other failures; `objectUuid` is then unchanged.
void CreateNamespace(const std::string& root, const std::string& name, const std::string& policy,
                     uint64_t size, std::string& objectUuid);

// Removes the namespace with everything in it. Throws OrvaCtlException.
void DeleteNamespace(const std::string& root, const std::string& name);

// Gives the namespace a new policy. Throws OrvaCtlException.
void UpdateNamespace(const std::string& root, const std::string& name, const std::string& policy);

}  // namespace DiskLunApi
}  // namespace Storage
}  // namespace NokCtl
