#include "Daemon.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <stdexcept>

namespace zeltools {
namespace {

std::runtime_error SystemError(const std::string& what, int error) {
  return std::runtime_error(what + ": " + std::strerror(error));
}

std::string ReadAll(int fd) {
  std::string text;
  char buffer[64];
  ssize_t n;
  off_t offset = 0;
  while ((n = ::pread(fd, buffer, sizeof buffer, offset)) > 0) {
    text.append(buffer, static_cast<size_t>(n));
    offset += n;
  }
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return text;
}

bool SameFile(int fd, const std::string& path) {
  struct stat opened, named;
  return ::fstat(fd, &opened) == 0 && ::stat(path.c_str(), &named) == 0 &&
         opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

// The starter's side: the daemon's report, or end of file when it died.
[[noreturn]] void AwaitReport(int fd, pid_t session) {
  char verdict = 0;
  ssize_t n;
  while ((n = ::read(fd, &verdict, 1)) < 0 && errno == EINTR) {
  }
  // The session leader exits as soon as it has forked the daemon.
  while (::waitpid(session, nullptr, 0) < 0 && errno == EINTR) {
  }
  std::fflush(nullptr);
  ::_exit(n == 1 && verdict == '0' ? 0 : 1);
}

}  // namespace

void MakeDirectories(const std::string& path, mode_t mode) {
  for (std::string::size_type slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    const std::string prefix = path.substr(0, slash);
    if (::mkdir(prefix.c_str(), mode) == 0) {
      ::chmod(prefix.c_str(), mode);  // exactly `mode`, whatever the umask
    } else if (errno != EEXIST) {
      throw SystemError("Failed to create " + prefix, errno);
    }
    if (slash == std::string::npos) return;
  }
}

PidFile::PidFile(std::string path) : path_(std::move(path)) {
  for (;;) {
    fd_ = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd_ < 0) throw SystemError("Failed to open " + path_, errno);
    if (::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
      const int error = errno;
      const std::string holder = ReadAll(fd_);
      ::close(fd_);
      if (error != EWOULDBLOCK) throw SystemError("Failed to lock " + path_, error);
      throw std::runtime_error("already running" +
                               (holder.empty() ? std::string() : " (pid " + holder + ")"));
    }
    // A daemon that was stopping may have removed the file between our
    // open and our lock; a lock on the removed file would guard nothing.
    if (SameFile(fd_, path_)) return;
    ::close(fd_);
  }
}

PidFile::~PidFile() {
  ::unlink(path_.c_str());
  ::close(fd_);
}

void PidFile::Write() {
  const std::string text = std::to_string(::getpid()) + "\n";
  if (::ftruncate(fd_, 0) != 0 ||
      ::pwrite(fd_, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
    throw SystemError("Failed to write " + path_, errno);
  }
}

StartReport::~StartReport() {
  if (fd_ >= 0) ::close(fd_);
}

void StartReport::Started() {
  if (fd_ < 0) return;
  const char verdict = '0';
  // A starter that is gone no longer needs the report.
  [[maybe_unused]] const ssize_t written = ::write(fd_, &verdict, 1);
  ::close(fd_);
  fd_ = -1;
}

StartReport Detach(int outputFd) {
  int report[2];
  if (::pipe2(report, O_CLOEXEC) != 0) throw SystemError("Failed to create a pipe", errno);
  std::fflush(nullptr);
  const pid_t session = ::fork();
  if (session < 0) throw SystemError("Failed to fork", errno);
  if (session > 0) {
    ::close(report[1]);
    AwaitReport(report[0], session);
  }
  ::close(report[0]);
  // The new session has no controlling terminal; the second fork makes the
  // daemon a process that is not its leader, so it can never acquire one.
  ::setsid();
  const pid_t daemon = ::fork();
  if (daemon < 0) ::_exit(1);
  if (daemon > 0) ::_exit(0);

  // Keeps no directory busy (every path the daemons use is absolute).
  [[maybe_unused]] const int moved = ::chdir("/");
  const int null = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (null >= 0) {
    ::dup2(null, STDIN_FILENO);
    ::close(null);
  }
  ::dup2(outputFd, STDOUT_FILENO);
  ::dup2(outputFd, STDERR_FILENO);
  return StartReport(report[1]);
}

std::string LogTimestamp() {
  struct timespec now;
  ::clock_gettime(CLOCK_REALTIME, &now);
  struct tm utc;
  ::gmtime_r(&now.tv_sec, &utc);
  char text[40];
  const size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(text + length, sizeof text - length, ".%03ldZ", now.tv_nsec / 1000000);
  return text;
}

}  // namespace zeltools
