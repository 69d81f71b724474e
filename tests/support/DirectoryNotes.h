// Records the callbacks of directory subscriptions, for tests that wait for
// a notification. Declare it before the directory, which it must outlive.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "platform/Directory.h"

namespace zel::test {

// Only a broken directory ever makes a test wait this long.
constexpr auto kDirectoryPatience = std::chrono::seconds(20);

struct Note {
  NOK_ReturnStatus status;
  platform::DirectoryEntry entry;
};

class Notifications {
 public:
  platform::Directory::Callback Sink() {
    return [this](NOK_ReturnStatus status, const platform::DirectoryEntry* entry) {
      std::lock_guard<std::mutex> lock(mutex_);
      notes_.push_back({status, entry ? *entry : platform::DirectoryEntry()});
      arrived_.notify_all();
    };
  }

  bool WaitFor(const std::function<bool(const Note&)>& match) {
    std::unique_lock<std::mutex> lock(mutex_);
    return arrived_.wait_for(
        lock, kDirectoryPatience, [&] { return std::any_of(notes_.begin(), notes_.end(), match); });
  }

  bool WaitFor(NOK_ReturnStatus status, const std::string& payload) {
    return WaitFor([&](const Note& n) { return n.status == status && n.entry.payload == payload; });
  }

  std::vector<Note> Notes() {
    std::lock_guard<std::mutex> lock(mutex_);
    return notes_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<Note> notes_;
};

}  // namespace zel::test
