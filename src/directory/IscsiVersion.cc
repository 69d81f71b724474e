#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "directory/DirectoryEntries.h"
#include "platform/Host.h"
#include "platform/Log.h"

namespace {

using zel::platform::DiskError;
using zel::platform::DiskErrorCode;

// The disk's path on this host, or false when `lunPath` names no disk of
// the datastore: its object could not be found from it.
bool DiskPath(const std::string& lunPath, std::string* path) {
  const std::string& root = zel::platform::CurrentHost().Config().datastoreRoot;
  const std::string extension = ".qdsk";
  std::string whole = lunPath;
  if (whole.empty() || whole.find("..") != std::string::npos) return false;
  if (whole.front() != '/') {
    whole = root + "/" + whole;
  } else if (whole.compare(0, root.size() + 1, root + "/") != 0) {
    return false;
  }
  if (whole.size() <= root.size() + 1 + extension.size() ||
      whole.compare(whole.size() - extension.size(), extension.size(), extension) != 0) {
    return false;
  }
  *path = whole;
  return true;
}

NOK_ReturnStatus StatusOf(const DiskError& error) {
  switch (error.code) {
    case DiskErrorCode::Ok:
      return NOK_OK;
    case DiskErrorCode::NotFound:
      return NOK_NOT_FOUND;
    case DiskErrorCode::Exists:
      return NOK_EXISTS;
    case DiskErrorCode::Locked:
      return NOK_BUSY;
    case DiskErrorCode::BadDescriptor:
    case DiskErrorCode::BadParam:
      return NOK_BAD_PARAM;
    case DiskErrorCode::NoSpace:
    case DiskErrorCode::IoError:
      break;
  }
  return NOK_IO_ERROR;
}

bool Present(const std::string& path) {
  struct stat status;
  return ::stat(path.c_str(), &status) == 0;
}

}  // namespace

NOK_ReturnStatus ZeldGetIscsiVersion(const std::string& lunPath, uint32_t* version) {
  std::string path;
  if (!DiskPath(lunPath, &path)) {
    ZEL_LOG_WARNING("Failed to convert LUN '%s' to object URI", lunPath.c_str());
    return NOK_BAD_PARAM;
  }
  std::string text;
  const DiskError error =
      zel::platform::CurrentHost().Disks().GetExtParam(path, kIscsiVersionParam, &text);
  // A disk that is there but has no version yet is not a failure.
  if (error.code == DiskErrorCode::NotFound && Present(path)) return NOK_NOT_FOUND;
  if (!error.Ok()) {
    ZEL_LOG_WARNING("Failed to get extParams for '%s': %s", lunPath.c_str(), error.text.c_str());
    return StatusOf(error);
  }
  char* end = nullptr;
  errno = 0;
  const unsigned long long parsed = std::strtoull(text.c_str(), &end, 10);
  if (text.empty() || text[0] < '0' || text[0] > '9' || *end != '\0' || errno == ERANGE ||
      parsed > UINT32_MAX) {
    ZEL_LOG_WARNING("Failed to get extParams for '%s': %s is not a version: '%s'", lunPath.c_str(),
                    kIscsiVersionParam, text.c_str());
    return NOK_BAD_PARAM;
  }
  *version = static_cast<uint32_t>(parsed);
  return NOK_OK;
}

NOK_ReturnStatus ZeldSetIscsiVersion(const std::string& lunPath, uint32_t version) {
  std::string path;
  if (!DiskPath(lunPath, &path)) {
    ZEL_LOG_WARNING("Failed to convert LUN '%s' to object URI", lunPath.c_str());
    return NOK_BAD_PARAM;
  }
  char text[16];
  std::snprintf(text, sizeof text, "%u", version);
  const DiskError error =
      zel::platform::CurrentHost().Disks().SetExtParam(path, kIscsiVersionParam, text);
  if (!error.Ok()) {
    ZEL_LOG_WARNING("Failed to set extParams for '%s': %s", lunPath.c_str(), error.text.c_str());
  }
  return StatusOf(error);
}
