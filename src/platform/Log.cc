#include "platform/Log.h"

#include <cstdarg>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <vector>

#include "platform/Host.h"

namespace zel {
namespace platform {
namespace {

class StderrLogSink final : public LogSink {
 public:
  explicit StderrLogSink(LogLevel maxLevel) : maxLevel_(maxLevel) {}
  void Write(LogLevel level, const std::string& line) override {
    if (static_cast<int>(level) > static_cast<int>(maxLevel_)) return;
    std::lock_guard<std::mutex> guard(mutex_);
    std::cerr << line << '\n';
  }

 private:
  const LogLevel maxLevel_;
  std::mutex mutex_;
};

}  // namespace

const char* LogLevelName(LogLevel level) {
  switch (level) {
    case LogLevel::Error: return "error";
    case LogLevel::Warning: return "warning";
    case LogLevel::Info: return "info";
    case LogLevel::Debug: return "debug";
    case LogLevel::Debug2: return "debug2";
  }
  return "unknown";
}

std::unique_ptr<LogSink> NewStderrLogSink(LogLevel maxLevel) {
  return std::make_unique<StderrLogSink>(maxLevel);
}

void Log(LogLevel level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  const int length = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string line;
  if (length > 0) {
    std::vector<char> buffer(static_cast<size_t>(length) + 1);
    std::vsnprintf(buffer.data(), buffer.size(), format, args);
    line.assign(buffer.data(), static_cast<size_t>(length));
  }
  va_end(args);
  if (!line.empty() && line.back() == '\n') line.pop_back();
  CurrentLogSink().Write(level, line);
}

}  // namespace platform
}  // namespace zel
