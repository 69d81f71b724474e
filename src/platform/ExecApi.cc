#include "platform/ExecApi.h"

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>

#include "platform/Host.h"
#include "platform/Log.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Util {

int NokCtl_Exec(const std::vector<std::string>& argv) {
  return zel::platform::CurrentHost().Commands().Exec(argv);
}

}  // namespace Util

namespace System {
namespace ModuleApi {

bool ModuleIsLoaded(const std::string& name) {
  return zel::platform::CurrentHost().Modules().ModuleIsLoaded(name);
}

NOK_ReturnStatus ModuleLoad(const std::string& name) {
  return zel::platform::CurrentHost().Modules().ModuleLoad(name);
}

NOK_ReturnStatus ModuleUnload(const std::string& name) {
  return zel::platform::CurrentHost().Modules().ModuleUnload(name);
}

}  // namespace ModuleApi

namespace FirewallApi {

NOK_ReturnStatus FirewallRulesetSetStatus(const std::string& ruleset, bool enabled) {
  return zel::platform::CurrentHost().GetFirewall().FirewallRulesetSetStatus(ruleset, enabled);
}

}  // namespace FirewallApi
}  // namespace System
}  // namespace NokCtl

namespace OrvaUtil {

int OrvaExec(const std::string& program, const std::string& arguments) {
  std::vector<std::string> argv{program};
  std::vector<std::string> words;
  boost::split(words, arguments, boost::is_any_of(" "), boost::token_compress_on);
  for (const std::string& word : words) {
    if (!word.empty()) argv.push_back(word);
  }
  return NokCtl::Util::NokCtl_Exec(argv);
}

bool IsOrvaConfigStoreFeatureEnabled() {
  int value = 0;
  NOK_ReturnStatus status;
  try {
    status = zel::platform::CurrentHost().Options().GetIntOption("ORVA", "configStore", &value);
  } catch (const HostCtl::Lib::Orva::OrvaCtlException& e) {
    ZEL_LOG_WARNING("%s: Failed to get option ORVA.configStore, using the config store: %s\n",
                    "OrvaUtil", e.GetMessage().c_str());
    return true;
  }
  if (status == NOK_OK) return value != 0;
  if (status != NOK_NOT_FOUND) {
    ZEL_LOG_WARNING("%s: Failed to get option ORVA.configStore, using the config store: %s\n",
                    "OrvaUtil", NOK_ReturnStatusToString(status));
  }
  return true;
}

}  // namespace OrvaUtil
