#include "platform/Clock.h"

#include <chrono>
#include <thread>

#include "platform/Host.h"

namespace zel {
namespace platform {
namespace {

class SystemClock final : public Clock {
 public:
  uint64_t NowMicros() override {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
  }
  void SleepMicros(uint64_t micros) override {
    std::this_thread::sleep_for(std::chrono::microseconds(micros));
  }
};

}  // namespace

std::unique_ptr<Clock> NewSystemClock() { return std::make_unique<SystemClock>(); }

}  // namespace platform
}  // namespace zel

void Util_Sleep(unsigned seconds) {
  zel::platform::CurrentHost().GetClock().SleepMicros(uint64_t{seconds} * 1000000);
}
