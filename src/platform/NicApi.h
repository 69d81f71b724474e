// The host's network interfaces under the names the service's call sites
// use. Each is a thin dispatch to the selected host's backend
// (CurrentHost().Nics()); see NetworkInterfaces.h for their meaning.
#pragma once

#include <string>
#include <vector>

#include "platform/NetworkInterfaces.h"

namespace NokCtl {
namespace Network {
namespace NokKernelNicApi {

std::vector<std::string> GetNokKernelNicNames();
zel::platform::NokNicState GetNokKernelNicState(const std::string& name);

}  // namespace NokKernelNicApi
}  // namespace Network
}  // namespace NokCtl

// The addresses that initiators should use for interface `name`, as text;
// each is empty when the interface has none of that family.
void GetPreferredZelNetworkAddressForNokNic(const std::string& name, std::string* ipv4,
                                            std::string* ipv6);
