#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "directory/DirectoryEntries.h"
#include "platform/EntryMarshal.h"
#include "platform/Host.h"
#include "platform/Log.h"

namespace {

// Formats into `path`, or leaves it empty when the result would be cut:
// a cut path names another file.
NOK_ReturnStatus FormatPath(char* path, size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

NOK_ReturnStatus FormatPath(char* path, size_t size, const char* format, ...) {
  if (size == 0) return NOK_BAD_PARAM;
  const size_t limit = size < ZEL_PATH_MAX ? size : ZEL_PATH_MAX;
  va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(path, limit, format, args);
  va_end(args);
  if (length < 0 || static_cast<size_t>(length) >= limit) {
    path[0] = '\0';
    return NOK_BAD_PARAM;
  }
  return NOK_OK;
}

// Splits a disk path at its last '/' into a non-empty directory and file name.
bool SplitDiskPath(const char* diskPath, std::string* dir, std::string* file) {
  const std::string whole(diskPath);
  const std::string::size_type slash = whole.rfind('/');
  if (slash == std::string::npos || slash + 1 == whole.size()) return false;
  // "/disk.qdsk" lives in the root directory.
  *dir = slash == 0 ? "" : whole.substr(0, slash);
  *file = whole.substr(slash + 1);
  return true;
}

NOK_ReturnStatus HiddenSibling(const char* diskPath, bool cutExtension, const char* suffix,
                               char* path, size_t size) {
  std::string dir, file;
  if (!SplitDiskPath(diskPath, &dir, &file)) {
    if (size > 0) path[0] = '\0';
    return NOK_BAD_PARAM;
  }
  if (cutExtension) {
    // A leading dot marks a hidden file, not an extension.
    const std::string::size_type dot = file.rfind('.');
    if (dot != std::string::npos && dot > 0) file.resize(dot);
  }
  return FormatPath(path, size, "%s/.%s%s", dir.c_str(), file.c_str(), suffix);
}

}  // namespace

NOK_ReturnStatus GetOrvaDatastoreUUIDPath(char* path, size_t size) {
  return FormatPath(path, size, "%s", zel::platform::CurrentHost().Config().datastoreRoot.c_str());
}

NOK_ReturnStatus GetLunPRFilePath(const char* diskPath, char* path, size_t size) {
  return HiddenSibling(diskPath, false, ".pr", path, size);
}

NOK_ReturnStatus GetQdskLockFilePath(const char* diskPath, char* path, size_t size) {
  return HiddenSibling(diskPath, true, ".lck", path, size);
}

NOK_ReturnStatus ZeldGetNamespaceUuid(std::string* uuid) {
  char datastore[ZEL_PATH_MAX];
  char link[ZEL_PATH_MAX];
  NOK_ReturnStatus status = GetOrvaDatastoreUUIDPath(datastore, sizeof datastore);
  if (status == NOK_OK) status = FormatPath(link, sizeof link, "%s/%s", datastore, ".iSCSI-CONFIG");
  if (status != NOK_OK) {
    ZEL_LOG_WARNING("Failed to read symlink for ZEL namespace path %s.",
                    zel::platform::CurrentHost().Config().datastoreRoot.c_str());
    return NOK_FAILURE;
  }

  // One byte more than any path we accept, to tell a target that filled
  // the buffer (and may be cut) from one that fits.
  char target[ZEL_PATH_MAX + 1];
  const ssize_t length = ::readlink(link, target, sizeof target);
  if (length < 0) {
    ZEL_LOG_WARNING("Failed to read symlink for ZEL namespace path %s.", link);
    return NOK_FAILURE;
  }
  const bool cut = static_cast<size_t>(length) == sizeof target;
  target[cut ? ZEL_PATH_MAX : length] = '\0';

  // The link points at the namespace's directory, named by its identity,
  // wherever the platform keeps it.
  const char* name = std::strrchr(target, '/');
  name = name == nullptr ? target : name + 1;
  if (cut || !zel::platform::ParseUuidText(name, uuid)) {
    ZEL_LOG_WARNING("%s: Failed to convert ZEL namespace UUID string %s to ORVA object type.",
                    __func__, target);
    return NOK_FAILURE;
  }
  return NOK_OK;
}
