#include "platform/local/DiskDescriptor.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <vector>

#include "platform/EntryMarshal.h"

namespace zel {
namespace platform {
namespace {

const char kMagic[] = "zel-virtual-disk";
constexpr size_t kNumberDigits = 20;

DiskError Bad(const std::string& path, const std::string& problem) {
  return {DiskErrorCode::BadDescriptor, "Virtual disk descriptor " + path + ": " + problem};
}

std::string Number(uint64_t value) {
  char text[kNumberDigits + 1];
  std::snprintf(text, sizeof text, "%020" PRIu64, value);
  return text;
}

// Exactly kNumberDigits decimal digits that fit in 64 bits.
bool ParseNumber(const std::string& text, uint64_t* value) {
  if (text.size() != kNumberDigits) return false;
  uint64_t result = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return false;
    const uint64_t digit = static_cast<uint64_t>(c - '0');
    if (result > (UINT64_MAX - digit) / 10) return false;
    result = result * 10 + digit;
  }
  *value = result;
  return true;
}

// An extent stays beside its descriptor: a name that climbs out of the
// directory would let a descriptor reach any file of the host.
bool ValidExtentName(const std::string& name) {
  return !name.empty() && name != "." && name.find('/') == std::string::npos &&
         name.find("..") == std::string::npos && name.find('\0') == std::string::npos;
}

// Splits `line` at its first `count - 1` blanks into `count` fields; the
// last field keeps any further blanks (an extent file name may hold some).
bool Fields(const std::string& line, size_t count, std::vector<std::string>* fields) {
  fields->clear();
  std::string::size_type start = 0;
  for (size_t i = 0; i + 1 < count; ++i) {
    const std::string::size_type blank = line.find(' ', start);
    if (blank == std::string::npos) return false;
    fields->push_back(line.substr(start, blank - start));
    start = blank + 1;
  }
  fields->push_back(line.substr(start));
  return true;
}

DiskError Parse(const std::string& path, const std::string& text, DiskInfo* info) {
  if (text.empty() || text.back() != '\n') return Bad(path, "does not end with a complete line");
  DiskInfo parsed;
  bool haveCapacity = false, haveObject = false;
  std::vector<std::string> f;
  size_t number = 0;
  for (std::string::size_type start = 0; start < text.size();) {
    const std::string::size_type end = text.find('\n', start);
    const std::string line = text.substr(start, end - start);
    start = end + 1;
    const std::string at = "line " + std::to_string(++number) + ": ";
    const std::string key = line.substr(0, line.find(' '));
    if (number == 1) {
      uint64_t layout = 0;
      if (key != kMagic || !Fields(line, 2, &f) || !ParseNumber(f[1], &layout)) {
        return Bad(path, "not a virtual disk descriptor (bad header)");
      }
      if (layout != kDiskFormatLayout) {
        return Bad(path, "unsupported descriptor version " + std::to_string(layout));
      }
    } else if (key == "capacity" && !haveCapacity) {
      if (!Fields(line, 2, &f) || !ParseNumber(f[1], &parsed.capacitySectors)) {
        return Bad(path, at + "capacity is not a number of 20 digits");
      }
      haveCapacity = true;
    } else if (key == "object" && !haveObject) {
      if (!Fields(line, 2, &f) || !ParseUuidText(f[1], &parsed.objectUuid)) {
        return Bad(path, at + "object is not a UUID");
      }
      haveObject = true;
    } else if (key == "extent") {
      DiskExtent extent;
      if (!Fields(line, 4, &f) || !ParseNumber(f[1], &extent.sizeSectors)) {
        return Bad(path, at + "extent size is not a number of 20 digits");
      }
      if (extent.sizeSectors == 0) return Bad(path, at + "extent of 0 sectors");
      if (!ParseUuidText(f[2], &extent.objectUuid))
        return Bad(path, at + "extent object is not a UUID");
      if (!ValidExtentName(f[3])) {
        return Bad(path, at + "extent file name '" + f[3] + "' leaves the descriptor's directory");
      }
      extent.fileName = f[3];
      parsed.extents.push_back(std::move(extent));
    } else {
      return Bad(path, at + "unexpected line '" + line.substr(0, 40) + "'");
    }
  }
  if (!haveCapacity || !haveObject) return Bad(path, "capacity or object missing");
  if (parsed.extents.empty()) return Bad(path, "names no extent");
  if (parsed.capacitySectors > kDiskMaxSectors) return Bad(path, "capacity is too large");
  uint64_t total = 0;
  for (const DiskExtent& extent : parsed.extents) {
    // Each size is at most the capacity once the sum is, so this cannot wrap.
    total += extent.sizeSectors;
    if (total > parsed.capacitySectors) break;
  }
  if (total != parsed.capacitySectors) {
    return Bad(path, "extent sizes do not add up to the capacity of " +
                         std::to_string(parsed.capacitySectors) + " sectors");
  }
  *info = std::move(parsed);
  return {};
}

}  // namespace

std::string FormatDiskDescriptor(const DiskInfo& info) {
  std::string text = std::string(kMagic) + " " + Number(kDiskFormatLayout) + "\n";
  text += "capacity " + Number(info.capacitySectors) + "\n";
  text += "object " + info.objectUuid + "\n";
  for (const DiskExtent& extent : info.extents) {
    text += "extent " + Number(extent.sizeSectors) + " " + extent.objectUuid + " " +
            extent.fileName + "\n";
  }
  return text;
}

DiskError ReadDiskDescriptor(const std::string& path, int fd, DiskInfo* info, size_t* bytes) {
  // One byte more than the limit tells a descriptor at the limit from a
  // larger one, whatever its size said a moment before.
  std::string text(kDiskDescriptorMaxBytes + 1, '\0');
  size_t length = 0;
  while (length < text.size()) {
    const ssize_t n = ::pread(fd, &text[length], text.size() - length, static_cast<off_t>(length));
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      return {DiskErrorCode::IoError,
              "Failed to read virtual disk descriptor " + path + ": " + std::strerror(errno)};
    }
    length += static_cast<size_t>(n);
  }
  if (length > kDiskDescriptorMaxBytes) {
    return Bad(path, "larger than " + std::to_string(kDiskDescriptorMaxBytes) + " bytes");
  }
  text.resize(length);
  DiskError error = Parse(path, text, info);
  if (error.Ok()) *bytes = length;
  return error;
}

DiskError CheckDiskExtents(const std::string& path, const DiskInfo& info) {
  for (const DiskExtent& extent : info.extents) {
    const std::string file = DiskSibling(path, extent.fileName);
    struct stat status;
    if (::stat(file.c_str(), &status) != 0) {
      const int error = errno;
      if (error == ENOENT) {
        return {DiskErrorCode::NotFound,
                "Extent file " + file + " of virtual disk " + path + " not found"};
      }
      return {DiskErrorCode::IoError,
              "Failed to read extent file " + file + ": " + std::strerror(error)};
    }
    const uint64_t want = extent.sizeSectors * kDiskSectorBytes;
    if (!S_ISREG(status.st_mode) || static_cast<uint64_t>(status.st_size) < want) {
      return {DiskErrorCode::BadDescriptor, "Extent file " + file + " of virtual disk " + path +
                                                " holds " + std::to_string(status.st_size) +
                                                " bytes, less than its " +
                                                std::to_string(extent.sizeSectors) + " sectors"};
    }
  }
  return {};
}

std::string DiskDirectoryOf(const std::string& path) {
  const std::string::size_type slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string DiskSibling(const std::string& path, const std::string& name) {
  return DiskDirectoryOf(path) + "/" + name;
}

std::string DiskExtentName(const std::string& path, size_t index) {
  const std::string::size_type slash = path.rfind('/');
  std::string stem = slash == std::string::npos ? path : path.substr(slash + 1);
  const std::string extension = ".qdsk";
  if (stem.size() > extension.size() &&
      stem.compare(stem.size() - extension.size(), extension.size(), extension) == 0) {
    stem.resize(stem.size() - extension.size());
  }
  return stem + ".extent" + (index == 0 ? "" : std::to_string(index + 1));
}

}  // namespace platform
}  // namespace zel
