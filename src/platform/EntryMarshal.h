// Payloads of the directory entries that the service reads and writes.
//
// Every payload is one JSON object whose "type" member names the entry type
// it was marshalled under, so that a payload read under the wrong type is
// refused instead of being misread. A payload that does not parse, names
// another type, lacks a member or holds a member of the wrong form is a
// marshal error: the unmarshal functions return NOK_BAD_PARAM and say why.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "platform/NokStatus.h"

// Entry type codes of the cluster directory.
constexpr uint32_t BRIX_TYPE_STORAGE_OBJECT = 13;
constexpr uint32_t BRIX_TYPE_ORVA_ISCSI_TARGET_CONFIG = 37;
constexpr uint32_t BRIX_TYPE_ORVA_ISCSI_INTERFACE_MAP = 38;

// Entry type names, as carried by the payloads.
constexpr const char* BRIX_NAME_ORVA_ISCSI_TARGET_CONFIG = "BrixOrvaIscsiTargetConfig";
constexpr const char* BRIX_NAME_ORVA_ISCSI_INTERFACE_MAP = "BrixOrvaIscsiInterfaceMap";
constexpr const char* BRIX_NAME_STORAGE_OBJECT = "BrixStorageObject";

// The largest payload the service writes: the marshalling buffer of every
// entry it publishes.
constexpr size_t BRIX_PAYLOAD_MAX = 1024;

namespace zel {
namespace platform {

// The configuration generation entry (type 37): the generation of zel.conf
// that every host should be reading.
struct ZelConfigRecord {
  uint64_t generation = 0;
};

// One published iSCSI network interface of a host (type 38). An address
// family the interface does not have is all zero.
struct ZelInterfaceRecord {
  std::string name;
  std::array<uint8_t, 4> ipv4{};
  std::array<uint8_t, 16> ipv6{};
};

// The directory's record of a storage object (type 13), for example a
// namespace or a virtual disk: the host that owns it, its storage policy
// text, and its extended parameters by name. A payload without
// "extParams" (one written before objects had them) reads as having none,
// and a record without any is marshalled without the member.
struct StorageObjectRecord {
  // Not an aggregate, so that {owner, policy} leaves the parameters empty
  // without a missing-initializer complaint.
  StorageObjectRecord(std::string owner = "", std::string policyText = "",
                      std::map<std::string, std::string> params = {})
      : ownerHost(std::move(owner)), policy(std::move(policyText)), extParams(std::move(params)) {}

  std::string ownerHost;  // canonical UUID text
  std::string policy;
  std::map<std::string, std::string> extParams;
};

// Marshal: NOK_OK, or NOK_BAD_PARAM when the payload would exceed
// BRIX_PAYLOAD_MAX (`*payload` is then unchanged).
NOK_ReturnStatus MarshalConfigRecord(const ZelConfigRecord& record, std::string* payload);
NOK_ReturnStatus MarshalInterfaceRecord(const ZelInterfaceRecord& record, std::string* payload);
NOK_ReturnStatus MarshalStorageObjectRecord(const StorageObjectRecord& record,
                                            std::string* payload);

// Unmarshal: NOK_OK, or NOK_BAD_PARAM with `*error` (when given) saying
// why; `*record` is written only on success.
NOK_ReturnStatus UnmarshalConfigRecord(const std::string& payload, ZelConfigRecord* record,
                                       std::string* error);
NOK_ReturnStatus UnmarshalInterfaceRecord(const std::string& payload, ZelInterfaceRecord* record,
                                          std::string* error);
NOK_ReturnStatus UnmarshalStorageObjectRecord(const std::string& payload,
                                              StorageObjectRecord* record, std::string* error);

// Reads a UUID in the 8-4-4-4-12 hex form (either case) and writes its
// canonical lower-case text. False, leaving `*canonical` unchanged, for any
// other text.
bool ParseUuidText(const std::string& text, std::string* canonical);

}  // namespace platform
}  // namespace zel
