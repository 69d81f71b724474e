#include "platform/local/SerialWorker.h"

#include <utility>

namespace zel {
namespace platform {

void SerialWorker::Start() { thread_ = std::thread([this] { Loop(); }); }

void SerialWorker::Post(std::function<void()> job) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    jobs_.push_back(std::move(job));
  }
  posted_.notify_one();
}

void SerialWorker::Stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  posted_.notify_all();
  if (thread_.joinable()) thread_.join();
}

void SerialWorker::Loop() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    posted_.wait(lock, [&] { return stopping_ || !jobs_.empty(); });
    if (jobs_.empty()) return;
    std::function<void()> job = std::move(jobs_.front());
    jobs_.pop_front();
    lock.unlock();
    job();
    lock.lock();
  }
}

}  // namespace platform
}  // namespace zel
