// The host log. Both the configuration layer's log_* family and the class
// layers' component-tagged calls end here, in the sink of the selected host.
#pragma once

#include <memory>
#include <string>

namespace zel {
namespace platform {

// The level numbers are the configuration layer's own: 2 warning, 3 info,
// 4 and 5 debug.
enum class LogLevel : int { Error = 1, Warning = 2, Info = 3, Debug = 4, Debug2 = 5 };

const char* LogLevelName(LogLevel level);

class LogSink {
 public:
  virtual ~LogSink() = default;
  // One finished line without its line end. Must be thread-safe.
  virtual void Write(LogLevel level, const std::string& line) = 0;
};

// Writes lines up to `maxLevel` to standard error, one per line.
std::unique_ptr<LogSink> NewStderrLogSink(LogLevel maxLevel);

// Formats printf-style and hands the result to the selected host's sink.
// A trailing line end in the format is dropped: the sink writes whole lines.
void Log(LogLevel level, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace platform
}  // namespace zel

// Component-tagged calls of the class layers: the first %s is the component
// ("Parser", "ConfHandle", "Util", ...).
#define ZEL_LOG_ERROR(...) ::zel::platform::Log(::zel::platform::LogLevel::Error, __VA_ARGS__)
#define ZEL_LOG_WARNING(...) ::zel::platform::Log(::zel::platform::LogLevel::Warning, __VA_ARGS__)
#define ZEL_LOG_INFO(...) ::zel::platform::Log(::zel::platform::LogLevel::Info, __VA_ARGS__)
#define ZEL_LOG_DEBUG(...) ::zel::platform::Log(::zel::platform::LogLevel::Debug, __VA_ARGS__)
