// The name rules of the service, as regular expressions compiled once when
// the library is loaded and kept for its life (perl syntax, case-sensitive
// unless the pattern says otherwise).
#pragma once

#include <boost/regex.hpp>
#include <string>

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

struct NamePatterns {
  boost::regex targetIqn;
  boost::regex euiName;
  boost::regex namePrefix;       // searched, not matched
  boost::regex groupCharacters;
  boost::regex chapUser;
  boost::regex chapSecret;
  boost::regex allDigits;
  boost::regex whitespaceOnly;
};

const NamePatterns& GetNamePatterns();

// True when the name starts with "iqn." or "eui." in any letter case.
bool StartsWithInitiatorIQN(const std::string& name);
// True when the whole name is an IQN or, failing that, an EUI name.
bool IsValidInitiatorIQN(const std::string& name);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
