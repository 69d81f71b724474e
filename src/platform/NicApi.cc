#include "platform/NicApi.h"

#include "platform/Host.h"

using zel::platform::CurrentHost;

namespace NokCtl {
namespace Network {
namespace NokKernelNicApi {

std::vector<std::string> GetNokKernelNicNames() {
  return CurrentHost().Nics().GetNokKernelNicNames();
}

zel::platform::NokNicState GetNokKernelNicState(const std::string& name) {
  return CurrentHost().Nics().GetNokKernelNicState(name);
}

}  // namespace NokKernelNicApi
}  // namespace Network
}  // namespace NokCtl

void GetPreferredZelNetworkAddressForNokNic(const std::string& name, std::string* ipv4,
                                            std::string* ipv6) {
  CurrentHost().Nics().GetPreferredZelNetworkAddressForNokNic(name, ipv4, ipv6);
}
