#include "FileLogSink.h"

#include <unistd.h>

#include <cstdio>

#include "common/Daemon.h"

namespace zeltools {

FileLogSink::FileLogSink(int fd, bool alsoStderr, zel::platform::LogLevel maxLevel)
    : fd_(fd), alsoStderr_(alsoStderr), maxLevel_(maxLevel) {}

FileLogSink::~FileLogSink() { ::close(fd_); }

void FileLogSink::Write(zel::platform::LogLevel level, const std::string& line) {
  if (static_cast<int>(level) > static_cast<int>(maxLevel_)) return;
  const std::string stamped =
      LogTimestamp() + " " + zel::platform::LogLevelName(level) + " " + line + "\n";
  std::lock_guard<std::mutex> guard(mutex_);
  // One write per line: on a file open for appending, lines of concurrent
  // writers never interleave. A full disk loses the line, not the daemon.
  [[maybe_unused]] const ssize_t written = ::write(fd_, stamped.data(), stamped.size());
  if (alsoStderr_) std::fprintf(stderr, "%s\n", line.c_str());
}

}  // namespace zeltools
