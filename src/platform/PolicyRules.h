// Storage policies: the text a caller gives for a namespace or a LUN disk,
// kept on the storage object and announced with it in the directory.
//
// A policy is zero or more rules separated by blanks, each a double-quoted
// rule name, exactly one blank and a double-quoted value:
//
//     "locality" "Preferred" "failuresToTolerate" "1"
//
// Blanks may lead and trail; nothing is escaped, so neither a name nor a
// value holds a double quote; each rule is given at most once. The single
// blank inside a rule is part of the form: the site-affinity checks look for
// the rule text "locality" "Preferred" exactly as written.
//
// Rules (a policy without rules asks for nothing):
//   "locality"            Preferred | NonPreferred  the site of a stretched
//                         cluster that keeps the object
//   "failuresToTolerate"  0 to 3                    host failures the object
//                         survives; needs 2n+1 cluster members
//   "stripeWidth"         1 to 12                   stripes per replica
//   "thinProvisioned"     true | false              space is taken only as
//                         it is written
#pragma once

#include <optional>
#include <string>

namespace zel {
namespace platform {

struct PolicyRules {
  std::optional<std::string> locality;  // "Preferred" or "NonPreferred"
  std::optional<int> failuresToTolerate;
  std::optional<int> stripeWidth;
  std::optional<bool> thinProvisioned;
};

// Parses `text`. On failure returns false with `*why` saying what is wrong
// (for example: unknown rule "x"); `*rules` is written only on success.
bool ParsePolicyRules(const std::string& text, PolicyRules* rules, std::string* why);

}  // namespace platform
}  // namespace zel

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

// Throws OrvaCtlException "Invalid storage policy '<text>': <why>" unless
// `policy` is a well-formed policy of known rules and values.
void VerifyPolicy(const std::string& policy);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
