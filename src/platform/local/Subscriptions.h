// The subscriptions of a directory backend and the delivery of changes to
// them, keeping Directory.h's promises: each backend delivers from one
// thread of its own, so the callbacks of a subscription never overlap and
// follow the order of the changes; Unsubscribe ends a subscription at once
// and waits for its callback in progress, unless the callback itself (or
// another one) is the caller.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>

#include "platform/Directory.h"

namespace zel {
namespace platform {

class Subscriptions {
 public:
  Directory::SubscriptionHandle Add(uint32_t type, const std::string& key,
                                    Directory::Callback callback);
  void Remove(Directory::SubscriptionHandle handle);

  // Every (type, key) that has a subscription.
  std::set<std::pair<uint32_t, std::string>> Keys() const;

  // Runs the callback of every subscription of the entry's type and key,
  // one after the other, on the calling thread: always the backend's one
  // delivering thread.
  void Deliver(NOK_ReturnStatus status, const DirectoryEntry& entry);
  // Tells every subscription that the backend lost track (`status`, null).
  void DeliverLostTrack(NOK_ReturnStatus status);

 private:
  struct Subscription {
    Directory::SubscriptionHandle handle;
    uint32_t type;
    std::string key;
    Directory::Callback callback;
    bool active = true;
  };

  void Run(NOK_ReturnStatus status, const DirectoryEntry* entry, bool everyone);

  mutable std::mutex mutex_;
  std::condition_variable callbackDone_;
  std::map<Directory::SubscriptionHandle, std::shared_ptr<Subscription>> subs_;
  Directory::SubscriptionHandle lastHandle_ = 0;
  Directory::SubscriptionHandle running_ = 0;  // whose callback is in progress
  std::atomic<std::thread::id> deliverer_{};   // the thread delivering
};

}  // namespace platform
}  // namespace zel
