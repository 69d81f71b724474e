// Portal groups, their listen portals and the iSNS server addresses.
#include <netdb.h>
#include <stdlib.h>
#include <string.h>

#include "conf/conf.h"
#include "conf/conf_alloc.h"

struct portal_group *portal_group_new(struct conf *conf, const char *name) {
  if (portal_group_find(conf, name) != NULL) {
    log_warnx("duplicated portal-group \"%s\"", name);
    return NULL;
  }
  struct portal_group *pg = checked_calloc<struct portal_group>();
  pg->pg_name = checked_strdup(name);
  pg->pg_conf = conf;
  TAILQ_INIT(&pg->pg_options);
  TAILQ_INIT(&pg->pg_portals);
  TAILQ_INIT(&pg->pg_ports);
  TAILQ_INSERT_TAIL(&conf->conf_portal_groups, pg, pg_next);
  return pg;
}

struct portal_group *portal_group_find(const struct conf *conf, const char *name) {
  struct portal_group *pg;
  TAILQ_FOREACH(pg, &conf->conf_portal_groups, pg_next) {
    if (strcmp(pg->pg_name, name) == 0)
      return pg;
  }
  return NULL;
}

void portal_group_delete(struct portal_group *pg) {
  TAILQ_REMOVE(&pg->pg_conf->conf_portal_groups, pg, pg_next);
  struct port *port;
  while ((port = TAILQ_FIRST(&pg->pg_ports)) != NULL)
    port_delete(port);
  struct portal *portal;
  while ((portal = TAILQ_FIRST(&pg->pg_portals)) != NULL)
    portal_delete(portal);
  struct option *o;
  while ((o = TAILQ_FIRST(&pg->pg_options)) != NULL)
    option_delete(&pg->pg_options, o);
  free(pg->pg_name);
  free(pg->pg_redirection);
  free(pg);
}

int parse_addr_port(const char *arg, const char *def_port, char **host, char **port) {
  const char *host_begin = arg;
  size_t host_len;
  const char *port_text = NULL;

  if (arg[0] == '[') {
    host_begin = arg + 1;
    const char *close = strchr(host_begin, ']');
    if (close == NULL)
      return 1;
    host_len = static_cast<size_t>(close - host_begin);
    if (close[1] == ':')
      port_text = close + 2;
    else if (close[1] != '\0')
      return 1;
  } else {
    const char *colon = strchr(arg, ':');
    // Two or more colons can only be an IPv6 address, which cannot carry a
    // port without brackets.
    if (colon != NULL && strchr(colon + 1, ':') == NULL) {
      host_len = static_cast<size_t>(colon - arg);
      port_text = colon + 1;
    } else {
      host_len = strlen(arg);
    }
  }

  char *h = strndup(host_begin, host_len);
  if (h == NULL)
    log_err(1, "strdup");
  *host = h;
  *port = checked_strdup(port_text != NULL && port_text[0] != '\0' ? port_text : def_port);
  return 0;
}

int portal_group_add_listen(struct portal_group *pg, const char *listen, bool iser) {
  struct portal *portal = portal_new(pg);
  portal->p_listen = checked_strdup(listen);
  portal->p_iser = iser;
  if (parse_addr_port(portal->p_listen, "3260", &portal->p_host, &portal->p_port) != 0) {
    log_warnx("invalid listen address %s", portal->p_listen);
    portal_delete(portal);
    return 1;
  }
  return 0;
}

int portal_group_set_filter(struct portal_group *pg, const char *str) {
  int filter;
  if (strcmp(str, "none") == 0) {
    filter = PG_FILTER_NONE;
  } else if (strcmp(str, "portal") == 0) {
    filter = PG_FILTER_PORTAL;
  } else if (strcmp(str, "portal-name") == 0) {
    filter = PG_FILTER_PORTAL_NAME;
  } else if (strcmp(str, "portal-name-auth") == 0) {
    filter = PG_FILTER_PORTAL_NAME_AUTH;
  } else {
    log_warnx("invalid discovery-filter \"%s\" for portal-group \"%s\"; valid values are "
              "\"none\", \"portal\", \"portal-name\", and \"portal-name-auth\"",
              str, pg->pg_name);
    return 1;
  }
  if (pg->pg_discovery_filter != PG_FILTER_UNKNOWN && pg->pg_discovery_filter != filter) {
    log_warnx("cannot set discovery-filter to \"%s\" for portal-group \"%s\"; "
              "already has a different value",
              str, pg->pg_name);
    return 1;
  }
  pg->pg_discovery_filter = filter;
  return 0;
}

int portal_group_set_redirection(struct portal_group *pg, const char *addr) {
  if (pg->pg_redirection != NULL) {
    log_warnx("cannot set redirection to \"%s\" for portal-group \"%s\"; already defined",
              addr, pg->pg_name);
    return 1;
  }
  pg->pg_redirection = checked_strdup(addr);
  return 0;
}

// A null group makes a portal that belongs to no list: an iSNS entry keeps
// its server address in one.
struct portal *portal_new(struct portal_group *pg) {
  struct portal *portal = checked_calloc<struct portal>();
  portal->p_portal_group = pg;
  if (pg != NULL)
    TAILQ_INSERT_TAIL(&pg->pg_portals, portal, p_next);
  return portal;
}

void portal_delete(struct portal *portal) {
  if (portal->p_portal_group != NULL)
    TAILQ_REMOVE(&portal->p_portal_group->pg_portals, portal, p_next);
  if (portal->p_ai != NULL)
    freeaddrinfo(portal->p_ai);
  free(portal->p_listen);
  free(portal->p_host);
  free(portal->p_port);
  free(portal);
}

int isns_new(struct conf *conf, const char *addr) {
  struct isns *is = checked_calloc<struct isns>();
  is->i_conf = conf;
  TAILQ_INSERT_TAIL(&conf->conf_isns, is, i_next);
  is->i_addr = checked_strdup(addr);
  is->i_portal = portal_new(NULL);
  is->i_portal->p_listen = checked_strdup(addr);
  if (parse_addr_port(is->i_addr, "3205", &is->i_portal->p_host, &is->i_portal->p_port) != 0) {
    log_warnx("invalid iSNS address %s", is->i_addr);
    isns_delete(is);
    return 1;
  }
  return 0;
}

void isns_delete(struct isns *is) {
  TAILQ_REMOVE(&is->i_conf->conf_isns, is, i_next);
  if (is->i_portal != NULL)
    portal_delete(is->i_portal);
  if (is->i_ai != NULL)
    freeaddrinfo(is->i_ai);
  free(is->i_addr);
  free(is);
}
