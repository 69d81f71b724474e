#include "platform/local/LocalDiskLibrary.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/Log.h"

namespace zel {
namespace platform {
namespace {

const char kTag[] = "DiskLibrary";

NOK_ReturnStatus Unusable(const std::string& root, int error) {
  ZEL_LOG_WARNING("%s: Datastore root %s cannot be used: %s", kTag, root.c_str(),
                  std::strerror(error));
  return error == ENOENT || error == ENOTDIR ? NOK_NOT_FOUND : NOK_IO_ERROR;
}

}  // namespace

LocalDiskLibrary::LocalDiskLibrary(std::string datastoreRoot)
    : datastoreRoot_(std::move(datastoreRoot)) {}

NOK_ReturnStatus LocalDiskLibrary::Init() {
  struct stat root;
  if (::stat(datastoreRoot_.c_str(), &root) != 0) return Unusable(datastoreRoot_, errno);
  if (!S_ISDIR(root.st_mode)) return Unusable(datastoreRoot_, ENOTDIR);
  // Creating namespaces and disks needs to write entries into the tree.
  if (::access(datastoreRoot_.c_str(), W_OK | X_OK) != 0) return Unusable(datastoreRoot_, errno);
  ZEL_LOG_DEBUG("%s: Datastore root %s is usable", kTag, datastoreRoot_.c_str());
  return NOK_OK;
}

void LocalDiskLibrary::Exit() {
  // Init only checks the datastore and holds nothing; every disk is opened
  // and locked by the handle of the operation that uses it and released with
  // that handle, so there is nothing left to close here.
  ZEL_LOG_DEBUG("%s: Disk library exit, nothing held", kTag);
}

}  // namespace platform
}  // namespace zel
