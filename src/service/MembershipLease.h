// Keeps this host a live cluster member while its agent runs: the member
// entry is bound to a lease that is renewed three times in each of its
// times to live, so that the other hosts see a host whose agent died leave
// the membership within that time. When this host cannot renew before the
// lease runs out, or learns it has run out, it is no longer a member in the
// eyes of the others: `onLost` runs (the agent treats it as leaving the
// cluster), and the next renewal that reaches the directory joins again.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>

#include "platform/ClusterFacts.h"
#include "platform/Clock.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

class MembershipLease {
 public:
  // REQUIRES: `cluster` and `clock` outlive this object.
  MembershipLease(zel::platform::ClusterFacts& cluster, zel::platform::Clock& clock, int ttlSeconds,
                  std::function<void()> onLost);
  ~MembershipLease();  // stops the thread
  MembershipLease(const MembershipLease&) = delete;
  MembershipLease& operator=(const MembershipLease&) = delete;

  // Renews now, then every third of the time to live, on a thread of its own.
  void Start();
  void Stop();

  // One renewal, timed by `clock`; runs `onLost` when this host has just
  // lost its membership.
  void Renew();

 private:
  zel::platform::ClusterFacts& cluster_;
  zel::platform::Clock& clock_;
  const int ttlSeconds_;
  const std::function<void()> onLost_;
  bool held_ = false;
  uint64_t renewedAt_ = 0;  // clock micros of the last renewal that reached the directory
  bool warned_ = false;     // a failing renewal is logged once until one succeeds

  std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
