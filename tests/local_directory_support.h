// Directory helpers shared by the tests of the local backends: a directory
// that cannot be reached, and a publication that waits for its completion.
#pragma once

#include <future>
#include <string>
#include <vector>

#include "platform/Directory.h"

namespace zel {
namespace test {

// Every call fails with `status`, as a directory whose connection is gone.
class UnreachableDirectory final : public platform::Directory {
 public:
  explicit UnreachableDirectory(NOK_ReturnStatus status) : status_(status) {}

  NOK_ReturnStatus Query(uint32_t, const std::string&,
                         std::vector<platform::DirectoryEntry>* entries) override {
    entries->clear();
    return status_;
  }
  NOK_ReturnStatus QueryByHost(uint32_t, const std::string&,
                               std::vector<platform::DirectoryEntry>* entries) override {
    entries->clear();
    return status_;
  }
  void AsyncUpdate(const platform::DirectoryEntry&, UpdatePredicate, Completion done) override {
    if (done) done(status_, nullptr);
  }
  NOK_ReturnStatus Delete(uint32_t, const std::string&, const std::string&) override {
    return status_;
  }
  SubscriptionHandle Subscribe(uint32_t, const std::string&, Callback) override { return 1; }
  void Unsubscribe(SubscriptionHandle) override {}

 private:
  const NOK_ReturnStatus status_;
};

// Writes `entry` unconditionally and returns the completion's status.
inline NOK_ReturnStatus PublishAndWait(platform::Directory& directory,
                                       const platform::DirectoryEntry& entry) {
  std::promise<NOK_ReturnStatus> completed;
  std::future<NOK_ReturnStatus> result = completed.get_future();
  directory.AsyncUpdate(entry, nullptr,
                        [&completed](NOK_ReturnStatus status, const platform::DirectoryEntry*) {
                          completed.set_value(status);
                        });
  return result.get();
}

}  // namespace test
}  // namespace zel
