#include "edit/NetworkValidation.h"

#include <algorithm>
#include <cctype>
#include <vector>

#include "platform/Log.h"
#include "platform/NicApi.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

using HostCtl::Lib::Orva::OrvaCtlException;

namespace {

// The name must stand in zel.conf as it is written: an unquoted word of
// letters, digits, '.', '_' and '-'. The kernel admits names (an address
// label with ':', a '#') that would end the word early.
void VerifyInterfaceNameStorable(const std::string& networkInterface) {
  const bool storable =
      std::all_of(networkInterface.begin(), networkInterface.end(), [](unsigned char c) {
        return std::isalnum(c) || c == '.' || c == '_' || c == '-';
      });
  if (!storable) {
    throw OrvaCtlException("Network interface " + networkInterface +
                           " cannot be used: only letters, digits, '.', '_' and '-' can be "
                           "stored in its name");
  }
}

}  // namespace

void VerifyNetworkConfig(const std::string& networkInterface, int32_t port) {
  if (!networkInterface.empty()) {
    const std::vector<std::string> names = NokCtl::Network::NokKernelNicApi::GetNokKernelNicNames();
    if (std::find(names.begin(), names.end(), networkInterface) == names.end()) {
      throw OrvaCtlException("Network interface " + networkInterface +
                             " is not available on this host");
    }
    VerifyInterfaceNameStorable(networkInterface);
  }
  if (port == kZelDefaultPort) return;
  if (networkInterface.empty()) {
    const std::string message =
        "Network interface is not provided for port " + std::to_string(port);
    ZEL_LOG_ERROR("%s: %s\n", "Util", message.c_str());
    throw OrvaCtlException(message);
  }
  if (port <= kZelMinPortExclusive || port > kZelMaxPort) {
    throw OrvaCtlException("Invalid port " + std::to_string(port) + " provided for interface " +
                           networkInterface + ", valid port range is " +
                           std::to_string(kZelMinPortExclusive) +
                           " < port <= " + std::to_string(kZelMaxPort));
  }
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
