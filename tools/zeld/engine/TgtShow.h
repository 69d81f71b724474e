// The engine's own view of what it serves, read back from tgtd's show texts
// so that a reconciler can compare it with what should be served.
//
// `target show` (every target) is indented by four spaces per level:
//   Target T: IQN
//       System information:        Driver, State: ready|offline
//       I_T nexus information:     sessions (skipped)
//       LUN information:           "LUN: L", then its fields one level down
//       Account information:       "USER" incoming, "USER (outgoing)"
//       ACL information:           initiator names and addresses, "ALL"
// `target show --tid T` is "key=value" lines; RedirectAddress, RedirectPort
// and RedirectReason are among them only while a redirection is set.
// Passwords are never in either text.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "zeld/engine/TgtControl.h"

namespace zeltools {
namespace engine {

struct TgtLunView {
  uint64_t lun = 0;
  std::string type;          // "controller" for LUN 0, "disk" for a file
  std::string backingStore;  // empty when none
  bool online = true;
  std::string scsiId;
  std::string scsiSerial;
};

struct TgtRedirectView {
  std::string address;  // empty: no redirection
  std::string port;
  std::string reason;
};

struct TgtTargetView {
  int tid = 0;
  std::string name;
  std::string state;             // "ready" or "offline"
  std::vector<TgtLunView> luns;  // in the engine's order, LUN 0 included
  std::vector<std::string> incomingUsers;
  std::string outgoingUser;      // empty when none
  std::vector<std::string> acl;  // as bound: names, addresses, "ALL"
  TgtRedirectView redirect;      // filled by ParseTargetParameters

  const TgtLunView* FindLun(uint64_t lun) const;
};

// Throws OrvaCtlException on a text that is not a target show.
std::vector<TgtTargetView> ParseTargetShow(const std::string& text);

// Sets `target->redirect` from the text of `target show --tid T`.
void ParseTargetParameters(const std::string& text, TgtTargetView* target);

// Everything the engine serves, redirections included (one request for the
// list, one per target for its parameters). On a failed request, returns it
// with `targets` unspecified; throws OrvaCtlException on a text it cannot read.
TgtResult ReadServedTargets(const TgtControl& control, std::vector<TgtTargetView>* targets);

}  // namespace engine
}  // namespace zeltools
