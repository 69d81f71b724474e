// The virtual-disk library under the names the service's call sites use:
// thin dispatch to the selected host's DiskLibrary (platform/DiskLibrary.h),
// in the library's C style: an open hands out a handle and an info record
// that the caller gives back with VolLib_Close and VolLib_FreeInfo.
#pragma once

#include <cstdint>
#include <string>

#include "platform/DiskLibrary.h"

using VolLibError = zel::platform::DiskError;
using VolLibInfo = zel::platform::DiskInfo;
using VolLibHandle = zel::platform::DiskHandle;

bool VolLib_Init();
void VolLib_Exit();

// `reserved` must be 0. On success `*handle` and `*info` are set; on failure
// both are left null.
VolLibError VolLib_OpenWithInfo(const std::string& path, uint32_t flags, int reserved,
                                VolLibHandle** handle, VolLibInfo** info);
// Releases the handle and its locks. Always frees the handle.
VolLibError VolLib_Close(VolLibHandle* handle);
void VolLib_FreeInfo(VolLibInfo* info);
// `flags` must be 0.
VolLibError VolLib_Rename(const std::string& from, const std::string& to, int flags);
VolLibError VolLib_Grow(const std::string& path, uint64_t sectors);
// The failure's text; "Success" for a success.
std::string VolLib_Err2String(const VolLibError& error);
