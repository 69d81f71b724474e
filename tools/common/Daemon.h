// What the service's two daemons, zeld and orvamgmtd, share: the pid file
// that keeps one daemon per home, the detach from the starting terminal
// with a start report back to the starter, and the time stamp of their log
// lines.
#pragma once

#include <sys/types.h>

#include <string>

namespace zeltools {

// Creates `path` and its missing parents with `mode` (existing ones are
// left as they are). Throws std::runtime_error naming the path.
void MakeDirectories(const std::string& path, mode_t mode);

// The daemon's pid file, held under an exclusive flock for the daemon's
// life: a second daemon of the same home finds it held and refuses to
// start, while a file left behind by a daemon that died is simply taken
// over. The lock goes with the open file, so a pid file taken before
// Detach stays held by the daemon.
class PidFile {
 public:
  // Throws std::runtime_error; when another daemon holds the file the
  // message is "already running (pid N)".
  explicit PidFile(std::string path);
  // Removes the file, then releases the lock.
  ~PidFile();
  PidFile(const PidFile&) = delete;
  PidFile& operator=(const PidFile&) = delete;

  // Records the calling process.
  void Write();

 private:
  std::string path_;
  int fd_ = -1;
};

// The daemon's end of the start report. Default-constructed (a daemon in
// the foreground) it reports to nobody.
class StartReport {
 public:
  StartReport() = default;
  explicit StartReport(int fd) : fd_(fd) {}
  StartReport(StartReport&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  StartReport& operator=(StartReport&&) = delete;
  ~StartReport();

  // The starter exits 0. A daemon that ends without calling it makes the
  // starter exit 1.
  void Started();

 private:
  int fd_ = -1;
};

// Detaches the calling process: forks, starts a new session, forks again
// and returns only in that last process (the daemon), whose standard input
// is /dev/null and whose standard output and error are `outputFd`, with
// the working directory "/". The starting process waits for the daemon's
// report and exits with 0 or 1 without returning (nothing of its state is
// torn down, so the pid file stays with the daemon). REQUIRES: no other
// thread runs.
StartReport Detach(int outputFd);

// The time stamp of a log line: UTC, to the millisecond.
std::string LogTimestamp();

}  // namespace zeltools
