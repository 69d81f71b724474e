// The virtual-disk library of the datastore (VolLib_Init / VolLib_Exit at
// the call sites). Disk operations join it as the storage layer grows.
#pragma once

#include "platform/NokStatus.h"

namespace zel {
namespace platform {

class DiskLibrary {
 public:
  virtual ~DiskLibrary() = default;
  // NOK_OK when the datastore can be used from this host.
  virtual NOK_ReturnStatus Init() = 0;
  virtual void Exit() = 0;
};

}  // namespace platform
}  // namespace zel
