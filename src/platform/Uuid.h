// Random identities under the names the service's call sites use.
#pragma once

#include <cstdint>
#include <string>

// A random 128-bit UUID in the host's text form: sixteen lower-case hex
// pairs separated by blanks, with a dash instead of the blank after the
// eighth ("a1 b2 ... 08-09 ... 10"). Empty when no randomness is available.
std::string UUID_CreateRandom();

// Reads that text form into 16 bytes; false when `text` is not one.
bool UUID_ConvertToBin(const std::string& text, uint8_t (&bytes)[16]);
