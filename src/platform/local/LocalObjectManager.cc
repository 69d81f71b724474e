#include "platform/local/LocalObjectManager.h"

#include "platform/HostServices.h"
#include "platform/Log.h"
#include "platform/local/StorageObjects.h"

namespace zel {
namespace platform {
namespace {

const char kTag[] = "ObjectManager";

class LocalObjectManager final : public ObjectManager {
 public:
  explicit LocalObjectManager(std::string hostUuid) : hostUuid_(std::move(hostUuid)) {}

  NOK_ReturnStatus TransferOwnership(const std::string& objectUuid, const std::string& fromHost,
                                     const std::string& toHost) override {
    if (fromHost != hostUuid_) {
      ZEL_LOG_WARNING("%s: Host %s cannot give away object %s for host %s\n", kTag,
                      hostUuid_.c_str(), objectUuid.c_str(), fromHost.c_str());
      return NOK_EXISTS;
    }
    NOK_ReturnStatus status = CheckDestination(toHost);
    if (status != NOK_OK) return status;
    // A refusal seen at once costs no write (which every subscriber would
    // be told about)...
    StorageObjectRecord current;
    std::string why;
    status = ReadStorageObject(objectUuid, &current, &why);
    bool owned = status == NOK_OK && current.ownerHost == fromHost;
    // ...but the decision is taken again inside the compare-and-set, on the
    // record as stored at the moment of the write: the read above could be
    // overtaken by another transfer of the same object.
    if (owned) {
      status = UpdateStorageObject(
          objectUuid,
          [&](StorageObjectRecord* record) {
            owned = record->ownerHost == fromHost;
            if (owned) record->ownerHost = toHost;
          },
          &why);
    }
    if (status == NOK_OK && !owned) status = NOK_EXISTS;
    if (status != NOK_OK) {
      ZEL_LOG_WARNING("%s: Object %s stays where it is, not moved from %s to %s: %s\n", kTag,
                      objectUuid.c_str(), fromHost.c_str(), toHost.c_str(),
                      status == NOK_EXISTS ? "not its owner" : why.c_str());
    }
    return status;
  }

 private:
  // The destination must be able to serve the object: a host outside the
  // cluster would leave the target without a server.
  NOK_ReturnStatus CheckDestination(const std::string& toHost) const {
    ClusterInfo cluster;
    NOK_ReturnStatus status = OrvaInfoImpl::GetClusterInfo(&cluster);
    if (status != NOK_OK) return status;
    if (toHost != hostUuid_) {
      for (const ClusterMember& member : cluster.members) {
        if (member.hostUuid == toHost) return NOK_OK;
      }
    }
    ZEL_LOG_WARNING("%s: Cannot move an object to %s: not another member of the cluster\n", kTag,
                    toHost.c_str());
    return NOK_BAD_PARAM;
  }

  const std::string hostUuid_;
};

}  // namespace

std::unique_ptr<ObjectManager> NewLocalObjectManager(const std::string& hostUuid) {
  return std::make_unique<LocalObjectManager>(hostUuid);
}

}  // namespace platform
}  // namespace zel
