#include <arpa/inet.h>

#include <algorithm>
#include <string>
#include <vector>

#include "directory/DirectoryEntries.h"
#include "platform/EntryMarshal.h"
#include "platform/Host.h"
#include "platform/Log.h"
#include "zel/OrvaCtlException.h"

namespace zel {
namespace directory {

platform::Directory* Brix() {
  try {
    return &platform::CurrentHost().GetDirectory();
  } catch (const HostCtl::Lib::Orva::OrvaCtlException& e) {
    ZEL_LOG_WARNING("BRIX is not reachable: %s", e.GetMessage().c_str());
    return nullptr;
  }
}

}  // namespace directory
}  // namespace zel

using zel::directory::Brix;
using zel::platform::Directory;
using zel::platform::DirectoryEntry;

NOK_ReturnStatus ZeldBrixGetOwnerHost(const std::string& objectUuid, std::string* ownerHost) {
  Directory* brix = Brix();
  std::vector<DirectoryEntry> entries;
  NOK_ReturnStatus status = brix ? brix->Query(BRIX_TYPE_STORAGE_OBJECT, objectUuid, &entries)
                                 : NOK_NO_CONNECTION;
  if (status != NOK_OK) {
    ZEL_LOG_WARNING("Failed to get BRIX entry of object %s: %s", objectUuid.c_str(),
                    NOK_ReturnStatusToString(status));
    return status;
  }
  zel::platform::StorageObjectRecord record;
  std::string error;
  status = zel::platform::UnmarshalStorageObjectRecord(entries.front().payload, &record, &error);
  if (status != NOK_OK) {
    ZEL_LOG_WARNING("Failed to unmarshal BRIX entry of object %s: %s", objectUuid.c_str(),
                    error.c_str());
    return status;
  }
  *ownerHost = record.ownerHost;
  return NOK_OK;
}

namespace {

template <size_t N>
bool AllZero(const std::array<uint8_t, N>& bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte == 0; });
}

}  // namespace

NOK_ReturnStatus ZeldBrixGetInterfaceAddress(const std::string& hostUuid, const std::string& ifName,
                                             std::string* ipv4, std::string* ipv6) {
  if (ipv4 != nullptr) ipv4->clear();
  if (ipv6 != nullptr) ipv6->clear();

  Directory* brix = Brix();
  std::vector<DirectoryEntry> entries;
  NOK_ReturnStatus status = brix ? brix->Query(BRIX_TYPE_ORVA_ISCSI_INTERFACE_MAP, hostUuid, &entries)
                                 : NOK_NO_CONNECTION;
  if (status != NOK_OK) {
    ZEL_LOG_DEBUG("Failed to get ZEL nok interface entry from BRIX with error: %s",
                  NOK_ReturnStatusToString(status));
    ZEL_LOG_WARNING("Unable to find BRIX entry for interface %s for host %s: %s", ifName.c_str(),
                    hostUuid.c_str(), NOK_ReturnStatusToString(status));
    return status;
  }

  for (const DirectoryEntry& entry : entries) {
    zel::platform::ZelInterfaceRecord record;
    std::string error;
    // One unreadable entry must not hide the host's other interfaces.
    if (zel::platform::UnmarshalInterfaceRecord(entry.payload, &record, &error) != NOK_OK) {
      ZEL_LOG_WARNING("Failed to unmarshal ZEL interface entry %s of host %s: %s",
                      entry.entryId.c_str(), hostUuid.c_str(), error.c_str());
      continue;
    }
    if (record.name != ifName) continue;

    if (ipv4 != nullptr && !AllZero(record.ipv4)) {
      char text[INET_ADDRSTRLEN];
      ::inet_ntop(AF_INET, record.ipv4.data(), text, sizeof text);
      ZEL_LOG_DEBUG("Retrieved IPv4 address %s", text);
      *ipv4 = text;
    }
    if (ipv6 != nullptr && !AllZero(record.ipv6)) {
      char text[INET6_ADDRSTRLEN];
      ::inet_ntop(AF_INET6, record.ipv6.data(), text, sizeof text);
      ZEL_LOG_DEBUG("Retrieved IPv6 address %s", text);
      *ipv6 = text;
    }
    return NOK_OK;
  }

  ZEL_LOG_WARNING("Failed to fetch target interface %s address for host %s", ifName.c_str(),
                  hostUuid.c_str());
  return NOK_NOT_FOUND;
}

NOK_ReturnStatus ZeldBrixGetSelfInterfaceAddress(const std::string& ifName, std::string* ipv4,
                                                 std::string* ipv6) {
  return ZeldBrixGetInterfaceAddress(zel::platform::CurrentHost().Config().hostUuid, ifName, ipv4,
                                     ipv6);
}
