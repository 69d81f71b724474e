// This host's small state files (host.json, the configuration store): whole
// JSON documents that are only ever replaced atomically, so a reader always
// sees one complete version without taking a lock, and a writer that must
// read, modify and write serialises with other processes through a sidecar
// lock file.
//
// These functions reach the real file system directly rather than through
// the host's FileSystem: host.json is read before any host exists.
#pragma once

#include <sys/types.h>

#include <string>

#include <nlohmann/json.hpp>

namespace zel {
namespace platform {

// The two halves of every atomic replacement on this host, zel.conf's
// included: a temporary file created beside `path` (same file system, so
// the rename cannot degrade into a copy), and a rename over `path` made
// durable by an fsync of the directory. Each returns 0 or the errno of the
// failed call; CreateTempFileBeside returns the open descriptor in `*fd`.
int CreateTempFileBeside(const std::string& path, int* fd, std::string* tempPath);

// Removes the temporary files of `path` that CreateTempFileBeside made and
// no rename consumed: only a save that died leaves one. REQUIRES: the
// caller holds the lock that serialises every replacement of `path`, or a
// live save's file could be taken. Each removal is logged as a warning.
void RemoveStaleTempFiles(const std::string& path);
int RenameDurably(const std::string& tempPath, const std::string& path);

// Replaces `path` with `contents`, permission bits `mode`: a temporary file
// beside it is written, fsynced, renamed over `path`, and the directory is
// fsynced. After a crash `path` holds the old or the new contents, never a
// mix. On failure the previous file is left as it was and the temporary file
// is removed. Throws OrvaCtlException naming the path and the error.
void WriteFileAtomically(const std::string& path, const std::string& contents, mode_t mode);

// Reads and parses the JSON document at `path`, which must be an object.
// False, leaving `*document` unchanged, when there is no file. Throws
// OrvaCtlException naming `what` ("Host configuration", ...) and the path
// when the file cannot be read or is not a JSON object; the message gives
// the position of a syntax error but never the text around it, which may be
// a secret.
bool ReadJsonFile(const std::string& path, const std::string& what, nlohmann::json* document);

// WriteFileAtomically of `document`, indented for people who read it.
void WriteJsonFileAtomically(const std::string& path, const nlohmann::json& document, mode_t mode);

// An exclusive flock(2) on `lockPath` (created when absent and never
// removed: removing it would let two writers lock different files), held for
// the object's life. Blocks until granted. flock locks belong to the open
// file, so two threads of one process exclude each other as two processes
// do. Throws OrvaCtlException when the lock file cannot be opened or locked.
class FileLock {
 public:
  explicit FileLock(const std::string& lockPath);
  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

 private:
  int fd_;
};

}  // namespace platform
}  // namespace zel
