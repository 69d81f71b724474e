// The descriptor of a local virtual disk, "<name>.qdsk": a small text file
//
//   zel-virtual-disk 00000000000000000001      format version
//   capacity 00000000000000002048              512-byte sectors
//   object 3fb2b402-cfcb-4738-9622-3a566bb58dbf the disk's identity
//   extent 00000000000000002048 <uuid> <file>  per extent, in order: size in
//                                              sectors, identity, file name
//
// with every number in exactly 20 digits. The fixed width is what lets Grow
// rewrite a descriptor in place with one write of the same length: the
// descriptor's inode must never change while the disk exists, because every
// holder's flock is on that inode.
//
// Extent files are named relative to the descriptor's directory and never
// leave it (no '/', no ".."). Every complaint names the descriptor or the
// extent file it is about.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/DiskLibrary.h"

namespace zel {
namespace platform {

constexpr size_t kDiskDescriptorMaxBytes = 64 * 1024;
constexpr uint64_t kDiskFormatLayout = 1;  // the descriptor layout above
constexpr uint64_t kDiskSectorBytes = 512;
// The largest capacity whose byte size is still a file offset.
constexpr uint64_t kDiskMaxSectors = INT64_MAX / kDiskSectorBytes;

// The descriptor's text for `info`.
std::string FormatDiskDescriptor(const DiskInfo& info);

// Reads and parses the descriptor `path`, open as `fd`, into `*info` and its
// length in bytes into `*bytes`. BadDescriptor (or IoError) naming `path`.
DiskError ReadDiskDescriptor(const std::string& path, int fd, DiskInfo* info, size_t* bytes);

// Each extent of `info` is a file at least as long as its size: NotFound or
// BadDescriptor naming the extent file otherwise.
DiskError CheckDiskExtents(const std::string& path, const DiskInfo& info);

// The directory holding `path` ("." for a bare name) and the path of the
// file `name` beside `path`.
std::string DiskDirectoryOf(const std::string& path);
std::string DiskSibling(const std::string& path, const std::string& name);
// The name of the `index`th extent of the disk `path`: "<stem>.extent" for
// the first, "<stem>.extent<index+1>" for the others, where "<stem>.qdsk"
// (or "<stem>") is the descriptor's file name.
std::string DiskExtentName(const std::string& path, size_t index);

}  // namespace platform
}  // namespace zel
