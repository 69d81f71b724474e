// What this host's engine should hold: read from zel.conf (under its shared
// lock) and the cluster directory. A target whose owner is this host is
// served here: its LUNs, its CHAP accounts, its initiator ACL, at the
// address of its interface on this host. A target owned elsewhere is
// answered here with a login redirection to the owner's address for the
// same interface, so an initiator may log in through any host.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/EngineLun.h"

namespace zeltools {

struct ServedLun {
  uint32_t engineLun = 0;
  std::string disk;          // the descriptor, held open under its lock while served
  std::string backingStore;  // its extent
  uint64_t sectors = 0;
  bool online = true;
  std::string serial;  // SCSI serial number: the LUN's identity
  std::string scsiId;  // the NAA identifier when it has one, else its identity

  bool operator==(const ServedLun& other) const;
};

struct ChapAccount {
  std::string user;
  std::string secret;  // in the clear; never logged
  bool operator==(const ChapAccount& other) const {
    return user == other.user && secret == other.secret;
  }
};

struct DesiredTarget {
  std::string iqn;
  std::string alias;
  std::string ownerObject;  // the storage object whose owner serves the target
  std::string portal;    // "address:port" this host answers the target on
  std::string redirect;  // the owner's "address:port"; empty when served here
  std::vector<ServedLun> luns;
  std::optional<ChapAccount> chap;        // the initiator's credentials
  std::optional<ChapAccount> mutualChap;  // the target's own, for mutual CHAP
  std::vector<std::string> initiators;    // admitted initiator names
  bool admitAll = false;                  // no names and no groups: every initiator

  bool Served() const { return redirect.empty(); }
};

struct DesiredState {
  uint64_t generation = 0;
  std::vector<DesiredTarget> targets;
  // Targets left out, each with why (an interface without an address, an
  // owner that cannot be told, a disk that cannot be read).
  std::vector<std::string> skipped;
};

// Reads the desired state for host `hostUuid`. A missing zel.conf is an
// empty state; a file that cannot be read throws OrvaCtlException.
DesiredState ReadDesiredState(const std::string& hostUuid);

}  // namespace zeltools
