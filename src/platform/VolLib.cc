#include "platform/VolLib.h"

#include <memory>

#include "platform/Host.h"

using zel::platform::CurrentHost;
using zel::platform::DiskErrorCode;

bool VolLib_Init() { return CurrentHost().Disks().Init() == NOK_OK; }

void VolLib_Exit() { CurrentHost().Disks().Exit(); }

VolLibError VolLib_OpenWithInfo(const std::string& path, uint32_t flags, int reserved,
                                VolLibHandle** handle, VolLibInfo** info) {
  *handle = nullptr;
  *info = nullptr;
  if (reserved != 0) {
    return {DiskErrorCode::BadParam, "Reserved argument of the open of " + path + " is not 0"};
  }
  std::unique_ptr<VolLibHandle> opened;
  auto read = std::make_unique<VolLibInfo>();
  VolLibError error = CurrentHost().Disks().Open(path, flags, &opened, read.get());
  if (error.Ok()) {
    *handle = opened.release();
    *info = read.release();
  }
  return error;
}

VolLibError VolLib_Close(VolLibHandle* handle) {
  // Closing the files releases the locks; nothing can fail that the caller
  // could act on.
  delete handle;
  return {};
}

void VolLib_FreeInfo(VolLibInfo* info) { delete info; }

VolLibError VolLib_Rename(const std::string& from, const std::string& to, int flags) {
  if (flags != 0) {
    return {DiskErrorCode::BadParam, "Flags of the rename of " + from + " are not 0"};
  }
  return CurrentHost().Disks().Rename(from, to);
}

VolLibError VolLib_Grow(const std::string& path, uint64_t sectors) {
  return CurrentHost().Disks().Grow(path, sectors);
}

std::string VolLib_Err2String(const VolLibError& error) {
  if (error.Ok()) return "Success";
  return error.text.empty() ? "Unknown virtual disk error" : error.text;
}
