// The consistency pass that runs after a file has been read: fills in the
// defaults the daemon relies on and refuses LUNs it could not serve.
#include <string.h>

#include <string>
#include <unordered_map>
#include <vector>

#include "conf/conf.h"

namespace {

constexpr int kCdBlockSize = 2048;
constexpr int kDiskBlockSize = 512;
constexpr uint8_t kDeviceTypeCd = 5;
constexpr uint64_t kSizeUnit = 512;

// LUNs by backing path, each list in configuration order.
using LunsByPath = std::unordered_map<std::string, std::vector<struct lun *>>;

LunsByPath luns_by_path(const struct conf *conf) {
  LunsByPath byPath;
  struct lun *lun;
  TAILQ_FOREACH(lun, &conf->conf_luns, l_next) {
    if (lun->l_path != NULL)
      byPath[lun->l_path].push_back(lun);
  }
  return byPath;
}

int lun_verify(const LunsByPath &byPath, struct lun *lun) {
  if (lun->l_backend == NULL)
    lun_set_backend(lun, "block");
  if (strcmp(lun->l_backend, "block") == 0 && lun->l_path == NULL) {
    log_warnx("missing path for lun \"%s\"", lun->l_name);
    return 1;
  }
  if (strcmp(lun->l_backend, "ramdisk") == 0) {
    if (lun->l_size == 0) {
      log_warnx("missing size for ramdisk-backed lun \"%s\"", lun->l_name);
      return 1;
    }
    if (lun->l_path != NULL) {
      log_warnx("path must not be specified for ramdisk-backed lun \"%s\"", lun->l_name);
      return 1;
    }
  }

  if (lun->l_blocksize == 0) {
    lun->l_blocksize = lun->l_device_type == kDeviceTypeCd ? kCdBlockSize : kDiskBlockSize;
  } else if (lun->l_blocksize < 0) {
    log_warnx("invalid blocksize for lun \"%s\"; must be larger than 0", lun->l_name);
    return 1;
  }
  if (lun->l_size != 0 && (lun->l_size * kSizeUnit) % static_cast<uint64_t>(lun->l_blocksize) != 0) {
    log_warnx("invalid size for lun \"%s\"; must be multiple of blocksize", lun->l_name);
    return 1;
  }

  // Two LUNs on one backing file would corrupt each other, but an
  // administrator may be moving a disk; warn and go on.
  if (lun->l_path == NULL)
    return 0;
  for (const struct lun *other : byPath.at(lun->l_path)) {
    if (other != lun) {
      log_warnx("WARNING: path \"%s\" duplicated between lun \"%s\", and lun \"%s\"",
                lun->l_path, lun->l_name, other->l_name);
    }
  }
  return 0;
}

bool target_has_luns(const struct target *target) {
  for (const struct lun *lun : target->t_luns) {
    if (lun != NULL)
      return true;
  }
  return false;
}

void target_verify(struct conf *conf, struct target *target) {
  if (target->t_auth_group == NULL)
    target->t_auth_group = auth_group_find(conf, "default");
  if (TAILQ_EMPTY(&target->t_ports)) {
    // The reader always defines the "default" portal group; a conf built
    // by hand without it simply leaves the target without a port.
    struct portal_group *pg = portal_group_find(conf, "default");
    if (pg != NULL)
      port_new(conf, target, pg);
  }
  bool has_luns = target_has_luns(target);
  if (has_luns && target->t_redirection != NULL)
    log_debugx("target \"%s\" contains luns,  but configured for redirection", target->t_name);
  if (!has_luns && target->t_redirection == NULL)
    log_debugx("no LUNs defined for target \"%s\"", target->t_name);
}

void portal_group_verify(struct conf *conf, struct portal_group *pg) {
  if (pg->pg_discovery_auth_group == NULL)
    pg->pg_discovery_auth_group = auth_group_find(conf, "default");
  if (pg->pg_discovery_filter == PG_FILTER_UNKNOWN)
    pg->pg_discovery_filter = PG_FILTER_NONE;

  bool has_ports = !TAILQ_EMPTY(&pg->pg_ports);
  if (pg->pg_redirection != NULL) {
    if (has_ports)
      log_debugx("portal-group \"%s\" assigned to target, but configured for redirection",
                 pg->pg_name);
    pg->pg_unassigned = false;
  } else if (has_ports) {
    pg->pg_unassigned = false;
  } else {
    pg->pg_unassigned = true;
    if (strcmp(pg->pg_name, "default") != 0)
      log_warnx("portal-group \"%s\" not assigned to any target", pg->pg_name);
  }
}

bool auth_group_in_use(const struct conf *conf, const struct auth_group *ag) {
  const struct target *target;
  TAILQ_FOREACH(target, &conf->conf_targets, t_next) {
    if (target->t_auth_group == ag)
      return true;
  }
  const struct port *port;
  TAILQ_FOREACH(port, &conf->conf_ports, p_next) {
    if (port->p_auth_group == ag)
      return true;
  }
  const struct portal_group *pg;
  TAILQ_FOREACH(pg, &conf->conf_portal_groups, pg_next) {
    if (pg->pg_discovery_auth_group == ag)
      return true;
  }
  return false;
}

bool auth_group_is_builtin(const char *name) {
  return strcmp(name, "default") == 0 || strcmp(name, "no-authentication") == 0 ||
         strcmp(name, "no-access") == 0;
}

}  // namespace

int conf_verify(struct conf *conf) {
  const LunsByPath byPath = luns_by_path(conf);
  struct lun *lun;
  TAILQ_FOREACH(lun, &conf->conf_luns, l_next) {
    if (lun_verify(byPath, lun) != 0)
      return 1;
  }

  struct target *target;
  TAILQ_FOREACH(target, &conf->conf_targets, t_next)
    target_verify(conf, target);

  struct portal_group *pg;
  TAILQ_FOREACH(pg, &conf->conf_portal_groups, pg_next)
    portal_group_verify(conf, pg);

  struct auth_group *ag;
  TAILQ_FOREACH(ag, &conf->conf_auth_groups, ag_next) {
    if (ag->ag_name == NULL || auth_group_is_builtin(ag->ag_name))
      continue;
    if (!auth_group_in_use(conf, ag))
      log_warnx("auth-group \"%s\" not assigned to any target", ag->ag_name);
  }
  return 0;
}
