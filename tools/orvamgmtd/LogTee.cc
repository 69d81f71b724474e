#include "LogTee.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "common/Daemon.h"

namespace orvamgmtd {
namespace {

void WriteAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    // A full disk or a closed terminal loses the line, not the agent.
    if (n <= 0) return;
    done += static_cast<size_t>(n);
  }
}

}  // namespace

LogTee::LogTee(int logFd, bool copyToStderr) : logFd_(logFd) {
  int pipeFds[2];
  if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
    throw std::runtime_error(std::string("Failed to create the log pipe: ") + std::strerror(errno));
  }
  stopFd_ = ::eventfd(0, EFD_CLOEXEC);
  if (stopFd_ < 0) {
    throw std::runtime_error(std::string("Failed to create an eventfd: ") + std::strerror(errno));
  }
  // The copy is close-on-exec: commands the library runs write into the
  // pipe like the agent, never around it.
  if (copyToStderr) copyFd_ = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
  readFd_ = pipeFds[0];
  ::fflush(nullptr);
  ::dup2(pipeFds[1], STDOUT_FILENO);
  ::dup2(pipeFds[1], STDERR_FILENO);
  ::close(pipeFds[1]);
  thread_ = std::thread(&LogTee::Pump, this);
}

LogTee::~LogTee() {
  Close();
  ::close(readFd_);
  ::close(stopFd_);
  if (copyFd_ >= 0) ::close(copyFd_);
  // Standard output and error keep the log file open.
  ::close(logFd_);
}

void LogTee::Close() {
  if (!thread_.joinable()) return;
  ::fflush(nullptr);
  ::dup2(logFd_, STDOUT_FILENO);
  ::dup2(logFd_, STDERR_FILENO);
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = ::write(stopFd_, &one, sizeof one);
  thread_.join();
}

void LogTee::Emit(const std::string& line) {
  WriteAll(logFd_, zeltools::LogTimestamp() + " " + line + "\n");
  if (copyFd_ >= 0) WriteAll(copyFd_, line + "\n");
}

void LogTee::Pump() {
  std::string pending;
  bool stopping = false;
  for (;;) {
    struct pollfd fds[2] = {{readFd_, POLLIN, 0}, {stopFd_, POLLIN, 0}};
    // Once stopping, only what the pipe already holds is written out: a
    // command the library started may still hold the pipe's other end.
    if (::poll(fds, 2, stopping ? 0 : -1) < 0 && errno != EINTR) break;
    if (fds[1].revents != 0) stopping = true;
    if (fds[0].revents == 0) {
      if (stopping) break;
      continue;
    }
    char buffer[4096];
    const ssize_t n = ::read(readFd_, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    pending.append(buffer, static_cast<size_t>(n));
    std::string::size_type start = 0, end;
    while ((end = pending.find('\n', start)) != std::string::npos) {
      Emit(pending.substr(start, end - start));
      start = end + 1;
    }
    pending.erase(0, start);
  }
  if (!pending.empty()) Emit(pending);
}

void Log(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::vector<char> text(512);
  va_list copy;
  va_copy(copy, args);
  const int length = std::vsnprintf(text.data(), text.size(), format, copy);
  va_end(copy);
  if (length >= static_cast<int>(text.size())) {
    text.resize(static_cast<size_t>(length) + 1);
    std::vsnprintf(text.data(), text.size(), format, args);
  }
  va_end(args);
  WriteAll(STDERR_FILENO, "orvamgmtd: " + std::string(text.data()) + "\n");
}

}  // namespace orvamgmtd
