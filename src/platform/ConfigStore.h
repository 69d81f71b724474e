// The host configuration store: this host's service-enabled flag and its
// copy of the cluster-wide defaults. Every failure to read or write the
// store throws OrvaCtlException with a readable message; nothing is half
// written.
#pragma once

#include "zel/DefaultInfo.h"

namespace zel {
namespace platform {

class ConfigStore {
 public:
  virtual ~ConfigStore() = default;

  // False when the store holds no enabled flag (a host never enabled).
  virtual bool GetOrvaIscsiServiceEnabled(bool* enabled) = 0;
  virtual void SetOrvaIscsiServiceEnabled(bool enabled) = 0;

  // False when the store holds no defaults yet.
  virtual bool GetOrvaIscsiDefaultConfig(HostCtl::Orva::IscsiTarget::DefaultInfo* info) = 0;
  virtual void SetOrvaIscsiDefaultConfig(const HostCtl::Orva::IscsiTarget::DefaultInfo& info) = 0;
};

}  // namespace platform
}  // namespace zel
