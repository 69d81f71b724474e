// zeld's log: every line of the daemon and of the library, time-stamped,
// appended to the daemon's log file and, in the foreground, shown on
// standard error as well.
#pragma once

#include <mutex>

#include "platform/Log.h"

namespace zeltools {

class FileLogSink final : public zel::platform::LogSink {
 public:
  // Takes `fd` (open for appending) over.
  FileLogSink(int fd, bool alsoStderr, zel::platform::LogLevel maxLevel);
  ~FileLogSink() override;

  void Write(zel::platform::LogLevel level, const std::string& line) override;

 private:
  const int fd_;
  const bool alsoStderr_;
  const zel::platform::LogLevel maxLevel_;
  std::mutex mutex_;
};

}  // namespace zeltools
