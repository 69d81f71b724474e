#include "support/TestHost.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace zel::test {

std::vector<std::string> RecordingLogSink::Texts(platform::LogLevel upTo) const {
  std::vector<std::string> texts;
  for (const LogLine& line : Lines()) {
    if (static_cast<int>(line.level) <= static_cast<int>(upTo)) texts.push_back(line.text);
  }
  return texts;
}

bool RecordingLogSink::Contains(const std::string& text) const {
  for (const LogLine& line : Lines()) {
    if (line.text == text) return true;
  }
  return false;
}

int RecordingLogSink::Count(platform::LogLevel level, const std::string& text) const {
  int count = 0;
  for (const LogLine& line : Lines()) count += line.level == level && line.text == text ? 1 : 0;
  return count;
}

void FaultyFileSystem::FailNext(FileOp op, FileIOResult result, int times, int error) {
  std::lock_guard<std::mutex> guard(mutex_);
  for (int i = 0; i < times; ++i) faults_[op].push_back({result, error});
}

bool FaultyFileSystem::Scripted(FileOp op, FileIOResult* result) {
  std::lock_guard<std::mutex> guard(mutex_);
  ++calls_[op];
  auto& pending = faults_[op];
  if (pending.empty()) return false;
  *result = pending.front().first;
  errno = pending.front().second;
  pending.pop_front();
  return true;
}

#define ZEL_FILE_OP(Op, Params, Args)                               \
  FileIOResult FaultyFileSystem::Op Params {                        \
    FileIOResult result;                                            \
    return Scripted(FileOp::Op, &result) ? result : real_->Op Args; \
  }
ZEL_FILE_OP(Open, (FileIODescriptor * file, const std::string& path, int access),
            (file, path, access))
ZEL_FILE_OP(Close, (FileIODescriptor * file), (file))
ZEL_FILE_OP(AtomicTempFile, (const std::string& path, FileIODescriptor* temp), (path, temp))
ZEL_FILE_OP(Sync, (const FileIODescriptor& file), (file))
ZEL_FILE_OP(AtomicUpdate, (FileIODescriptor * temp, const std::string& path), (temp, path))
ZEL_FILE_OP(CloseAndUnlink, (FileIODescriptor * file), (file))
#undef ZEL_FILE_OP

TempHome::TempHome() {
  const char* base = std::getenv("TMPDIR");
  std::string name = std::string(base && *base ? base : "/tmp") + "/zel-test-XXXXXX";
  if (::mkdtemp(name.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = name;
}

TempHome::~TempHome() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

ScopedTestHost::ScopedTestHost() : home_(std::make_unique<TempHome>()) {
  Select(platform::EmbeddedHostConfig(home_->Path()));
}

ScopedTestHost::ScopedTestHost(platform::HostConfig config) { Select(std::move(config)); }

void ScopedTestHost::Select(platform::HostConfig config) {
  auto clock = std::make_unique<TestClock>();
  auto log = std::make_unique<RecordingLogSink>();
  auto files = std::make_unique<FaultyFileSystem>(platform::NewPosixFileSystem());
  services_ = TestServices{clock.get(), log.get(), files.get()};
  auto host = std::make_unique<platform::Host>(std::move(config), std::move(clock), std::move(log),
                                               std::move(files));
  host_ = host.get();
  selection_ = std::make_unique<HostSelection>(std::move(host));
}

void WriteFile(const std::string& path, const std::string& text, int mode) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    if (!out) throw std::runtime_error("cannot write " + path);
  }
  ::chmod(path.c_str(), static_cast<mode_t>(mode));
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace zel::test
