#include "platform/local/AtomicFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/FileIO.h"
#include "platform/Log.h"
#include "zel/OrvaCtlException.h"

namespace zel {
namespace platform {
namespace {

using HostCtl::Lib::Orva::OrvaCtlException;

[[noreturn]] void ThrowFileError(const std::string& action, const std::string& path, int error) {
  throw OrvaCtlException(action + " " + path + ": " + std::strerror(error));
}

[[noreturn]] void ThrowUnreadable(const std::string& what, const std::string& path, int error) {
  throw OrvaCtlException(what + " " + path + " cannot be read: " + std::strerror(error));
}

std::string DirectoryOf(const std::string& path) {
  const std::string::size_type slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

bool WriteAll(int fd, const std::string& contents) {
  size_t written = 0;
  while (written < contents.size()) {
    const ssize_t n = ::write(fd, contents.data() + written, contents.size() - written);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    written += static_cast<size_t>(n);
  }
  return true;
}

// The parser's message without its "[json.exception...]" prefix and without
// the "; last read: '...'" excerpt, which quotes the file's own text; the
// "; expected ..." that may follow the excerpt names a token and is kept.
std::string SyntaxErrorDetail(const nlohmann::json::parse_error& error) {
  std::string detail = error.what();
  const std::string::size_type prefixEnd = detail.find("] ");
  if (detail.compare(0, 1, "[") == 0 && prefixEnd != std::string::npos) {
    detail.erase(0, prefixEnd + 2);
  }
  const std::string::size_type excerpt = detail.find("; last read: '");
  if (excerpt == std::string::npos) return detail;
  const std::string::size_type expected = detail.rfind("'; expected ");
  if (expected != std::string::npos && expected > excerpt) {
    detail.erase(excerpt, expected + 1 - excerpt);
  } else {
    detail.erase(excerpt);
  }
  return detail;
}

}  // namespace

int CreateTempFileBeside(const std::string& path, int* fd, std::string* tempPath) {
  std::string pattern = path + ".tmpXXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  *fd = ::mkostemp(name.data(), O_CLOEXEC);
  if (*fd < 0) return errno;
  *tempPath = name.data();
  return 0;
}

void RemoveStaleTempFiles(const std::string& path) {
  for (const std::string& stale : FileIO_TempFilesOf(path)) {
    if (::unlink(stale.c_str()) == 0) {
      ZEL_LOG_WARNING("%s: Removed %s, left by a save that did not finish\n", "FileIO",
                      stale.c_str());
    }
  }
}

int RenameDurably(const std::string& tempPath, const std::string& path) {
  if (::rename(tempPath.c_str(), path.c_str()) != 0) return errno;
  // The rename is durable only once the directory is.
  const int dirFd = ::open(DirectoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dirFd < 0) return errno;
  const int rc = ::fsync(dirFd);
  const int error = errno;
  ::close(dirFd);
  return rc == 0 ? 0 : error;
}

void WriteFileAtomically(const std::string& path, const std::string& contents, mode_t mode) {
  int fd = -1;
  std::string tempPath;
  if (const int error = CreateTempFileBeside(path, &fd, &tempPath)) {
    ThrowFileError("Failed to create a temporary file for", path, error);
  }

  // Until the rename the previous file is untouched; a failure only has to
  // remove the temporary file.
  auto discard = [&](int error) {
    ::close(fd);
    ::unlink(tempPath.c_str());
    ThrowFileError("Failed to write", path, error);
  };
  if (::fchmod(fd, mode) != 0) discard(errno);
  if (!WriteAll(fd, contents)) discard(errno);
  if (::fsync(fd) != 0) discard(errno);
  if (::close(fd) != 0) {
    const int error = errno;
    ::unlink(tempPath.c_str());
    ThrowFileError("Failed to write", path, error);
  }
  if (const int error = RenameDurably(tempPath, path)) {
    // A failed rename leaves the temporary file; a failed directory sync
    // leaves nothing to remove.
    ::unlink(tempPath.c_str());
    ThrowFileError("Failed to write", path, error);
  }
}

bool ReadJsonFile(const std::string& path, const std::string& what, nlohmann::json* document) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT) return false;
    ThrowUnreadable(what, path, errno);
  }
  std::string text;
  char buffer[8192];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      const int error = errno;
      ::close(fd);
      ThrowUnreadable(what, path, error);
    }
    text.append(buffer, static_cast<size_t>(n));
  }
  ::close(fd);

  nlohmann::json parsed;
  try {
    parsed = nlohmann::json::parse(text);
  } catch (const nlohmann::json::parse_error& error) {
    throw OrvaCtlException(what + " " + path + " is not valid JSON: " + SyntaxErrorDetail(error));
  }
  if (!parsed.is_object()) {
    throw OrvaCtlException(what + " " + path + " does not hold a JSON object");
  }
  *document = std::move(parsed);
  return true;
}

void WriteJsonFileAtomically(const std::string& path, const nlohmann::json& document, mode_t mode) {
  std::string text;
  try {
    text = document.dump(2) + "\n";
  } catch (const nlohmann::json::type_error&) {
    // Only text that is not UTF-8 fails to serialise; never quote it.
    throw OrvaCtlException("Failed to write " + path + ": a text value is not valid UTF-8");
  }
  WriteFileAtomically(path, text, mode);
}

FileLock::FileLock(const std::string& lockPath) {
  fd_ = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd_ < 0) ThrowFileError("Failed to open the lock file", lockPath, errno);
  while (::flock(fd_, LOCK_EX) != 0) {
    if (errno == EINTR) continue;
    const int error = errno;
    ::close(fd_);
    ThrowFileError("Failed to lock", lockPath, error);
  }
}

FileLock::~FileLock() { ::close(fd_); }

}  // namespace platform
}  // namespace zel
