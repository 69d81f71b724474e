#include "edit/Validation.h"

#include <boost/regex.hpp>

#include "edit/NamePatterns.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

using HostCtl::Lib::Orva::OrvaCtlException;
using HostCtl::Orva::IscsiTarget::DefaultInfo;
using HostCtl::Orva::IscsiTarget::TargetCreateParam;

namespace {

// Strict upper bounds for VerifyLength: an IQN of at most 223 bytes, an
// alias of at most 127.
constexpr size_t kTargetIqnLengthBound = 224;
constexpr size_t kAliasLengthBound = 128;
// Initiator and group names may be this long, inclusive.
constexpr size_t kMaxInitiatorNameLength = 223;

const char* const kUserRuleMessage =
    "Username should meet all these requirements: 1) must contain at least one character; "
    "2) special characters allowed are ( _, ., -, @, :); 3) cannot start with special "
    "characters.";

// Names more than is enforced: the pattern and the two space tests are all
// that is checked.
const char* const kSecretRuleMessage =
    "User secret should meet all these requirements: 1) 12 to 16 characters in length, "
    "2) minimum 1 uppercase character, 3) minimum 1 lowercase character, 4) minimum 1 "
    "numeric digit, 5) minimum 1 special character( !, @, #, $, %, &, ^ and *), 6) only "
    "visible ASCII characters including space (excluding non-printing control characters "
    "such as BEL, Nul,...), 7) cannot start or end with spaces.";

void VerifyChapUser(const std::string& user) {
  if (!boost::regex_match(user, GetNamePatterns().chapUser)) {
    throw OrvaCtlException(kUserRuleMessage);
  }
}

void VerifyChapSecret(const std::string& secret) {
  if (!boost::regex_match(secret, GetNamePatterns().chapSecret) || secret.front() == ' ' ||
      secret.back() == ' ') {
    throw OrvaCtlException(kSecretRuleMessage);
  }
}

void RequireEmpty(const std::string& value, const char* message) {
  if (!value.empty()) throw OrvaCtlException(message);
}

void RequireGiven(const std::string& value, const char* message) {
  if (value.empty()) throw OrvaCtlException(message);
}

// The shared core of the two auth wrappers. Presence is settled for every
// field before any rule runs, so an operator sees the structural mistake
// first.
void VerifyAuthParams(const std::string& type, const std::string& user, const std::string& secret,
                      const std::string& mutualUser, const std::string& mutualSecret) {
  if (type.empty() || type == "No-Authentication") {
    RequireEmpty(user, "User id should not be provided.");
    RequireEmpty(secret, "Secret should not be provided.");
    RequireEmpty(mutualUser, "Mutual user id should not be provided.");
    RequireEmpty(mutualSecret, "Mutual secret should not be provided.");
  } else if (type == "CHAP") {
    RequireGiven(user, "User id should not be empty.");
    RequireGiven(secret, "Secret should not be empty.");
    RequireEmpty(mutualUser, "Mutual user id should not be provided.");
    RequireEmpty(mutualSecret, "Mutual secret should not be provided.");
    VerifyChapUser(user);
    VerifyChapSecret(secret);
  } else if (type == "CHAP-Mutual") {
    RequireGiven(user, "User id should not be empty.");
    RequireGiven(secret, "Secret should not be empty.");
    RequireGiven(mutualUser, "Mutual user id should not be empty.");
    RequireGiven(mutualSecret, "Mutual secret should not be empty.");
    if (secret == mutualSecret) {
      throw OrvaCtlException("Outgoing and incoming CHAP secret could not be the same.");
    }
    VerifyChapUser(user);
    VerifyChapUser(mutualUser);
    VerifyChapSecret(secret);
    VerifyChapSecret(mutualSecret);
  } else {
    throw OrvaCtlException("Found invalid auth type " + type);
  }
}

// The file holds the alias between double quotes on one line, so a line
// break or a NUL byte would end it early and corrupt everything after it.
void VerifyAliasText(const std::string& alias) {
  if (boost::regex_match(alias, GetNamePatterns().whitespaceOnly)) {
    throw OrvaCtlException("Invalid alias '" + alias +
                           "'. The alias should not contain only whitespaces.");
  }
  if (alias.find_first_of(std::string("\n\0", 2)) != std::string::npos) {
    throw OrvaCtlException("Invalid alias '" + alias +
                           "'. The alias should not contain line breaks or NUL bytes.");
  }
}

}  // namespace

void VerifyLength(const std::string& value, size_t minimum, size_t maximum,
                  const std::string& fieldName) {
  std::string reason;
  if (value.size() >= maximum) {
    reason = "Permitted length should be less than " + std::to_string(maximum);
  } else if (value.size() < minimum) {
    reason = "Permitted length should be larger than " + std::to_string(minimum);
  } else {
    return;
  }
  throw OrvaCtlException("Invalid " + fieldName + " '" + value + "'. " + reason + " bytes.");
}

void VerifyNoQuote(const std::string& value, const std::string& fieldName) {
  if (value.find('"') != std::string::npos) {
    throw OrvaCtlException("'\"' not permitted in " + fieldName);
  }
}

void VerifyTargetParams(const TargetCreateParam& param) {
  if (!boost::regex_match(param.iqn, GetNamePatterns().targetIqn)) {
    throw OrvaCtlException("Invalid IQN '" + param.iqn +
                           "'. Permitted characters A-Z, a-z, 0-9, '.', ':', '-'" +
                           " Expected format : iqn.YYYY-MM.domain:TargetName.");
  }
  VerifyLength(param.iqn, 0, kTargetIqnLengthBound, "IQN");
  VerifyLength(param.alias, 1, kAliasLengthBound, "alias");
  VerifyNoQuote(param.alias, "alias");
  VerifyNoQuote(param.userid, "userid");
  VerifyNoQuote(param.secret, "secret");
  VerifyNoQuote(param.mutualUserid, "mutual userid");
  VerifyNoQuote(param.mutualSecret, "mutual secret");
  VerifyAliasText(param.alias);
}

void VerifyAlias(const std::string& alias) {
  VerifyLength(alias, 1, kAliasLengthBound, "alias");
  VerifyNoQuote(alias, "alias");
  VerifyAliasText(alias);
}

void VerifyDefaultAuthParams(const DefaultInfo& info) {
  try {
    VerifyAuthParams(info.authType, info.userid, info.secret, info.mutualUserid, info.mutualSecret);
  } catch (const OrvaCtlException& e) {
    throw OrvaCtlException("Failed to verify default authentication type " + info.authType +
                           " with error: " + e.GetMessage());
  }
}

void VerifyTargetAuthParams(const TargetCreateParam& param) {
  try {
    VerifyAuthParams(param.authType, param.userid, param.secret, param.mutualUserid,
                     param.mutualSecret);
  } catch (const OrvaCtlException& e) {
    throw OrvaCtlException("Failed to verify authentication type " + param.authType +
                           " for target " + param.alias + " with error: " + e.GetMessage());
  }
}

void ValidateInitiatorIQN(const std::string& name) {
  if (name.size() > kMaxInitiatorNameLength) {
    throw OrvaCtlException("Invalid initiator IQN '" + name + "'. Maximum permitted length is " +
                           std::to_string(kMaxInitiatorNameLength) + " bytes.");
  }
  if (!IsValidInitiatorIQN(name)) {
    throw OrvaCtlException("Invalid initiator IQN: '" + name +
                           "'. Expected format for initiator IQN is "
                           "'iqn.YYYY-MM.domain:initiatorName' or "
                           "'eui.YYYY-MM.domain:initiatorName'");
  }
}

void ValidateInitiatorGroupName(const std::string& name) {
  const NamePatterns& patterns = GetNamePatterns();
  if (!boost::regex_match(name, patterns.groupCharacters) ||
      boost::regex_match(name, patterns.allDigits)) {
    throw OrvaCtlException("Invalid initiator group name '" + name +
                           "'. Allowed characters are A-Z, a-z, 0-9, '.', ':', '-', '_', and "
                           "cannot be all digits");
  }
  if (name.size() > kMaxInitiatorNameLength) {
    throw OrvaCtlException("Invalid initiator group name '" + name +
                           "'. Maximum permitted length is " +
                           std::to_string(kMaxInitiatorNameLength) + " bytes.");
  }
  if (StartsWithInitiatorIQN(name)) {
    throw OrvaCtlException("Invalid initiator group name '" + name +
                           "'. Initiator group name cannot start with 'iqn.' or 'eui.'");
  }
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
