// Adding, changing and removing targets in zel.conf. Each operation edits the
// graph of one exclusive handle and saves it once; every refusal is thrown
// before the save, so the file and its generation stay as they were.
#pragma once

#include <string>

#include "conf/ConfHandle.h"
#include "zel/TargetCreateParam.h"
#include "zel/TargetInfo.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

namespace Parser {

constexpr int kMaxTargetsPerCluster = 128;

// The target whose alias is exactly `alias`; throws "Target <alias> not
// found." when there is none.
struct target* FindTargetByAlias(struct conf* conf, const std::string& alias);

// Adds the target `param` describes; its namespace (`param.uuid`) exists
// already. `rollback` is left true when the failure happened before the file
// named the target, so that the caller removes the namespace again, and
// cleared once the file holds it.
void AddNewTargetToConfFile(HostCtl::Orva::IscsiTarget::TargetCreateParam& param,
                            bool& rollback);

// Removes target `alias` and its namespace under the file's exclusive lock,
// namespace first, provided the entry still carries identity `uuid`: an
// alias that meanwhile names another target (renamed and re-added by other
// editors) is refused with nothing removed. A namespace link already gone
// is only warned about, so an interrupted removal can be finished.
void RemoveTargetFromConfFile(const std::string& alias, const std::string& uuid);

// Applies the changes `param` asks for to the graph of `handle`, which the
// caller opened exclusively and saves.
void UpdateTargetConf(const HostCtl::Orva::IscsiTarget::TargetCreateParam& param,
                      ConfHandle& handle);

}  // namespace Parser

namespace Util {
// The current record of the target with this alias, as the cache reports
// it; throws "Target <alias> not found." when there is none.
HostCtl::Orva::IscsiTarget::TargetInfo GetTargetInfoFromConfFile(const std::string& alias);
}  // namespace Util

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
