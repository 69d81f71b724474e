// Auth groups and their CHAP credentials.
#include <sodium.h>
#include <stdlib.h>
#include <string.h>

#include "conf/conf.h"
#include "conf/conf_alloc.h"

namespace {

// Secrets are stored Base64-encoded in the file; decoded they must fit this
// buffer with their terminator.
constexpr size_t kSecretBufferSize = 32;
constexpr size_t kSecretMaxLength = 16;
constexpr size_t kSecretMinLength = 12;

char *auth_secret_decode(const char *text) {
  unsigned char buf[kSecretBufferSize];
  size_t len = 0;
  if (sodium_base642bin(buf, sizeof(buf) - 1, text, strlen(text), NULL, &len, NULL,
                        sodium_base64_VARIANT_ORIGINAL) != 0) {
    sodium_memzero(buf, sizeof(buf));
    log_err(1, "Base64_Decode");
  }
  buf[len] = '\0';
  char *secret = checked_strdup(reinterpret_cast<const char *>(buf));
  sodium_memzero(buf, sizeof(buf));
  return secret;
}

char *auth_secret_copy(const char *secret, bool decode) {
  return decode ? auth_secret_decode(secret) : checked_strdup(secret);
}

// `what` is "secret" or "mutual secret". The target variant of the "too
// short" text names 16 although the threshold is 12: administrators' log
// filters match these texts, so they stay as they have always been.
void auth_check_one_secret(const struct auth_group *ag, const char *what, const char *user,
                           const char *secret) {
  size_t len = strlen(secret);
  if (len > kSecretMaxLength) {
    if (ag->ag_name != NULL)
      log_warnx("%s for user \"%s\", auth-group \"%s\", is too long; "
                "it should be at most 16 characters long",
                what, user, ag->ag_name);
    else
      log_warnx("%s for user \"%s\", target \"%s\", is too long; "
                "it should be at most 16 characters long",
                what, user, ag->ag_target->t_name);
  } else if (len < kSecretMinLength) {
    if (ag->ag_name != NULL)
      log_warnx("%s for user \"%s\", auth-group \"%s\", is too short; "
                "it should be at least 12 characters long",
                what, user, ag->ag_name);
    else
      log_warnx("%s for user \"%s\", target \"%s\", is too short; "
                "it should be at least 16 characters long",
                what, user, ag->ag_target->t_name);
  }
}

// Only warns: a credential the initiator side already uses keeps working.
void auth_check_secret_length(const struct auth *auth) {
  auth_check_one_secret(auth->a_auth_group, "secret", auth->a_user, auth->a_secret);
  if (auth->a_mutual_secret != NULL)
    auth_check_one_secret(auth->a_auth_group, "mutual secret", auth->a_user,
                          auth->a_mutual_secret);
}

struct auth *auth_new(struct auth_group *ag) {
  struct auth *auth = checked_calloc<struct auth>();
  auth->a_auth_group = ag;
  TAILQ_INSERT_TAIL(&ag->ag_auths, auth, a_next);
  return auth;
}

void auth_group_type_conflict(const struct auth_group *ag, const char *type) {
  if (ag->ag_name != NULL)
    log_warnx("cannot set auth-type to \"%s\" for auth-group \"%s\"; "
              "already has a different type",
              type, ag->ag_name);
  else
    log_warnx("cannot set auth-type to \"%s\" for target \"%s\"; "
              "already has a different type",
              type, ag->ag_target->t_name);
}

}  // namespace

struct auth_group *auth_group_new(struct conf *conf, const char *name) {
  if (name != NULL && auth_group_find(conf, name) != NULL) {
    log_warnx("duplicated auth-group \"%s\"", name);
    return NULL;
  }
  struct auth_group *ag = checked_calloc<struct auth_group>();
  if (name != NULL)
    ag->ag_name = checked_strdup(name);
  ag->ag_conf = conf;
  TAILQ_INIT(&ag->ag_auths);
  TAILQ_INIT(&ag->ag_names);
  TAILQ_INIT(&ag->ag_portals);
  TAILQ_INIT(&ag->ag_igroup_refs);
  TAILQ_INSERT_TAIL(&conf->conf_auth_groups, ag, ag_next);
  return ag;
}

struct auth_group *auth_group_find(const struct conf *conf, const char *name) {
  struct auth_group *ag;
  TAILQ_FOREACH(ag, &conf->conf_auth_groups, ag_next) {
    if (ag->ag_name != NULL && strcmp(ag->ag_name, name) == 0)
      return ag;
  }
  return NULL;
}

void auth_group_delete(struct auth_group *ag) {
  TAILQ_REMOVE(&ag->ag_conf->conf_auth_groups, ag, ag_next);
  struct auth *auth;
  while ((auth = TAILQ_FIRST(&ag->ag_auths)) != NULL)
    auth_delete(auth);
  struct auth_name *an;
  while ((an = TAILQ_FIRST(&ag->ag_names)) != NULL)
    auth_name_delete(an);
  struct auth_portal *ap;
  while ((ap = TAILQ_FIRST(&ag->ag_portals)) != NULL) {
    TAILQ_REMOVE(&ag->ag_portals, ap, ap_next);
    free(ap->ap_initator_portal);
    free(ap);
  }
  struct igroup_ref *ref;
  while ((ref = TAILQ_FIRST(&ag->ag_igroup_refs)) != NULL)
    auth_group_igroup_ref_remove(ag, ref);
  free(ag->ag_name);
  free(ag);
}

// "deny" may be repeated but combines with nothing else; every other type
// may be set on a fresh group or repeated.
int auth_group_set_type(struct auth_group *ag, const char *str) {
  int type;
  if (strcmp(str, "deny") == 0) {
    type = AG_TYPE_DENY;
  } else if (strcmp(str, "none") == 0) {
    type = AG_TYPE_NO_AUTHENTICATION;
  } else if (strcmp(str, "chap") == 0) {
    type = AG_TYPE_CHAP;
  } else if (strcmp(str, "chap-mutual") == 0) {
    type = AG_TYPE_CHAP_MUTUAL;
  } else {
    if (ag->ag_name != NULL)
      log_warnx("invalid auth-type \"%s\" for auth-group \"%s\"", str, ag->ag_name);
    else
      log_warnx("invalid auth-type \"%s\" for target \"%s\"", str, ag->ag_target->t_name);
    return 1;
  }
  if (ag->ag_type != AG_TYPE_UNKNOWN && ag->ag_type != type) {
    auth_group_type_conflict(ag, str);
    return 1;
  }
  ag->ag_type = type;
  return 0;
}

const struct auth *auth_new_chap(struct auth_group *ag, const char *user, const char *secret,
                                 bool decode) {
  ag->ag_type = AG_TYPE_CHAP;
  struct auth *auth = auth_new(ag);
  auth->a_user = checked_strdup(user);
  auth->a_secret = auth_secret_copy(secret, decode);
  auth_check_secret_length(auth);
  return auth;
}

const struct auth *auth_new_chap_mutual(struct auth_group *ag, const char *user,
                                        const char *secret, const char *user2,
                                        const char *secret2, bool decode) {
  ag->ag_type = AG_TYPE_CHAP_MUTUAL;
  struct auth *auth = auth_new(ag);
  auth->a_user = checked_strdup(user);
  auth->a_secret = auth_secret_copy(secret, decode);
  auth->a_mutual_user = checked_strdup(user2);
  auth->a_mutual_secret = auth_secret_copy(secret2, decode);
  auth_check_secret_length(auth);
  return auth;
}

const struct auth *auth_find(const struct auth_group *ag, const char *user) {
  const struct auth *auth;
  TAILQ_FOREACH(auth, &ag->ag_auths, a_next) {
    if (strcmp(auth->a_user, user) == 0)
      return auth;
  }
  return NULL;
}

void auth_delete(struct auth *auth) {
  TAILQ_REMOVE(&auth->a_auth_group->ag_auths, auth, a_next);
  free(auth->a_user);
  free(auth->a_secret);
  free(auth->a_mutual_user);
  free(auth->a_mutual_secret);
  free(auth);
}
