// Where a LUN's backing disk lives. The configuration names each disk by a
// path relative to the datastore root, "<target-uuid>/<lun-uuid>.qdsk": the
// target's namespace directory, then the disk named by its own object
// identity. Relative paths keep the file valid on every host, whatever the
// datastore's mount point there.
#pragma once

#include <cstddef>
#include <string>

// Writes the datastore root of this host, "/", and `relPath` into `buf`.
// Returns 0, or -1 when the result (with its terminator) does not fit in
// `size` bytes; `buf` then holds the empty string, never a cut path.
int GetLunAbsPath(const char* relPath, char* buf, size_t size);

struct lun;
// The absolute path of `lun`'s disk; "" when it names none or the path is
// too long for the service.
std::string GetLunAbsPath(const struct lun* lun);

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

// The LUN's identity as its disk path carries it: the file name without its
// extension ("<dir>/<lun-uuid>.qdsk" gives "<lun-uuid>"). Works on relative
// and absolute paths alike; a name without extension is returned whole.
std::string GetLunUuid(const std::string& path);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
