#include "storage/NamespaceDirs.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <boost/filesystem/operations.hpp>

#include "platform/Log.h"
#include "storage/DatastoreLayout.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {
namespace {

using HostCtl::Lib::Orva::OrvaCtlException;

const char kTag[] = "Util";

[[noreturn]] void LogAndThrow(const std::string& message) {
  ZEL_LOG_ERROR("%s: %s\n", kTag, message.c_str());
  throw OrvaCtlException(message);
}

void CreateConfigDir(const std::string& path) {
  if (::mkdir(path.c_str(), 0700) == 0) return;
  const int error = errno;
  if (error == EEXIST) {
    ZEL_LOG_INFO("%s: Config dir %s already exists.\n", kTag, path.c_str());
    return;
  }
  LogAndThrow("Failed to create dir " + path + " with errno (" + std::to_string(error) + ").");
}

void RemoveConfigDir(const std::string& path) {
  ZEL_LOG_INFO("%s: Removing dir %s\n", kTag, path.c_str());
  if (::rmdir(path.c_str()) == 0) return;
  const int error = errno;
  if (error == ENOENT) {
    ZEL_LOG_INFO("%s: Dir %s does not exist.\n", kTag, path.c_str());
    return;
  }
  LogAndThrow("Failed to remove dir " + path + " with (errno " + std::to_string(error) + ").");
}

}  // namespace

bool PathExists(const std::string& path) {
  boost::system::error_code error;
  const boost::filesystem::file_status status = boost::filesystem::status(path, error);
  if (status.type() != boost::filesystem::status_error &&
      status.type() != boost::filesystem::file_not_found) {
    return true;
  }
  if (error.value() == ENOENT) return false;
  throw OrvaCtlException("Failed to find path '" + path + "' with error: " + error.message() +
                         ". Please check its availability on this host manually and try again.");
}

void CreateConfigDirs() {
  CreateConfigDir(GetConfDirPath());
  CreateConfigDir(GetTargetsDirPath());
}

void DeleteConfigDirs() {
  try {
    const std::string file = GetConfFilePath();
    if (std::remove(file.c_str()) != 0) {
      const int error = errno;
      if (error != ENOENT) {
        LogAndThrow("Failed to remove config file " + file + " (" + std::strerror(error) + ")");
      }
      ZEL_LOG_INFO("%s: Config file %s does not exist.\n", kTag, file.c_str());
    }
    RemoveConfigDir(GetConfDirPath());
    RemoveConfigDir(GetTargetsDirPath());
  } catch (const OrvaCtlException& e) {
    throw OrvaCtlException("Failed to delete config directory: " + e.GetMessage());
  }
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
