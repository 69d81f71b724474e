#include "platform/Events.h"

namespace zel {
namespace platform {

namespace {
template <typename Handler>
void Set(std::mutex& mutex, Handler& slot, Handler handler) {
  std::lock_guard<std::mutex> guard(mutex);
  slot = std::move(handler);
}

// Copied out under the lock and run outside it, so a handler may
// re-register or take as long as it needs.
template <typename Handler>
Handler Get(std::mutex& mutex, const Handler& slot) {
  std::lock_guard<std::mutex> guard(mutex);
  return slot;
}
}  // namespace

void EventRegistry::SetNokNicChangeCallback(Handler handler) { Set(mutex_, nicChange_, handler); }
void EventRegistry::SetClusterLeaveCallback(Handler handler) {
  Set(mutex_, clusterLeave_, handler);
}
void EventRegistry::SetOrvaSystemRefreshCallback(Handler handler) {
  Set(mutex_, systemRefresh_, handler);
}
void EventRegistry::SetOrvaHostEnterMaintenanceModeCallback(MaintenanceHandler handler) {
  Set(mutex_, maintenance_, handler);
}

void EventRegistry::FireNokNicChange() {
  if (Handler handler = Get(mutex_, nicChange_)) handler();
}
void EventRegistry::FireClusterLeave() {
  if (Handler handler = Get(mutex_, clusterLeave_)) handler();
}
void EventRegistry::FireOrvaSystemRefresh() {
  if (Handler handler = Get(mutex_, systemRefresh_)) handler();
}
void EventRegistry::FireHostEnterMaintenanceMode(unsigned nodeCount) {
  if (MaintenanceHandler handler = Get(mutex_, maintenance_)) handler(nodeCount);
}

EventRegistry& Events() {
  static auto* registry = new EventRegistry();  // outlives every handler's caller
  return *registry;
}

}  // namespace platform
}  // namespace zel
