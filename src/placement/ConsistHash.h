// The consistent-hash ring over hosts that spreads the targets a host gives
// away over the under-loaded hosts in proportion to their deficit. Every
// host builds the same ring from the same weights and so sends a given
// target to the same place, without asking any other host.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

// The 64-bit hash of `text`'s bytes with initial value 42, bit for bit the
// long-published 64-bit lookup hash of Bob Jenkins: hosts of different
// builds and byte orders must place the same virtual nodes.
uint64_t GetHashKey(const std::string& text);

// Not thread-safe; one ring lives for one balancing pass.
class ConsistHash {
 public:
  // Every host of `weights` gets 10 virtual nodes per unit of weight,
  // keyed "<host>-<i>"; a weight of 0 or less gives none. Where two virtual
  // nodes hash alike the host first in key order keeps the slot.
  explicit ConsistHash(const std::map<std::string, int>& weights);

  // The host of the first virtual node at or after GetHashKey(name),
  // wrapping to the smallest; "" when the ring is empty.
  std::string FindHashNode(const std::string& name) const;

  // Takes every virtual node that `host`'s keys hash to off the ring, even
  // a slot another host won at construction (the ring shrinks a little
  // more than needed, the same way on every host). Unknown hosts are
  // ignored.
  void RemoveHashNode(const std::string& host);

  bool Empty() const { return ring_.empty(); }

 private:
  static constexpr int kVirtualNodesPerWeight = 10;

  std::map<std::string, int> nodes_;
  std::map<uint64_t, std::string> ring_;
};

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
