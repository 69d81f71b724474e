// The root of the graph, its top-level options and the generic name/value
// option lists of LUNs and portal groups.
#include <stdlib.h>
#include <string.h>

#include "conf/conf.h"
#include "conf/conf_alloc.h"

struct conf *conf_new(void) {
  struct conf *conf = checked_calloc<struct conf>();
  TAILQ_INIT(&conf->conf_luns);
  TAILQ_INIT(&conf->conf_targets);
  TAILQ_INIT(&conf->conf_auth_groups);
  TAILQ_INIT(&conf->conf_ports);
  TAILQ_INIT(&conf->conf_portal_groups);
  TAILQ_INIT(&conf->conf_pports);
  TAILQ_INIT(&conf->conf_isns);
  TAILQ_INIT(&conf->conf_initiator_groups);
  TAILQ_INIT(&conf->conf_options);
  conf->conf_isns_period = 900;
  conf->conf_isns_timeout = 5;
  conf->conf_generation = 1;
  conf->conf_debug = 0;
  conf->conf_timeout = 60;
  conf->conf_maxproc = 1;
  return conf;
}

// LUNs go first so that no target slot is left pointing at freed memory
// while targets are deleted; targets take their ports with them before the
// portal groups and pports those ports are linked into. Auth groups only
// reference initiator groups, so those can go last.
void conf_delete(struct conf *conf) {
  // Every target goes next, so clearing their tables lun by lun (a scan of
  // every slot of every target per lun) would be wasted work.
  struct lun *lun;
  while ((lun = TAILQ_FIRST(&conf->conf_luns)) != NULL)
    lun_destroy(lun);
  lun_index_delete(conf);
  struct target *target;
  while ((target = TAILQ_FIRST(&conf->conf_targets)) != NULL)
    target_delete(target);
  struct auth_group *ag;
  while ((ag = TAILQ_FIRST(&conf->conf_auth_groups)) != NULL)
    auth_group_delete(ag);
  struct portal_group *pg;
  while ((pg = TAILQ_FIRST(&conf->conf_portal_groups)) != NULL)
    portal_group_delete(pg);
  struct pport *pp;
  while ((pp = TAILQ_FIRST(&conf->conf_pports)) != NULL)
    pport_delete(pp);
  struct isns *is;
  while ((is = TAILQ_FIRST(&conf->conf_isns)) != NULL)
    isns_delete(is);
  struct conf_option *co;
  while ((co = TAILQ_FIRST(&conf->conf_options)) != NULL)
    conf_option_delete(co);
  struct initiator_group *ig;
  while ((ig = TAILQ_FIRST(&conf->conf_initiator_groups)) != NULL)
    initiator_group_delete(ig);
  free(conf);
}

struct option *option_new(struct options *options, const char *name, const char *value) {
  if (option_find(options, name) != NULL) {
    log_warnx("duplicated option \"%s\"", name);
    return NULL;
  }
  struct option *o = checked_calloc<struct option>();
  o->o_name = checked_strdup(name);
  o->o_value = checked_strdup(value);
  TAILQ_INSERT_TAIL(options, o, o_next);
  return o;
}

struct option *option_find(const struct options *options, const char *name) {
  struct option *o;
  TAILQ_FOREACH(o, options, o_next) {
    if (strcmp(o->o_name, name) == 0)
      return o;
  }
  return NULL;
}

void option_set(struct option *o, const char *value) {
  conf_replace_string(&o->o_value, value);
}

void option_delete(struct options *options, struct option *o) {
  TAILQ_REMOVE(options, o, o_next);
  free(o->o_name);
  free(o->o_value);
  free(o);
}

// The file keeps a single top-level option: only the last one read survives
// and is written back. The one it replaces is freed, so the list never
// holds more than one element.
struct conf_option *conf_option_new(struct conf *conf, const char *name, const char *value) {
  if (conf_option_find(conf, name) != NULL) {
    log_warnx("duplicated config option %s ", name);
    return NULL;
  }
  struct conf_option *co = checked_calloc<struct conf_option>();
  co->co_conf = conf;
  co->co_name = checked_strdup(name);
  co->co_value = checked_strdup(value);
  struct conf_option *old;
  while ((old = TAILQ_FIRST(&conf->conf_options)) != NULL)
    conf_option_delete(old);
  TAILQ_INSERT_TAIL(&conf->conf_options, co, co_next);
  return co;
}

struct conf_option *conf_option_find(const struct conf *conf, const char *name) {
  struct conf_option *co;
  TAILQ_FOREACH(co, &conf->conf_options, co_next) {
    if (strcmp(co->co_name, name) == 0)
      return co;
  }
  return NULL;
}

void conf_option_delete(struct conf_option *co) {
  TAILQ_REMOVE(&co->co_conf->conf_options, co, co_next);
  free(co->co_name);
  free(co->co_value);
  free(co);
}
