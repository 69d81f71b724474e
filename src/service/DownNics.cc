#include "service/DownNics.h"

#include <atomic>
#include <cstdint>

#include "cache/ConfigCache.h"
#include "platform/Log.h"
#include "platform/NicApi.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {
namespace {

const char kTag[] = "Util";

// Observations of an interface without uplinks, across the process. The
// control thread looks every 15 seconds; only every 50th is logged. A lost
// increment under a race costs at most one line more or less.
std::atomic<uint32_t> gNoUplinksObservations{0};
constexpr uint32_t kNoUplinksLogEvery = 50;

}  // namespace

std::vector<std::string> GetZelDownNokNics() {
  std::vector<std::string> down;
  for (const std::string& name : ConfigCache::GetAllIscsiNoknics()) {
    switch (NokCtl::Network::NokKernelNicApi::GetNokKernelNicState(name)) {
      case zel::platform::NOKNIC_DOWN:
      case zel::platform::NOKNIC_NO_CARRIER:
        down.push_back(name);
        break;
      case zel::platform::NOKNIC_NO_UPLINKS:
        if (++gNoUplinksObservations % kNoUplinksLogEvery == 0) {
          ZEL_LOG_INFO("%s: Retrieve physical Nic uplinks Empty for iSCSI NokNic(%s)\n", kTag,
                       name.c_str());
        }
        break;
      case zel::platform::NOKNIC_NONE:
        ZEL_LOG_WARNING("%s: Receive NOKNIC_NONE for iSCSI NokNic(%s)\n", kTag, name.c_str());
        break;
      default:
        break;
    }
  }
  return down;
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
