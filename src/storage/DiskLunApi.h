// The datastore's namespace and LUN-disk operations under the names the
// service's call sites use: thin dispatch to the selected host's Namespaces
// and DiskLibrary backends (platform/Namespaces.h, platform/DiskLibrary.h),
// whose failure semantics they keep.
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

// Creates the virtual disk `path` of `sectors` 512-byte sectors with
// `policy`, owned by this host. Throws OrvaCtlException; a failure leaves
// nothing behind.
void CreateVirtualDisk(const std::string& path, uint64_t sectors, const std::string& policy);

// Removes the disk, its data and its announcement. Throws OrvaCtlException.
void RemoveVirtualDisk(const std::string& path);

// Gives the disk a new policy. Throws OrvaCtlException.
void UpdateVirtualDisk(const std::string& path, const std::string& policy);

}  // namespace DiskLunApi
}  // namespace Storage
}  // namespace NokCtl
