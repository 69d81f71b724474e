#include "storage/DiskLunApi.h"

#include "platform/Host.h"

namespace NokCtl {
namespace Storage {
namespace DiskLunApi {

void CreateNamespace(const std::string& root, const std::string& name, const std::string& policy,
                     uint64_t size, std::string& objectUuid) {
  objectUuid =
      zel::platform::CurrentHost().GetNamespaces().CreateNamespace(root, name, policy, size);
}

void DeleteNamespace(const std::string& root, const std::string& name) {
  zel::platform::CurrentHost().GetNamespaces().DeleteNamespace(root, name);
}

void UpdateNamespace(const std::string& root, const std::string& name, const std::string& policy) {
  zel::platform::CurrentHost().GetNamespaces().UpdateNamespace(root, name, policy);
}

void CreateVirtualDisk(const std::string& path, uint64_t sectors, const std::string& policy) {
  zel::platform::CurrentHost().Disks().CreateVirtualDisk(path, sectors, policy);
}

void RemoveVirtualDisk(const std::string& path) {
  zel::platform::CurrentHost().Disks().RemoveVirtualDisk(path);
}

void UpdateVirtualDisk(const std::string& path, const std::string& policy) {
  zel::platform::CurrentHost().Disks().UpdateVirtualDiskPolicy(path, policy);
}

}  // namespace DiskLunApi
}  // namespace Storage
}  // namespace NokCtl
