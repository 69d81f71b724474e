// The configuration layer's own log: "ZELD: "-prefixed lines at fixed
// levels into the host's log, and the fatal paths, which throw instead of
// ending the process because the layer runs inside the management process.
//
// The level starts at 0, so nothing (not even a warning) is emitted until
// the process calls log_init: the host's log sink already filters what it
// shows, and a library that never asked for the daemon's messages should
// not get them.
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "conf/conf.h"
#include "platform/Log.h"
#include "zel/OrvaCtlException.h"

using zel::platform::LogLevel;

namespace {

// Longer messages are cut: the daemon's log lines have always been bounded.
constexpr size_t kLogBufferSize = 256;

int g_log_level = 0;
bool g_log_initialised = false;

bool log_enabled(LogLevel level) {
  return static_cast<int>(level) <= g_log_level;
}

void log_common(LogLevel level, const char *fmt, va_list ap) {
  if (!log_enabled(level))
    return;
  char buf[kLogBufferSize];
  vsnprintf(buf, sizeof(buf), fmt, ap);
  zel::platform::Log(level, "ZELD: %s\n", buf);
}

// The errno text is appended only when the message left room for it.
void log_format_error(char (&buf)[kLogBufferSize], int saved_errno, const char *fmt,
                      va_list ap) {
  int len = vsnprintf(buf, sizeof(buf), fmt, ap);
  if (len > 0 && static_cast<size_t>(len) < sizeof(buf))
    snprintf(buf + len, sizeof(buf) - len, " (%s)", strerror(saved_errno));
}

}  // namespace

void log_init(int level) {
  g_log_level = level;
  g_log_initialised = true;
}

void log_warn(const char *fmt, ...) {
  // errno belongs to the failure being reported, not to the formatting.
  int saved_errno = errno;
  if (!log_enabled(LogLevel::Warning))
    return;
  char buf[kLogBufferSize];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(buf, sizeof(buf), fmt, ap);
  va_end(ap);
  zel::platform::Log(LogLevel::Warning, "ZELD: %s: %s\n", buf, strerror(saved_errno));
}

void log_warnx(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  log_common(LogLevel::Warning, fmt, ap);
  va_end(ap);
}

void log_info(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  log_common(LogLevel::Info, fmt, ap);
  va_end(ap);
}

void log_debugx(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  log_common(LogLevel::Debug, fmt, ap);
  va_end(ap);
}

void log_debugx2(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  log_common(LogLevel::Debug2, fmt, ap);
  va_end(ap);
}

// The status is the daemon's exit code; inside the library the failure
// travels as an exception instead.
void log_err(int /*status*/, const char *fmt, ...) {
  int saved_errno = errno;
  char buf[kLogBufferSize];
  va_list ap;
  va_start(ap, fmt);
  log_format_error(buf, saved_errno, fmt, ap);
  va_end(ap);
  throw HostCtl::Lib::Orva::OrvaCtlException(buf);
}

void log_errx(int /*status*/, const char *fmt, ...) {
  char buf[kLogBufferSize];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(buf, sizeof(buf), fmt, ap);
  va_end(ap);
  throw HostCtl::Lib::Orva::OrvaCtlException(buf);
}

// The host's log belongs to the process, not to this layer, so there is
// nothing to close: only the layer's own state is reset.
void log_cleanup(void) {
  if (!g_log_initialised)
    return;
  log_debugx("log cleanup.");
  g_log_initialised = false;
}

void exit_with_cleanup(int status) {
  log_info("%s: exit status: %d", "exit_with_cleanup", status);
  log_cleanup();
  exit(status);
}
