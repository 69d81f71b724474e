// The thread on which a directory backend runs its updates: jobs run one at
// a time, in the order they were posted, so that a backend's completions
// follow the order of its updates. Stop runs every job posted before it,
// then ends the thread; the destructor stops.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace zel {
namespace platform {

class SerialWorker {
 public:
  SerialWorker() = default;
  ~SerialWorker() { Stop(); }
  SerialWorker(const SerialWorker&) = delete;
  SerialWorker& operator=(const SerialWorker&) = delete;

  void Start();
  // Jobs posted before Start wait for it.
  void Post(std::function<void()> job);
  // Harmless on a worker never started, and when called again.
  void Stop();

 private:
  void Loop();

  std::mutex mutex_;
  std::condition_variable posted_;
  std::deque<std::function<void()>> jobs_;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace platform
}  // namespace zel
