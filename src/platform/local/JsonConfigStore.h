// The host configuration store of a local host: one JSON file,
//   {"orvaIscsiServiceEnabled": true,
//    "orvaIscsiDefaultConfig": {"networkInterface": ..., "port": 3260,
//                               "authType": ..., "userid": ..., "secret": ...,
//                               "mutualUserid": ..., "mutualSecret": ...}}
// owner-only (mode 0600) because the defaults carry CHAP secrets, which are
// never logged or quoted in a message.
//
// Reads take no lock: the file is only ever replaced whole. Every write
// reads, changes its own member and replaces the file under an exclusive
// lock on "<path>.lock", so writers in other threads and processes never
// lose each other's members. Members this code does not know are kept.
#pragma once

#include <functional>
#include <string>

#include <nlohmann/json.hpp>

#include "platform/ConfigStore.h"

namespace zel {
namespace platform {

class JsonConfigStore final : public ConfigStore {
 public:
  // A missing file is an empty store; it is created by the first write. The
  // directory of `path` must exist.
  explicit JsonConfigStore(std::string path);

  bool GetOrvaIscsiServiceEnabled(bool* enabled) override;
  void SetOrvaIscsiServiceEnabled(bool enabled) override;
  bool GetOrvaIscsiDefaultConfig(HostCtl::Orva::IscsiTarget::DefaultInfo* info) override;
  void SetOrvaIscsiDefaultConfig(const HostCtl::Orva::IscsiTarget::DefaultInfo& info) override;

 private:
  // The stored document, checked member by member; an empty object when
  // there is no file.
  nlohmann::json Load() const;
  void Update(const std::function<void(nlohmann::json*)>& change);

  const std::string path_;
};

}  // namespace platform
}  // namespace zel
