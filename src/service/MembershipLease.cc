#include "service/MembershipLease.h"

#include <chrono>
#include <utility>

#include "platform/Log.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace {

const char kTag[] = "MembershipLease";

}  // namespace

MembershipLease::MembershipLease(zel::platform::ClusterFacts& cluster, zel::platform::Clock& clock,
                                 int ttlSeconds, std::function<void()> onLost)
    : cluster_(cluster), clock_(clock), ttlSeconds_(ttlSeconds), onLost_(std::move(onLost)) {}

MembershipLease::~MembershipLease() { Stop(); }

void MembershipLease::Start() {
  thread_ = std::thread([this] {
    const auto period = std::chrono::milliseconds(ttlSeconds_ * 1000 / 3);
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopping_) {
      lock.unlock();
      Renew();
      lock.lock();
      wake_.wait_for(lock, period, [this] { return stopping_; });
    }
  });
}

void MembershipLease::Stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
}

void MembershipLease::Renew() {
  const uint64_t now = clock_.NowMicros();
  const NOK_ReturnStatus status = cluster_.RenewMembership(ttlSeconds_);
  if (status == NOK_OK) {
    if (!held_) {
      ZEL_LOG_INFO("%s: This host's membership is held under a lease of %d s\n", kTag,
                   ttlSeconds_);
    }
    held_ = true;
    warned_ = false;
    renewedAt_ = now;
    return;
  }
  const bool ranOut = status == NOK_NOT_FOUND ||
                      now - renewedAt_ >= static_cast<uint64_t>(ttlSeconds_) * 1000000;
  if (held_ && ranOut) {
    held_ = false;
    ZEL_LOG_WARNING("%s: This host's membership lease ran out (%s): leaving the cluster\n",
                    kTag,
                    status == NOK_NOT_FOUND ? "the directory ended it"
                                            : "not renewed within its time to live");
    onLost_();
    return;
  }
  if (!warned_ && status != NOK_NOT_FOUND) {
    ZEL_LOG_WARNING("%s: Failed to renew this host's membership lease: %s\n", kTag,
                    NOK_ReturnStatusToString(status));
    warned_ = true;
  }
}

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
