// The virtual-disk library of a local host, where the datastore is a
// directory tree (a shared file system mount when several hosts share it).
#pragma once

#include <string>

#include "platform/DiskLibrary.h"

namespace zel {
namespace platform {

class LocalDiskLibrary final : public DiskLibrary {
 public:
  explicit LocalDiskLibrary(std::string datastoreRoot);

  // NOK_OK when the datastore root is an existing directory that this
  // process may write into; NOK_NOT_FOUND when it is missing or not a
  // directory; NOK_IO_ERROR when it cannot be written (permissions, a
  // read-only mount). A failure is logged with the path and the reason.
  NOK_ReturnStatus Init() override;
  void Exit() override;

 private:
  const std::string datastoreRoot_;
};

}  // namespace platform
}  // namespace zel
