// Time source for every pause the library takes. Retry loops sleep through
// the selected host's clock, so a test clock can record the pauses and
// return at once instead of waiting.
#pragma once

#include <cstdint>
#include <memory>

namespace zel {
namespace platform {

class Clock {
 public:
  virtual ~Clock() = default;

  // Microseconds since an arbitrary fixed point; never goes backwards.
  virtual uint64_t NowMicros() = 0;

  // Blocks the calling thread for `micros` (a test clock only records it).
  // Thread-safe.
  virtual void SleepMicros(uint64_t micros) = 0;
};

std::unique_ptr<Clock> NewSystemClock();

}  // namespace platform
}  // namespace zel

// The service's own pause, named as its call sites know it.
void Util_Sleep(unsigned seconds);
