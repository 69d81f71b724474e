#include "placement/ConsistHash.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {
namespace {

constexpr uint64_t kLevel = 42;
constexpr uint64_t kGoldenRatio = 0x9e3779b97f4a7c13ULL;

// clang-format off
void Mix(uint64_t& a, uint64_t& b, uint64_t& c) {
  a -= b; a -= c; a ^= (c >> 43);
  b -= c; b -= a; b ^= (a << 9);
  c -= a; c -= b; c ^= (b >> 8);
  a -= b; a -= c; a ^= (c >> 38);
  b -= c; b -= a; b ^= (a << 23);
  c -= a; c -= b; c ^= (b >> 5);
  a -= b; a -= c; a ^= (c >> 35);
  b -= c; b -= a; b ^= (a << 49);
  c -= a; c -= b; c ^= (b >> 11);
  a -= b; a -= c; a ^= (c >> 12);
  b -= c; b -= a; b ^= (a << 18);
  c -= a; c -= b; c ^= (b >> 22);
}
// clang-format on

// `count` bytes from `bytes` as a little-endian word, whatever the host's
// byte order; byte i lands at bit 8 * (i + shift).
uint64_t LittleEndian(const unsigned char* bytes, size_t count, int shift = 0) {
  uint64_t word = 0;
  for (size_t i = 0; i < count; ++i) word += static_cast<uint64_t>(bytes[i]) << (8 * (i + shift));
  return word;
}

std::string VirtualNode(const std::string& host, int i) { return host + "-" + std::to_string(i); }

}  // namespace

uint64_t GetHashKey(const std::string& text) {
  const auto* k = reinterpret_cast<const unsigned char*>(text.data());
  size_t left = text.size();
  uint64_t a = kLevel;
  uint64_t b = kLevel;
  uint64_t c = kGoldenRatio;
  for (; left >= 24; left -= 24, k += 24) {
    a += LittleEndian(k, 8);
    b += LittleEndian(k + 8, 8);
    c += LittleEndian(k + 16, 8);
    Mix(a, b, c);
  }
  c += text.size();
  // The tail: up to 8 bytes into a, 8 into b, and 7 into c above its low
  // byte, which the length took.
  a += LittleEndian(k, left < 8 ? left : 8);
  if (left > 8) b += LittleEndian(k + 8, left < 16 ? left - 8 : 8);
  if (left > 16) c += LittleEndian(k + 16, left - 16, 1);
  Mix(a, b, c);
  return c;
}

ConsistHash::ConsistHash(const std::map<std::string, int>& weights) : nodes_(weights) {
  for (const auto& [host, weight] : nodes_) {
    for (int i = 0; i < weight * kVirtualNodesPerWeight; ++i) {
      ring_.emplace(GetHashKey(VirtualNode(host, i)), host);
    }
  }
}

std::string ConsistHash::FindHashNode(const std::string& name) const {
  if (ring_.empty()) return "";
  auto found = ring_.lower_bound(GetHashKey(name));
  if (found == ring_.end()) found = ring_.begin();
  return found->second;
}

void ConsistHash::RemoveHashNode(const std::string& host) {
  auto node = nodes_.find(host);
  if (node == nodes_.end()) return;
  for (int i = 0; i < node->second * kVirtualNodesPerWeight; ++i) {
    ring_.erase(GetHashKey(VirtualNode(host, i)));
  }
  nodes_.erase(node);
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
