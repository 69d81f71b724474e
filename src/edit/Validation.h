// The checks on every name and credential that reaches the service from
// outside, run before anything is written. Each returns normally or throws
// OrvaCtlException with the service's fixed text and the offending value;
// none logs, writes or keeps state, so they may run on any thread.
#pragma once

#include <cstddef>
#include <string>

#include "zel/DefaultInfo.h"
#include "zel/TargetCreateParam.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

// Throws "Invalid <fieldName> '<value>'. Permitted length should be ..."
// unless minimum <= length < maximum (in bytes). The upper bound is strict:
// a maximum of 128 admits at most 127 bytes.
void VerifyLength(const std::string& value, size_t minimum, size_t maximum,
                  const std::string& fieldName);

// Throws "'\"' not permitted in <fieldName>" when the value holds a double
// quote: zel.conf quotes its values with it, so no stored text may carry one.
void VerifyNoQuote(const std::string& value, const std::string& fieldName);

// The target's IQN, alias and the quoting of its credentials; the first
// failure ends the check.
void VerifyTargetParams(const HostCtl::Orva::IscsiTarget::TargetCreateParam& param);

// The alias rules of VerifyTargetParams on their own, for a new alias given
// to an existing target.
void VerifyAlias(const std::string& alias);

// Whether the authentication type and the four credentials fit together and
// each credential meets its rule. Type names are exact, letter case
// included; an empty type counts as "No-Authentication".
void VerifyDefaultAuthParams(const HostCtl::Orva::IscsiTarget::DefaultInfo& info);
void VerifyTargetAuthParams(const HostCtl::Orva::IscsiTarget::TargetCreateParam& param);

// At most 223 bytes, in the iqn. or eui. form.
void ValidateInitiatorIQN(const std::string& name);

// Letters, digits and ".:-_" only, not all digits (so not empty), at most
// 223 bytes, and not starting like an initiator name in any letter case.
void ValidateInitiatorGroupName(const std::string& name);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
