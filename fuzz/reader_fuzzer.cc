// Feeds arbitrary bytes to the zel.conf reader the way ConfHandle reads the
// file: opened under the shared lock through the file layer, parsed by
// conf_new_from_file, and ZeldCleanConf after an exception. Any crash,
// sanitizer report or leak is a finding; a refused file or an
// OrvaCtlException is the reader doing its job.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "conf/conf.h"
#include "conf/reader.h"
#include "platform/Host.h"
#include "zel/OrvaCtlException.h"

namespace {

using namespace zel::platform;

// Every log line is formatted (so the formats run under the sanitizers)
// and then dropped.
class DroppingLogSink final : public LogSink {
 public:
  void Write(LogLevel, const std::string&) override {}
};

// The input lives in a memory file, reopened by path like the real file.
class Input {
 public:
  Input() {
    fd_ = memfd_create("zel.conf", 0);
    if (fd_ < 0) abort();
    path_ = "/proc/self/fd/" + std::to_string(fd_);
    // The reader touches nothing under the home.
    SelectHost(std::make_unique<Host>(EmbeddedHostConfig("/nonexistent"), NewSystemClock(),
                                      std::make_unique<DroppingLogSink>(),
                                      NewPosixFileSystem()));
    log_init(5);
  }

  const char* Replace(const uint8_t* data, size_t size) {
    if (ftruncate(fd_, 0) != 0) abort();
    size_t done = 0;
    while (done < size) {
      ssize_t n = pwrite(fd_, data + done, size - done, static_cast<off_t>(done));
      if (n <= 0) abort();
      done += static_cast<size_t>(n);
    }
    return path_.c_str();
  }

 private:
  int fd_;
  std::string path_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Input input;
  const char* path = input.Replace(data, size);

  FileIODescriptor file;
  // No waiting: nothing else holds the lock.
  if (conf_file_open_share_lock(path, &file, 0) != 0) abort();
  struct conf* conf = nullptr;
  try {
    conf = conf_new_from_file(&file, nullptr);
  } catch (const HostCtl::Lib::Orva::OrvaCtlException&) {
    ZeldCleanConf();
  }
  if (conf != nullptr) conf_delete(conf);
  conf_close_file(&file);
  return 0;
}
