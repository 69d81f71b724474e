#include "BenchSupport.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace zel {
namespace bench {

std::string BenchConfText() {
  const char* path = std::getenv("ZEL_BENCH_CONF");
  if (path == nullptr) throw std::runtime_error("set ZEL_BENCH_CONF (see bench/run.sh)");
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void MeasureRawSaveFloor(benchmark::State& state, const std::string& saved,
                         const std::string& text) {
  const std::string dir = saved.substr(0, saved.rfind('/') + 1);
  const std::string temp = dir + "floor.tmp";
  const std::string target = dir + "floor.conf";
  for (auto _ : state) {
    const int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
      state.SkipWithError("write failed");
    }
    fsync(fd);
    close(fd);
    rename(temp.c_str(), target.c_str());
    const int dirFd = open(dir.c_str(), O_RDONLY | O_DIRECTORY);
    fsync(dirFd);
    close(dirFd);
  }
  unlink(target.c_str());
}

}  // namespace bench
}  // namespace zel
