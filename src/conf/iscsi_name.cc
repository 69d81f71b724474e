// The iSCSI name check. It is lenient on purpose: a configuration that the
// daemon once accepted must keep loading, so only an overlong name is
// refused; every other breach is a warning.
#include <ctype.h>
#include <string.h>
#include <strings.h>

#include "conf/conf.h"

namespace {

constexpr size_t kMaxNameLength = 223;  // including the terminator
constexpr size_t kEuiLength = 20;       // "eui." and 16 hex digits
constexpr size_t kNaaMaxLength = 36;    // "naa." and up to 32 hex digits

void check_iqn_characters(const char *name) {
  for (const char *p = name + 4; *p != '\0'; p++) {
    unsigned char c = static_cast<unsigned char>(*p);
    if (isalnum(c) || c == '-' || c == '.' || c == ':')
      continue;
    log_warnx("invalid character \"%c\" in target name \"%s\"; allowed characters are "
              "letters, digits, '-', '.', and ':'",
              *p, name);
    return;
  }
}

void check_hex_characters(const char *name) {
  for (const char *p = name + 4; *p != '\0'; p++) {
    if (isxdigit(static_cast<unsigned char>(*p)))
      continue;
    log_warnx("invalid character \"%c\" in target name \"%s\"; allowed characters are "
              "1-9 and A-F",
              *p, name);
    return;
  }
}

}  // namespace

bool valid_iscsi_name(const char *name) {
  size_t len = strlen(name);
  if (len > kMaxNameLength - 1) {
    log_warnx("overlong name for target \"%s\"; max length allowed by iSCSI specification "
              "is %d characters",
              name, static_cast<int>(kMaxNameLength));
    return false;
  }

  if (strncasecmp(name, "iqn.", 4) == 0) {
    check_iqn_characters(name);
  } else if (strncasecmp(name, "eui.", 4) == 0) {
    if (len != kEuiLength)
      log_warnx("invalid target name \"%s\"; the \"eui.\" should be followed by exactly 16 "
                "hexadecimal digits",
                name);
    check_hex_characters(name);
  } else if (strncasecmp(name, "naa.", 4) == 0) {
    if (len > kNaaMaxLength)
      log_warnx("invalid target name \"%s\"; the \"naa.\" should be followed by at most 32 "
                "hexadecimal digits",
                name);
    check_hex_characters(name);
  } else {
    log_warnx("invalid target name \"%s\"; should start with either \"iqn.\", \"eui.\", or "
              "\"naa.\"",
              name);
  }
  return true;
}
