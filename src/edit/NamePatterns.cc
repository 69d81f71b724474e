#include "edit/NamePatterns.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {
namespace {

// Built during library load so that no caller ever pays for (or races on)
// the compilation.
const NamePatterns kNamePatterns{
    boost::regex(R"(^iqn\.[0-9]{4}\-(0[1-9]|1[0-2])\.[A-Za-z0-9\-\.]+(\:[A-Za-z0-9\-\.\:]*)?)"),
    boost::regex(R"(^eui\.[0-9]{4}\-(0[1-9]|1[0-2])\.[A-Za-z0-9\-\.]+(\:[A-Za-z0-9\-\.\:]*)?)"),
    boost::regex(R"(^([iI][qQ][nN]|[eE][uU][iI])\.)"),
    boost::regex(R"([a-zA-Z0-9:._-]*)"),
    boost::regex(R"(^([a-zA-Z0-9][a-zA-Z0-9_\-.@\:]*)$)"),
    boost::regex(R"(^(?=.*[A-Z])(?=.*[a-z])(?=.*[0-9])(?=.*[!@#\$%\^&\*]).{12,16}$)"),
    boost::regex(R"(^[0-9]*$)"),
    boost::regex(R"(^\s+$)"),
};

}  // namespace

const NamePatterns& GetNamePatterns() { return kNamePatterns; }

bool StartsWithInitiatorIQN(const std::string& name) {
  return boost::regex_search(name, kNamePatterns.namePrefix);
}

bool IsValidInitiatorIQN(const std::string& name) {
  return boost::regex_match(name, kNamePatterns.targetIqn) ||
         boost::regex_match(name, kNamePatterns.euiName);
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
