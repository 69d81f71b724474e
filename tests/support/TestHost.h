// The fault-injecting test host: a clock that records pauses instead of
// sleeping, a log sink that keeps every line, a file layer over the real one
// whose calls can be scripted to fail; and the one way a test selects a host
// (HostSelection, under ScopedTestHost and ServiceHome).
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/Host.h"
#include "support/HostDoubles.h"

namespace zel::test {

// The system clock, counting the pauses taken through it: for waits that
// must really happen (a lock handed over by another process).
class CountingSystemClock final : public platform::Clock {
 public:
  uint64_t NowMicros() override { return system_->NowMicros(); }
  void SleepMicros(uint64_t micros) override {
    ++pauses;
    system_->SleepMicros(micros);
  }
  std::atomic<int> pauses{0};

 private:
  std::unique_ptr<platform::Clock> system_ = platform::NewSystemClock();
};

class TestClock final : public platform::Clock {
 public:
  uint64_t NowMicros() override {
    std::lock_guard<std::mutex> guard(mutex_);
    return now_;
  }
  void SleepMicros(uint64_t micros) override {
    std::lock_guard<std::mutex> guard(mutex_);
    now_ += micros;
    sleeps_.push_back(micros);
  }
  // Every pause asked for, in order.
  std::vector<uint64_t> Sleeps() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return sleeps_;
  }
  void ClearSleeps() {
    std::lock_guard<std::mutex> guard(mutex_);
    sleeps_.clear();
  }

 private:
  mutable std::mutex mutex_;
  uint64_t now_ = 1;
  std::vector<uint64_t> sleeps_;
};

struct LogLine {
  platform::LogLevel level;
  std::string text;
};

class RecordingLogSink final : public platform::LogSink {
 public:
  void Write(platform::LogLevel level, const std::string& line) override {
    std::lock_guard<std::mutex> guard(mutex_);
    lines_.push_back({level, line});
  }
  std::vector<LogLine> Lines() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return lines_;
  }
  // Lines at `level` or more severe, text only.
  std::vector<std::string> Texts(platform::LogLevel upTo = platform::LogLevel::Debug2) const;
  bool Contains(const std::string& text) const;
  // How many lines at exactly `level` are `text`.
  int Count(platform::LogLevel level, const std::string& text) const;
  void Clear() {
    std::lock_guard<std::mutex> guard(mutex_);
    lines_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<LogLine> lines_;
};

// The file layer calls that can be scripted.
enum class FileOp { Open, Close, AtomicTempFile, Sync, AtomicUpdate, CloseAndUnlink };

class FaultyFileSystem final : public platform::FileSystem {
 public:
  explicit FaultyFileSystem(std::unique_ptr<platform::FileSystem> real) : real_(std::move(real)) {}
  // The next `times` calls of `op` return `result` (with errno `error`)
  // without touching the real file layer; later calls go through.
  void FailNext(FileOp op, FileIOResult result, int times = 1, int error = EIO);
  // How often `op` was called, faults included.
  int Calls(FileOp op) const {
    std::lock_guard<std::mutex> guard(mutex_);
    auto found = calls_.find(op);
    return found == calls_.end() ? 0 : found->second;
  }

  FileIOResult Open(FileIODescriptor* file, const std::string& path, int access) override;
  FileIOResult Close(FileIODescriptor* file) override;
  FileIOResult AtomicTempFile(const std::string& path, FileIODescriptor* temp) override;
  FileIOResult Sync(const FileIODescriptor& file) override;
  FileIOResult AtomicUpdate(FileIODescriptor* temp, const std::string& path) override;
  FileIOResult CloseAndUnlink(FileIODescriptor* file) override;

 private:
  // Counts the call and tells whether a scripted fault answers it.
  bool Scripted(FileOp op, FileIOResult* result);

  std::unique_ptr<platform::FileSystem> real_;
  mutable std::mutex mutex_;
  std::map<FileOp, std::deque<std::pair<FileIOResult, int>>> faults_;  // (result, errno)
  std::map<FileOp, int> calls_;
};

// A temporary home directory, removed with everything in it at the end.
class TempHome {
 public:
  TempHome();
  ~TempHome();
  const std::string& Path() const { return path_; }

 private:
  std::string path_;
};

// The test host's own parts, and a ServiceHome's doubles, with the journal
// into which every one of them records its calls.
struct TestServices {
  TestClock* clock;
  RecordingLogSink* log;
  FaultyFileSystem* files;
  ConfigStoreDouble* store = nullptr;
  DirectoryDouble* directory = nullptr;
  DiskLibraryDouble* disks = nullptr;
  ObjectManagerDouble* objects = nullptr;
  Journal* journal = nullptr;
};

// Selects `host` for the object's life and puts the previous host back.
class HostSelection {
 public:
  explicit HostSelection(std::unique_ptr<platform::Host> host)
      : previous_(platform::SelectHost(std::move(host))) {}
  ~HostSelection() { platform::SelectHost(std::move(previous_)); }
  HostSelection(const HostSelection&) = delete;
  HostSelection& operator=(const HostSelection&) = delete;

 private:
  std::unique_ptr<platform::Host> previous_;
};

// Selects the test host (TestClock, RecordingLogSink, FaultyFileSystem over
// the real files, no other service) for the scope's life: of the embedded
// profile under a fresh temporary home, or of `config`.
class ScopedTestHost {
 public:
  ScopedTestHost();
  explicit ScopedTestHost(platform::HostConfig config);

  const std::string& Home() const { return Config().home; }
  const platform::HostConfig& Config() const { return host_->Config(); }
  TestClock& Clock() { return *services_.clock; }
  RecordingLogSink& Log() { return *services_.log; }
  FaultyFileSystem& Files() { return *services_.files; }
  TestServices Services() const { return services_; }

  // Puts `double_` into the host as its service and returns it.
  template <typename Double>
  Double& Install(std::unique_ptr<Double> double_) {
    return Attach(*host_, std::move(double_));
  }
  // Wraps `target` in the double `Double`, installs it and returns it.
  template <typename Double>
  Double& Install(std::unique_ptr<typename Double::Service> target) {
    return Install(std::make_unique<Double>(std::move(target)));
  }

 private:
  void Select(platform::HostConfig config);

  std::unique_ptr<TempHome> home_;  // removed after the host is put back
  TestServices services_{};
  platform::Host* host_;
  std::unique_ptr<HostSelection> selection_;
};

// Writes `text` to `path`, creating parent directories.
void WriteFile(const std::string& path, const std::string& text, int mode = 0600);
std::string ReadFile(const std::string& path);

}  // namespace zel::test
