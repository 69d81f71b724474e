// Initiator groups and the auth groups' references to them.
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "conf/conf.h"
#include "conf/conf_alloc.h"

// The editing layer enforces unique group names before it gets here.
struct initiator_group *initiator_group_new(struct conf *conf, const char *name) {
  struct initiator_group *ig = checked_calloc<struct initiator_group>();
  ig->ig_conf = conf;
  TAILQ_INIT(&ig->ig_initiators);
  ig->ig_name = checked_strdup(name);
  TAILQ_INSERT_TAIL(&conf->conf_initiator_groups, ig, ig_next);
  return ig;
}

struct initiator_group *initiator_group_find(const struct conf *conf, const char *name) {
  struct initiator_group *ig;
  TAILQ_FOREACH(ig, &conf->conf_initiator_groups, ig_next) {
    if (strcmp(ig->ig_name, name) == 0)
      return ig;
  }
  return NULL;
}

// References from auth groups are not followed: callers remove them first
// with initiator_group_delete_all_refs.
void initiator_group_delete(struct initiator_group *ig) {
  TAILQ_REMOVE(&ig->ig_conf->conf_initiator_groups, ig, ig_next);
  struct initiator *ini;
  while ((ini = TAILQ_FIRST(&ig->ig_initiators)) != NULL)
    initiator_delete(ini);
  free(ig->ig_name);
  free(ig);
}

struct initiator *initiator_new(struct initiator_group *ig, const char *name) {
  struct initiator *ini = checked_calloc<struct initiator>();
  ini->i_initiator_group = ig;
  ini->i_name = checked_strdup(name);
  TAILQ_INSERT_TAIL(&ig->ig_initiators, ini, i_next);
  return ini;
}

struct initiator *initiator_find(const struct initiator_group *ig, const char *name) {
  struct initiator *ini;
  TAILQ_FOREACH(ini, &ig->ig_initiators, i_next) {
    if (strcmp(ini->i_name, name) == 0)
      return ini;
  }
  return NULL;
}

void initiator_delete(struct initiator *ini) {
  TAILQ_REMOVE(&ini->i_initiator_group->ig_initiators, ini, i_next);
  free(ini->i_name);
  free(ini);
}

struct igroup_ref *auth_group_igroup_ref_add(struct conf *conf, struct auth_group *ag,
                                             const char *group_name) {
  struct initiator_group *ig = initiator_group_find(conf, group_name);
  if (ig == NULL) {
    log_warnx("initiator group  \"%s\" not found", group_name);
    return NULL;
  }
  struct igroup_ref *ref = checked_calloc<struct igroup_ref>();
  ref->igr_initiator_group = ig;
  TAILQ_INSERT_TAIL(&ag->ag_igroup_refs, ref, igr_next);
  return ref;
}

struct igroup_ref *auth_group_igroup_ref_find(const struct auth_group *ag,
                                              const char *group_name) {
  struct igroup_ref *ref;
  TAILQ_FOREACH(ref, &ag->ag_igroup_refs, igr_next) {
    if (strcmp(ref->igr_initiator_group->ig_name, group_name) == 0)
      return ref;
  }
  return NULL;
}

void auth_group_igroup_ref_remove(struct auth_group *ag, struct igroup_ref *ref) {
  TAILQ_REMOVE(&ag->ag_igroup_refs, ref, igr_next);
  free(ref);
}

bool auth_group_initiator_group_defined(const struct auth_group *ag) {
  return !TAILQ_EMPTY(&ag->ag_igroup_refs);
}

// iSCSI names are case-insensitive, so membership is too.
struct initiator *auth_group_igroup_initiator_find(const struct auth_group *ag,
                                                   const char *initiator_name) {
  const struct igroup_ref *ref;
  TAILQ_FOREACH(ref, &ag->ag_igroup_refs, igr_next) {
    struct initiator *ini;
    TAILQ_FOREACH(ini, &ref->igr_initiator_group->ig_initiators, i_next) {
      if (strcasecmp(ini->i_name, initiator_name) == 0)
        return ini;
    }
  }
  return NULL;
}

void initiator_group_delete_all_refs(struct conf *conf, const char *group_name) {
  struct auth_group *ag;
  TAILQ_FOREACH(ag, &conf->conf_auth_groups, ag_next) {
    struct igroup_ref *ref;
    while ((ref = auth_group_igroup_ref_find(ag, group_name)) != NULL)
      auth_group_igroup_ref_remove(ag, ref);
  }
}
