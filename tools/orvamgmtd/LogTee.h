// orvamgmtd's log. The agent's own lines and the library's (whose log
// writes to standard error) all pass through one pipe to a thread that
// time-stamps each line and appends it to the log file, and in the
// foreground copies it to the standard error the agent was started with.
#pragma once

#include <string>
#include <thread>

namespace orvamgmtd {

class LogTee {
 public:
  // Takes `logFd` (open for appending) over and puts the pipe in place of
  // standard output and error. `copyToStderr`: the foreground's copy.
  LogTee(int logFd, bool copyToStderr);
  // Close().
  ~LogTee();
  LogTee(const LogTee&) = delete;
  LogTee& operator=(const LogTee&) = delete;

  // Points standard output and error straight at the log file, so that
  // lines written while the process ends (the library's unload) still land
  // there, then writes out what the pipe still holds and ends the thread.
  // Idempotent.
  void Close();

 private:
  void Pump();
  void Emit(const std::string& line);

  int logFd_;
  int copyFd_ = -1;
  int readFd_ = -1;
  int stopFd_ = -1;
  std::thread thread_;
};

// One line of the agent, "orvamgmtd: " and the formatted text, written to
// standard error in one piece.
void Log(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace orvamgmtd
