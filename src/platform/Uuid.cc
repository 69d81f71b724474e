#include "platform/Uuid.h"

#include <cstdio>
#include <exception>

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid.hpp>

std::string UUID_CreateRandom() {
  boost::uuids::uuid uuid;
  try {
    uuid = boost::uuids::random_generator()();
  } catch (const std::exception&) {
    // The generator throws when the system's entropy source cannot be read.
    return std::string();
  }
  std::string text;
  char pair[3];
  for (size_t i = 0; i < uuid.size(); ++i) {
    if (i > 0) text += i == 8 ? '-' : ' ';
    std::snprintf(pair, sizeof pair, "%02x", uuid.data[i]);
    text += pair;
  }
  return text;
}

bool UUID_ConvertToBin(const std::string& text, uint8_t (&bytes)[16]) {
  constexpr size_t kLength = 16 * 3 - 1;
  if (text.size() != kLength) return false;
  for (size_t i = 0; i < 16; ++i) {
    const size_t at = i * 3;
    if (i > 0 && text[at - 1] != (i == 8 ? '-' : ' ')) return false;
    unsigned value = 0;
    for (size_t digit = at; digit < at + 2; ++digit) {
      const char c = text[digit];
      unsigned nibble;
      if (c >= '0' && c <= '9') {
        nibble = c - '0';
      } else if (c >= 'a' && c <= 'f') {
        nibble = c - 'a' + 10;
      } else if (c >= 'A' && c <= 'F') {
        nibble = c - 'A' + 10;
      } else {
        return false;
      }
      value = value * 16 + nibble;
    }
    bytes[i] = static_cast<uint8_t>(value);
  }
  return true;
}
