// Numbers with an optional binary unit suffix ("4k", "2G", "512b").
#include <ctype.h>
#include <errno.h>
#include <inttypes.h>
#include <stdlib.h>

#include "conf/conf.h"

// A text without digits, or a negative one, is a conversion error
// (EINVAL): strtoumax would otherwise return 0 or wrap it around.
// Characters after the first one following the digits are not examined.
int expand_number(const char *buf, uint64_t *num) {
  int saved_errno = errno;
  const char *p = buf;
  while (isspace(static_cast<unsigned char>(*p)))
    p++;
  if (*p == '-') {
    errno = EINVAL;
    return -1;
  }

  char *end;
  errno = 0;
  uintmax_t number = strtoumax(buf, &end, 0);
  if (errno != 0)
    return -1;
  if (end == buf) {
    errno = EINVAL;
    return -1;
  }

  unsigned shift;
  switch (tolower(static_cast<unsigned char>(*end))) {
    case '\0':
    case 'b':
      shift = 0;
      break;
    case 'k':
      shift = 10;
      break;
    case 'm':
      shift = 20;
      break;
    case 'g':
      shift = 30;
      break;
    case 't':
      shift = 40;
      break;
    case 'p':
      shift = 50;
      break;
    case 'e':
      shift = 60;
      break;
    default:
      errno = EINVAL;
      return -1;
  }

  uint64_t value = static_cast<uint64_t>(number);
  if (((value << shift) >> shift) != value) {
    errno = ERANGE;
    return -1;
  }
  *num = value << shift;
  errno = saved_errno;
  return 0;
}
