// The cluster events the platform delivers to the service (registration
// through OrvaUtil::Set*Callback at the call sites). The host agent fires
// them; the library registers its handlers when it is loaded.
#pragma once

#include <functional>
#include <mutex>

namespace zel {
namespace platform {

class EventRegistry {
 public:
  using Handler = std::function<void()>;
  using MaintenanceHandler = std::function<void(unsigned nodeCount)>;

  // An empty handler clears the registration. Thread-safe.
  void SetNokNicChangeCallback(Handler handler);
  void SetClusterLeaveCallback(Handler handler);
  void SetOrvaSystemRefreshCallback(Handler handler);
  void SetOrvaHostEnterMaintenanceModeCallback(MaintenanceHandler handler);

  // Run the registered handler on the calling thread (nothing when none).
  void FireNokNicChange();
  void FireClusterLeave();
  void FireOrvaSystemRefresh();
  void FireHostEnterMaintenanceMode(unsigned nodeCount);

 private:
  std::mutex mutex_;
  Handler nicChange_;
  Handler clusterLeave_;
  Handler systemRefresh_;
  MaintenanceHandler maintenance_;
};

// The process's registry; exists for the process's whole life.
EventRegistry& Events();

}  // namespace platform
}  // namespace zel
