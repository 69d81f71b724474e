// Publication of this host's network interfaces in the cluster directory:
// one interface-map entry (BRIX_TYPE_ORVA_ISCSI_INTERFACE_MAP) per kernel
// network interface, keyed and owned by this host (its HostConfig hostUuid,
// the key ZeldBrixGetSelfInterfaceAddress reads), holding the addresses that
// initiators should use. Other hosts read them to send initiators to a
// target's owner.
//
// A publication pass compares the published entries with the host's
// interfaces and writes only the difference: an unchanged interface keeps
// its entry untouched, a changed one is updated in place under the same
// entry identity, a vanished one is deleted and a new one added. The first
// failure ends the pass; the next pass repairs the rest.
//
// Runs under its callers' locks (enable, restore, the network-change event)
// and keeps no state.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/Directory.h"
#include "platform/EntryMarshal.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

// One published interface of this host.
class ZelNetBrixEntry {
 public:
  using Ipv6Address = std::array<uint8_t, 16>;

  ZelNetBrixEntry() = default;
  ZelNetBrixEntry(const ZelNetBrixEntry& other) = default;
  ZelNetBrixEntry& operator=(const ZelNetBrixEntry& other) = default;
  // Not yet published: no entry identity.
  ZelNetBrixEntry(std::string name, uint32_t ipv4, const Ipv6Address& ipv6);
  // As read from the directory entry `entryUuid`.
  ZelNetBrixEntry(const zel::platform::ZelInterfaceRecord& record, std::string entryUuid);

  const std::string& GetName() const { return name_; }
  // Network byte order; 0 when the interface has no IPv4 address.
  uint32_t GetIpv4() const { return ipv4_; }
  // All zero when the interface has no IPv6 address.
  const Ipv6Address& GetIpv6() const { return ipv6_; }
  // The identity of the directory entry holding this record, canonical UUID
  // text as the directory names entries; empty when not published.
  const std::string& GetEntryUuid() const { return entryUuid_; }

  // The directory record of this interface.
  zel::platform::ZelInterfaceRecord GetBrixOrvaIscsiInterfaceMap() const;

  // The same interface: names only.
  bool operator==(const ZelNetBrixEntry& other) const;
  // The same interface with the same addresses. The entry identity is never
  // compared: a wanted record has none, and a published one must compare
  // equal to it when nothing changed.
  bool DeepEqual(const ZelNetBrixEntry& other) const;

 private:
  std::string name_;
  uint32_t ipv4_ = 0;
  Ipv6Address ipv6_{};
  std::string entryUuid_;
};

// The directory for the operations below.
class BrixHandle {
 public:
  // Throws "Failed to initialize BRIX library: " and the status text when
  // the host has no directory.
  BrixHandle();
  zel::platform::Directory& Get() const { return *directory_; }

 private:
  zel::platform::Directory* directory_;
};

// Brings the directory in line with the host's interfaces. Never throws: a
// failure is logged and left for the next pass.
void PublishNokNicsToBrix();

// This host's published interfaces, each with its entry identity; none when
// nothing is published. An entry whose payload cannot be read is returned
// without a name, so that the next difference deletes it. Throws when the
// directory cannot be queried.
std::vector<ZelNetBrixEntry> GetBrixEntriesForNokNics();

// The records this host should publish: one per kernel network interface,
// in the interfaces' order, with its preferred addresses. An address text
// that does not parse leaves that address zero.
std::vector<ZelNetBrixEntry> GetNewBrixEntries();

// Deletes, updates and adds entries so that `existing` (as published)
// becomes `wanted`. Throws at the first failure.
void PublishDiffNetBrixEntries(const std::vector<ZelNetBrixEntry>& existing,
                               const std::vector<ZelNetBrixEntry>& wanted);

// Writes `record` into this host's entry `entryUuid`, which keeps its
// identity; an empty `entryUuid` creates a new entry. Throws on failure.
void UpdateNetBrixEntry(const zel::platform::ZelInterfaceRecord& record,
                        const std::string& entryUuid);

// Publishes `record` as a new entry of this host. Throws on failure.
void PublishNewNetBrixEntry(const ZelNetBrixEntry& record);

// Deletes this host's entry `entryUuid`. One that is already gone is only
// logged: the directory holds what was wanted. Throws on any other failure.
void DeleteNetBrixEntry(const std::string& entryUuid);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
