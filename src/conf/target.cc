// Targets and their options.
#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "conf/conf.h"
#include "conf/conf_alloc.h"

// iSCSI names compare case-insensitively, so the stored form is lower-case
// and one name cannot appear twice in different cases.
struct target *target_new(struct conf *conf, const char *name) {
  if (target_find(conf, name) != NULL) {
    log_warnx("duplicated target \"%s\"", name);
    return NULL;
  }
  if (!valid_iscsi_name(name)) {
    log_warnx("target name \"%s\" is invalid", name);
    return NULL;
  }
  struct target *target = checked_calloc<struct target>();
  target->t_name = checked_strdup(name);
  for (char *p = target->t_name; *p != '\0'; p++)
    *p = static_cast<char>(tolower(static_cast<unsigned char>(*p)));
  target->t_conf = conf;
  TAILQ_INIT(&target->t_options);
  TAILQ_INIT(&target->t_ports);
  TAILQ_INSERT_TAIL(&conf->conf_targets, target, t_next);
  return target;
}

struct target *target_find(struct conf *conf, const char *name) {
  struct target *target;
  TAILQ_FOREACH(target, &conf->conf_targets, t_next) {
    if (strcasecmp(target->t_name, name) == 0)
      return target;
  }
  return NULL;
}

// The LUNs in the target's table belong to the conf and stay; so does a
// private auth group, which lives in the conf's list.
void target_delete(struct target *target) {
  struct port *port;
  while ((port = TAILQ_FIRST(&target->t_ports)) != NULL)
    port_delete(port);
  struct target_option *to;
  while ((to = TAILQ_FIRST(&target->t_options)) != NULL)
    target_option_delete(to);
  TAILQ_REMOVE(&target->t_conf->conf_targets, target, t_next);
  free(target->t_name);
  free(target->t_alias);
  free(target->t_redirection);
  free(target);
}

int target_set_redirection(struct target *target, const char *addr) {
  if (target->t_redirection != NULL) {
    log_warnx("cannot set redirection to \"%s\" for target \"%s\"; already defined", addr,
              target->t_name);
    return 1;
  }
  target->t_redirection = checked_strdup(addr);
  return 0;
}

struct target_option *target_option_new(struct target *target, const char *name,
                                         const char *value) {
  if (target_option_find(target, name) != NULL) {
    log_warnx("duplicated target option %s for target \"%s\"", name, target->t_name);
    return NULL;
  }
  struct target_option *to = checked_calloc<struct target_option>();
  to->to_target = target;
  to->to_name = checked_strdup(name);
  to->to_value = checked_strdup(value);
  TAILQ_INSERT_TAIL(&target->t_options, to, to_next);
  return to;
}

struct target_option *target_option_find(const struct target *target, const char *name) {
  struct target_option *to;
  TAILQ_FOREACH(to, &target->t_options, to_next) {
    if (strcmp(to->to_name, name) == 0)
      return to;
  }
  return NULL;
}

void target_option_delete(struct target_option *to) {
  TAILQ_REMOVE(&to->to_target->t_options, to, to_next);
  free(to->to_name);
  free(to->to_value);
  free(to);
}

struct port *zeld_target_to_port(const struct target *target) {
  return TAILQ_FIRST(&target->t_ports);
}

// Keeps the kernel port of a target that is being replaced by a new copy,
// so that sessions on it survive. A target without ports has nothing to
// give or take.
void target_copy_port_id(const struct target *from, struct target *to) {
  const struct port *from_port = zeld_target_to_port(from);
  struct port *to_port = zeld_target_to_port(to);
  if (from_port != NULL && to_port != NULL)
    to_port->p_ctl_port = from_port->p_ctl_port;
}

void zeld_target_lun_name(char *buf, size_t size, const struct target *target, uint32_t lun) {
  snprintf(buf, size, "%s,L,0x%016x", target->t_name, lun);
}
