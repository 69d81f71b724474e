#include "directory/NicPublication.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <future>

#include "directory/DirectoryEntries.h"
#include "platform/Host.h"
#include "platform/Log.h"
#include "platform/NicApi.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {
namespace {

using HostCtl::Lib::Orva::OrvaCtlException;
using zel::platform::ZelInterfaceRecord;
using zel::platform::DirectoryEntry;

const char kTag[] = "Util";

const std::string& ThisHost() { return zel::platform::CurrentHost().Config().hostUuid; }

[[noreturn]] void LogAndThrow(const std::string& message) {
  ZEL_LOG_ERROR("%s: %s\n", kTag, message.c_str());
  throw OrvaCtlException(message);
}

// Writes `entry` and waits for the directory's verdict.
NOK_ReturnStatus UpdateAndWait(zel::platform::Directory& brix, const DirectoryEntry& entry) {
  std::promise<NOK_ReturnStatus> completed;
  std::future<NOK_ReturnStatus> result = completed.get_future();
  brix.AsyncUpdate(entry, nullptr, [&completed](NOK_ReturnStatus status, const DirectoryEntry*) {
    completed.set_value(status);
  });
  return result.get();
}

}  // namespace

ZelNetBrixEntry::ZelNetBrixEntry(std::string name, uint32_t ipv4, const Ipv6Address& ipv6)
    : name_(std::move(name)), ipv4_(ipv4), ipv6_(ipv6) {}

ZelNetBrixEntry::ZelNetBrixEntry(const ZelInterfaceRecord& record, std::string entryUuid)
    : name_(record.name), ipv6_(record.ipv6), entryUuid_(std::move(entryUuid)) {
  // Both hold the address in network byte order.
  std::memcpy(&ipv4_, record.ipv4.data(), sizeof ipv4_);
}

ZelInterfaceRecord ZelNetBrixEntry::GetBrixOrvaIscsiInterfaceMap() const {
  ZelInterfaceRecord record;
  record.name = name_;
  std::memcpy(record.ipv4.data(), &ipv4_, sizeof ipv4_);
  record.ipv6 = ipv6_;
  return record;
}

bool ZelNetBrixEntry::operator==(const ZelNetBrixEntry& other) const {
  return name_ == other.name_;
}

bool ZelNetBrixEntry::DeepEqual(const ZelNetBrixEntry& other) const {
  return name_ == other.name_ && ipv4_ == other.ipv4_ && ipv6_ == other.ipv6_;
}

BrixHandle::BrixHandle() : directory_(zel::directory::Brix()) {
  if (directory_ == nullptr) {
    throw OrvaCtlException(std::string("Failed to initialize BRIX library: ") +
                           NOK_ReturnStatusToString(NOK_NO_CONNECTION));
  }
}

void PublishNokNicsToBrix() {
  ZEL_LOG_INFO("%s: Start to publish noknics to brix\n", kTag);
  try {
    const std::vector<ZelNetBrixEntry> existing = GetBrixEntriesForNokNics();
    const std::vector<ZelNetBrixEntry> wanted = GetNewBrixEntries();
    PublishDiffNetBrixEntries(existing, wanted);
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_ERROR("%s: Failed to publish nok nic info to BRIX %s\n", kTag, e.GetMessage().c_str());
  }
}

std::vector<ZelNetBrixEntry> GetBrixEntriesForNokNics() {
  ZEL_LOG_INFO("%s: Getting nok interface entries from BRIX for this host.\n", kTag);
  BrixHandle brix;
  std::vector<DirectoryEntry> entries;
  const NOK_ReturnStatus status =
      brix.Get().Query(BRIX_TYPE_ORVA_ISCSI_INTERFACE_MAP, ThisHost(), &entries);
  std::vector<ZelNetBrixEntry> published;
  if (status == NOK_NOT_FOUND) return published;
  if (status != NOK_OK) {
    const std::string text = NOK_ReturnStatusToString(status);
    ZEL_LOG_ERROR("%s: Failed to get ZEL interface entry from BRIX with error %s\n", kTag,
                  text.c_str());
    throw OrvaCtlException("Failed to get ZEL interface entry from BRIX with error " + text);
  }
  for (const DirectoryEntry& entry : entries) {
    ZelInterfaceRecord record;
    std::string error;
    if (zel::platform::UnmarshalInterfaceRecord(entry.payload, &record, &error) != NOK_OK) {
      ZEL_LOG_WARNING("%s: Failed to umsh ZEL interface entry from BRIX with error %s\n", kTag,
                      error.c_str());
      // Left nameless (a failed unmarshal writes nothing), it matches no
      // interface and the difference deletes it.
    }
    published.emplace_back(record, entry.entryId);
  }
  return published;
}

std::vector<ZelNetBrixEntry> GetNewBrixEntries() {
  std::vector<ZelNetBrixEntry> wanted;
  wanted.reserve(16);
  for (const std::string& name : NokCtl::Network::NokKernelNicApi::GetNokKernelNicNames()) {
    std::string ipv4Text;
    std::string ipv6Text;
    GetPreferredZelNetworkAddressForNokNic(name, &ipv4Text, &ipv6Text);
    struct in_addr ipv4 {};
    ZelNetBrixEntry::Ipv6Address ipv6{};
    if (::inet_pton(AF_INET, ipv4Text.c_str(), &ipv4) != 1) ipv4.s_addr = 0;
    if (::inet_pton(AF_INET6, ipv6Text.c_str(), ipv6.data()) != 1) ipv6.fill(0);
    wanted.emplace_back(name, ipv4.s_addr, ipv6);
  }
  return wanted;
}

void PublishDiffNetBrixEntries(const std::vector<ZelNetBrixEntry>& existing,
                               const std::vector<ZelNetBrixEntry>& wanted) {
  for (const ZelNetBrixEntry& published : existing) {
    auto match = std::find(wanted.begin(), wanted.end(), published);
    if (match == wanted.end()) {
      ZEL_LOG_INFO("%s: Start to delete brix entry for '%s'\n", kTag, published.GetName().c_str());
      DeleteNetBrixEntry(published.GetEntryUuid());
    } else if (!match->DeepEqual(published)) {
      UpdateNetBrixEntry(match->GetBrixOrvaIscsiInterfaceMap(), published.GetEntryUuid());
    }
  }
  for (const ZelNetBrixEntry& record : wanted) {
    if (std::find(existing.begin(), existing.end(), record) == existing.end()) {
      PublishNewNetBrixEntry(record);
    }
  }
}

void UpdateNetBrixEntry(const ZelInterfaceRecord& record, const std::string& entryUuid) {
  DirectoryEntry entry;
  entry.type = BRIX_TYPE_ORVA_ISCSI_INTERFACE_MAP;
  entry.key = ThisHost();
  entry.ownerHost = ThisHost();
  entry.entryId = entryUuid;
  NOK_ReturnStatus status = zel::platform::MarshalInterfaceRecord(record, &entry.payload);
  if (status != NOK_OK) {
    LogAndThrow(std::string("Failed to marshal BRIX ZEL interface entry: ") +
                NOK_ReturnStatusToString(status));
  }
  BrixHandle brix;
  status = UpdateAndWait(brix.Get(), entry);
  if (status != NOK_OK) {
    LogAndThrow("Failed to update BRIX interface entry for nok nic " + record.name +
                " with status " + NOK_ReturnStatusToString(status));
  }
  ZEL_LOG_INFO("%s: Successfully updated BRIX interface entry for nok nic %s\n", kTag,
               record.name.c_str());
}

void PublishNewNetBrixEntry(const ZelNetBrixEntry& record) {
  // No identity: the directory gives the new entry a fresh one.
  UpdateNetBrixEntry(record.GetBrixOrvaIscsiInterfaceMap(), std::string());
}

void DeleteNetBrixEntry(const std::string& entryUuid) {
  BrixHandle brix;
  const NOK_ReturnStatus status =
      brix.Get().Delete(BRIX_TYPE_ORVA_ISCSI_INTERFACE_MAP, ThisHost(), entryUuid);
  if (status == NOK_NOT_FOUND) {
    ZEL_LOG_WARNING("%s: Failed to get ZEL interface entry from BRIX with error %s\n", kTag,
                    NOK_ReturnStatusToString(status));
  } else if (status != NOK_OK) {
    LogAndThrow("Failed to delete interface entry UUID " + entryUuid + " with error " +
                NOK_ReturnStatusToString(status));
  }
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
