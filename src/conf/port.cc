// Physical ports (pports) and the ports that put a target on a portal group
// or a pport.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "conf/conf.h"
#include "conf/conf_alloc.h"

struct pport *pport_new(struct conf *conf, const char *name, uint32_t ctl_port) {
  struct pport *pp = checked_calloc<struct pport>();
  pp->pp_conf = conf;
  pp->pp_name = checked_strdup(name);
  pp->pp_ctl_port = ctl_port;
  TAILQ_INIT(&pp->pp_ports);
  TAILQ_INSERT_TAIL(&conf->conf_pports, pp, pp_next);
  return pp;
}

struct pport *pport_find(const struct conf *conf, const char *name) {
  struct pport *pp;
  TAILQ_FOREACH(pp, &conf->conf_pports, pp_next) {
    if (strcasecmp(pp->pp_name, name) == 0)
      return pp;
  }
  return NULL;
}

// Kernel ports outlive a reload: the new conf inherits the old one's.
struct pport *pport_copy(struct pport *pp, struct conf *conf) {
  return pport_new(conf, pp->pp_name, pp->pp_ctl_port);
}

void pport_delete(struct pport *pp) {
  struct port *port;
  while ((port = TAILQ_FIRST(&pp->pp_ports)) != NULL)
    port_delete(port);
  TAILQ_REMOVE(&pp->pp_conf->conf_pports, pp, pp_next);
  free(pp->pp_name);
  free(pp);
}

namespace {

// Links a port named `name` (taken over) to the target and to the conf.
struct port *port_link(struct conf *conf, struct target *target, char *name) {
  if (port_find(conf, name) != NULL) {
    log_warnx("duplicate port \"%s\"", name);
    free(name);
    return NULL;
  }
  struct port *port = checked_calloc<struct port>();
  port->p_conf = conf;
  port->p_name = name;
  port->p_target = target;
  TAILQ_INSERT_TAIL(&conf->conf_ports, port, p_next);
  TAILQ_INSERT_TAIL(&target->t_ports, port, p_ts);
  return port;
}

char *port_name(const char *owner, const struct target *target) {
  char *name;
  if (asprintf(&name, "%s-%s", owner, target->t_name) < 0)
    log_err(1, "asprintf");
  return name;
}

}  // namespace

struct port *port_new(struct conf *conf, struct target *target, struct portal_group *pg) {
  struct port *port = port_link(conf, target, port_name(pg->pg_name, target));
  if (port == NULL)
    return NULL;
  port->p_portal_group = pg;
  port->p_dscp = pg->pg_dscp;
  TAILQ_INSERT_TAIL(&pg->pg_ports, port, p_pgs);
  return port;
}

struct port *port_new_pp(struct conf *conf, struct target *target, struct pport *pp) {
  struct port *port = port_link(conf, target, port_name(pp->pp_name, target));
  if (port == NULL)
    return NULL;
  port->p_pport = pp;
  TAILQ_INSERT_TAIL(&pp->pp_ports, port, p_pps);
  return port;
}

struct port *port_find(const struct conf *conf, const char *name) {
  struct port *port;
  TAILQ_FOREACH(port, &conf->conf_ports, p_next) {
    if (strcasecmp(port->p_name, name) == 0)
      return port;
  }
  return NULL;
}

struct port *port_find_in_pg(const struct portal_group *pg, const char *target) {
  struct port *port;
  TAILQ_FOREACH(port, &pg->pg_ports, p_pgs) {
    if (strcasecmp(port->p_target->t_name, target) == 0)
      return port;
  }
  return NULL;
}

void port_delete(struct port *port) {
  if (port->p_portal_group != NULL)
    TAILQ_REMOVE(&port->p_portal_group->pg_ports, port, p_pgs);
  if (port->p_pport != NULL)
    TAILQ_REMOVE(&port->p_pport->pp_ports, port, p_pps);
  TAILQ_REMOVE(&port->p_target->t_ports, port, p_ts);
  TAILQ_REMOVE(&port->p_conf->conf_ports, port, p_next);
  free(port->p_name);
  free(port);
}
