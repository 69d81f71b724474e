// The initiator names and addresses an auth group admits.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "conf/conf.h"
#include "conf/conf_alloc.h"

const struct auth_name *auth_name_new(struct auth_group *ag, const char *initiator_name) {
  struct auth_name *an = checked_calloc<struct auth_name>();
  an->an_auth_group = ag;
  an->an_initator_name = checked_strdup(initiator_name);
  TAILQ_INSERT_TAIL(&ag->ag_names, an, an_next);
  return an;
}

// iSCSI names are case-insensitive.
const struct auth_name *auth_name_find(const struct auth_group *ag, const char *initiator_name) {
  const struct auth_name *an;
  TAILQ_FOREACH(an, &ag->ag_names, an_next) {
    if (strcasecmp(an->an_initator_name, initiator_name) == 0)
      return an;
  }
  return NULL;
}

void auth_name_delete(struct auth_name *an) {
  TAILQ_REMOVE(&an->an_auth_group->ag_names, an, an_next);
  free(an->an_initator_name);
  free(an);
}

bool auth_name_defined(const struct auth_group *ag) {
  return !TAILQ_EMPTY(&ag->ag_names);
}

int auth_name_check(const struct auth_group *ag, const char *initiator_name) {
  if (!auth_name_defined(ag))
    return 0;
  return auth_name_find(ag, initiator_name) == NULL ? 1 : 0;
}

namespace {

// Parses "addr", "addr/prefix", "[v6]" or "[v6]/prefix" into `ap`.
bool auth_portal_parse(struct auth_portal *ap, const char *text) {
  char *copy = checked_strdup(text);
  char *prefix = strchr(copy, '/');
  if (prefix != NULL)
    *prefix++ = '\0';
  char *addr = copy[0] == '[' ? copy + 1 : copy;
  size_t len = strlen(addr);
  bool ok = len > 0;
  if (ok && addr[len - 1] == ']')
    addr[len - 1] = '\0';

  int max_mask = 0;
  if (ok) {
    if (strchr(addr, ':') != NULL) {
      struct sockaddr_in6 *sin6 = reinterpret_cast<struct sockaddr_in6 *>(&ap->ap_sa);
      sin6->sin6_family = AF_INET6;
      ok = inet_pton(AF_INET6, addr, &sin6->sin6_addr) == 1;
      ap->ap_family = AF_INET6;
      max_mask = 128;
    } else {
      struct sockaddr_in *sin = reinterpret_cast<struct sockaddr_in *>(&ap->ap_sa);
      sin->sin_family = AF_INET;
      ok = inet_pton(AF_INET, addr, &sin->sin_addr) == 1;
      ap->ap_family = AF_INET;
      max_mask = 32;
    }
  }

  ap->ap_mask = max_mask;
  if (ok && prefix != NULL) {
    // Base 0 admits the decimal, hexadecimal and octal forms the daemon
    // has always taken; an empty prefix is refused like any other garbage.
    char *end;
    long mask = strtol(prefix, &end, 0);
    ok = end != prefix && *end == '\0' && mask >= 0 && mask <= max_mask;
    ap->ap_mask = static_cast<int>(mask);
  }
  free(copy);
  return ok;
}

const unsigned char *auth_portal_bytes(const struct sockaddr_storage *sa) {
  if (sa->ss_family == AF_INET6)
    return reinterpret_cast<const struct sockaddr_in6 *>(sa)->sin6_addr.s6_addr;
  return reinterpret_cast<const unsigned char *>(
      &reinterpret_cast<const struct sockaddr_in *>(sa)->sin_addr.s_addr);
}

bool auth_portal_matches(const struct auth_portal *ap, const struct sockaddr_storage *sa) {
  if (ap->ap_family != sa->ss_family)
    return false;
  const unsigned char *want = auth_portal_bytes(&ap->ap_sa);
  const unsigned char *have = auth_portal_bytes(sa);
  int whole = ap->ap_mask / 8;
  if (memcmp(want, have, whole) != 0)
    return false;
  int bits = ap->ap_mask % 8;
  if (bits == 0)
    return true;
  unsigned char mask = static_cast<unsigned char>(0xFF << (8 - bits));
  return (want[whole] & mask) == (have[whole] & mask);
}

}  // namespace

// A malformed portal is a broken file, not a rule breach: it throws. The
// portal is linked before anything that can throw, so an allocation
// failure leaves it to the group's deletion.
const struct auth_portal *auth_portal_new(struct auth_group *ag, const char *initiator_portal) {
  struct auth_portal *ap = checked_calloc<struct auth_portal>();
  ap->ap_auth_group = ag;
  TAILQ_INSERT_TAIL(&ag->ag_portals, ap, ap_next);
  ap->ap_initator_portal = checked_strdup(initiator_portal);
  if (!auth_portal_parse(ap, initiator_portal)) {
    TAILQ_REMOVE(&ag->ag_portals, ap, ap_next);
    free(ap->ap_initator_portal);
    free(ap);
    log_errx(1, "Incorrect initiator portal '%s'", initiator_portal);
  }
  return ap;
}

const struct auth_portal *auth_portal_find(const struct auth_group *ag,
                                           const struct sockaddr_storage *sa) {
  const struct auth_portal *ap;
  TAILQ_FOREACH(ap, &ag->ag_portals, ap_next) {
    if (auth_portal_matches(ap, sa))
      return ap;
  }
  return NULL;
}

bool auth_portal_defined(const struct auth_group *ag) {
  return !TAILQ_EMPTY(&ag->ag_portals);
}

int auth_portal_check(const struct auth_group *ag, const struct sockaddr_storage *sa) {
  if (!auth_portal_defined(ag))
    return 0;
  return auth_portal_find(ag, sa) == NULL ? 1 : 0;
}
