// Adding, changing and removing the LUNs of targets in zel.conf. Each
// operation edits the graph of one exclusive handle; every refusal is
// thrown before the save, so the file and its generation stay as they were.
#pragma once

#include <cstdint>
#include <string>

#include "conf/ConfHandle.h"
#include "zel/LunInfo.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

namespace Parser {

constexpr int kMaxLunsPerCluster = 1024;

// Enters `lun`, whose disk exists already (`path`, `sizeSectors`), into
// its target, under `lun.id` or, when negative, the lowest free number.
// `rollback` is cleared once the file names the disk; a failure before
// leaves it set, so that the caller removes the disk again.
void AddNewLunToConfFile(HostCtl::Orva::IscsiTarget::LunInfo lun, bool& rollback);

// Removes LUN `id` of target `targetAlias` from the file (not its disk).
void RemoveLunFromConfFile(int id, const std::string& targetAlias);

// Applies to the graph of `handle`, in this order, what `lun` asks for:
// its alias, its status, the number `newId` (unless -1), the target
// `newTarget` (unless empty), then its size (unless `lun.size` is empty).
// The caller saves. `retry` is set, and nothing changed, when the LUN's
// disk has not reached the size the file gives it yet (a growth still
// under way): the caller tries again later. `lun.target` follows a move.
void UpdateLun(HostCtl::Orva::IscsiTarget::LunInfo& lun, int newId, const std::string& newTarget,
               ConfHandle& handle, bool& retry);

// After a growth: logs when LUN `id` (or `lun.id` for -1) of `lun.target`
// has its new capacity; when the disk did not reach it, writes the disk's
// real size back into the file and throws.
void CheckResizeDone(const HostCtl::Orva::IscsiTarget::LunInfo& lun, const int& id);

// Writes `oldSize` (sectors) back as the size of LUN `id` of `lun.target`.
void RollbackConfigLunSize(const HostCtl::Orva::IscsiTarget::LunInfo& lun, const int& id,
                           const unsigned long& oldSize);

// The real capacity of the LUN's disk, in bytes.
uint64_t GetZelLunActualSize(const struct lun* lun);

}  // namespace Parser

namespace Util {
// The absolute disk path of LUN `id` of target `target`. Throws "Failed to
// find path for LUN <id> on target <target>" when there is no such LUN.
void GetLunPathById(const std::string& target, int id, std::string& path);
}  // namespace Util

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
