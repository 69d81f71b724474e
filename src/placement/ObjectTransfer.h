// Handing a target to another host: the ownership of its storage object
// moves, and the new owner's zeld starts serving it while the old owner's
// redirects logins to it.
#pragma once

#include <string>

#include "platform/NokStatus.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

// Moves the ownership of storage object `objectUuid` from this host to
// `destHost`. NOK_OK, or the failure's status (logged); throws
// OrvaCtlException when the transfer cannot even be asked for.
NOK_ReturnStatus TransferObjectByUuid(const std::string& objectUuid, const std::string& destHost);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
