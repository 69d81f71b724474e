#include "platform/local/Subscriptions.h"

#include <vector>

namespace zel {
namespace platform {

Directory::SubscriptionHandle Subscriptions::Add(uint32_t type, const std::string& key,
                                                 Directory::Callback callback) {
  std::lock_guard<std::mutex> lock(mutex_);
  const Directory::SubscriptionHandle handle = ++lastHandle_;
  subs_[handle] =
      std::make_shared<Subscription>(Subscription{handle, type, key, std::move(callback)});
  return handle;
}

void Subscriptions::Remove(Directory::SubscriptionHandle handle) {
  std::unique_lock<std::mutex> lock(mutex_);
  const auto it = subs_.find(handle);
  if (it == subs_.end()) return;
  it->second->active = false;
  subs_.erase(it);
  if (std::this_thread::get_id() == deliverer_.load()) return;
  callbackDone_.wait(lock, [&] { return running_ != handle; });
}

std::set<std::pair<uint32_t, std::string>> Subscriptions::Keys() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::set<std::pair<uint32_t, std::string>> keys;
  for (const auto& sub : subs_) keys.emplace(sub.second->type, sub.second->key);
  return keys;
}

void Subscriptions::Deliver(NOK_ReturnStatus status, const DirectoryEntry& entry) {
  Run(status, &entry, false);
}

void Subscriptions::DeliverLostTrack(NOK_ReturnStatus status) { Run(status, nullptr, true); }

void Subscriptions::Run(NOK_ReturnStatus status, const DirectoryEntry* entry, bool everyone) {
  deliverer_ = std::this_thread::get_id();
  std::vector<std::shared_ptr<Subscription>> targets;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& sub : subs_) {
      if (everyone || (sub.second->type == entry->type && sub.second->key == entry->key)) {
        targets.push_back(sub.second);
      }
    }
  }
  for (const auto& sub : targets) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (!sub->active) continue;
      running_ = sub->handle;
    }
    sub->callback(status, entry);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      running_ = 0;
    }
    callbackDone_.notify_all();
  }
}

}  // namespace platform
}  // namespace zel
