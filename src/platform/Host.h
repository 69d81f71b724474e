// The host object: one backend per host service, selected once when a
// process starts (the local Linux backends by default, the fault-injecting
// host in tests). Call sites reach it through the service's own operation
// names, never directly through a backend.
#pragma once

#include <memory>

#include "platform/Clock.h"
#include "platform/FileIO.h"
#include "platform/HostConfig.h"
#include "platform/Log.h"

namespace zel {
namespace platform {

class Host {
 public:
  Host(HostConfig config, std::unique_ptr<Clock> clock, std::unique_ptr<LogSink> log,
       std::unique_ptr<FileSystem> files);
  ~Host();

  const HostConfig& Config() const { return config_; }
  Clock& GetClock() { return *clock_; }
  LogSink& GetLog() { return *log_; }
  FileSystem& Files() { return *files_; }

 private:
  HostConfig config_;
  std::unique_ptr<Clock> clock_;
  std::unique_ptr<LogSink> log_;
  std::unique_ptr<FileSystem> files_;
};

// The local Linux backends under `config`, logging to standard error up to
// `maxLevel`.
std::unique_ptr<Host> NewLocalHost(HostConfig config, LogLevel maxLevel);

// The selected host. Before any selection it is the local host of the
// embedded profile under ResolveHome(""), logging warnings and errors.
Host& CurrentHost();

// Replaces the selected host and returns the previous one. Meant for the
// start of a process (or of a test), not while other threads use the host.
std::unique_ptr<Host> SelectHost(std::unique_ptr<Host> host);

std::unique_ptr<FileSystem> NewPosixFileSystem();

}  // namespace platform
}  // namespace zel
