// LUNs: owned by the conf, referenced from their target's table by number.
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <string>
#include <unordered_map>

#include "conf/conf.h"
#include "conf/conf_alloc.h"

// Every LUN name is looked up once as its LUN is created, so a read of a
// large file would otherwise compare each new name with all earlier ones.
struct lun_index {
  std::unordered_map<std::string, struct lun *> by_name;
};

struct lun *lun_new(struct conf *conf, const char *name) {
  if (lun_find(conf, name) != NULL) {
    log_warnx("duplicated lun \"%s\"", name);
    return NULL;
  }
  struct lun *lun = checked_calloc<struct lun>();
  lun->l_conf = conf;
  lun->l_name = checked_strdup(name);
  TAILQ_INIT(&lun->l_options);
  lun->l_ctl_lun = ZELD_LUN_UNSET;
  lun->l_zeld_lun = ZELD_LUN_UNSET;
  TAILQ_INSERT_TAIL(&conf->conf_luns, lun, l_next);
  if (conf->conf_lun_index == NULL)
    conf->conf_lun_index = new lun_index();
  conf->conf_lun_index->by_name.emplace(lun->l_name, lun);
  return lun;
}

struct lun *lun_find(const struct conf *conf, const char *name) {
  if (conf->conf_lun_index == NULL)
    return NULL;
  const auto found = conf->conf_lun_index->by_name.find(name);
  return found == conf->conf_lun_index->by_name.end() ? NULL : found->second;
}

void lun_index_delete(struct conf *conf) {
  delete conf->conf_lun_index;
  conf->conf_lun_index = NULL;
}

// No target table may keep pointing at a freed LUN.
void lun_delete(struct lun *lun) {
  struct target *target;
  TAILQ_FOREACH(target, &lun->l_conf->conf_targets, t_next) {
    for (struct lun *&slot : target->t_luns) {
      if (slot == lun)
        slot = NULL;
    }
  }
  lun_destroy(lun);
}

void lun_destroy(struct lun *lun) {
  TAILQ_REMOVE(&lun->l_conf->conf_luns, lun, l_next);
  lun->l_conf->conf_lun_index->by_name.erase(lun->l_name);
  struct option *o;
  while ((o = TAILQ_FIRST(&lun->l_options)) != NULL)
    option_delete(&lun->l_options, o);
  free(lun->l_name);
  free(lun->l_backend);
  free(lun->l_device_id);
  free(lun->l_path);
  free(lun->l_scsiname);
  free(lun->l_serial);
  free(lun);
}

struct lun *lun_find_by_ctl_id(const struct conf *conf, uint32_t id) {
  struct lun *lun;
  TAILQ_FOREACH(lun, &conf->conf_luns, l_next) {
    if (lun->l_ctl_lun == id)
      return lun;
  }
  return NULL;
}

// A target's LUNs are named after it ("<target>,L,0x..."), so the owner is
// the first target whose whole name starts the LUN's name.
struct target *lun_target_find(const struct conf *conf, const struct lun *lun) {
  struct target *target;
  TAILQ_FOREACH(target, &conf->conf_targets, t_next) {
    if (strncasecmp(target->t_name, lun->l_name, strlen(target->t_name)) == 0)
      return target;
  }
  return NULL;
}

void lun_set_backend(struct lun *lun, const char *value) {
  conf_replace_string(&lun->l_backend, value);
}

void lun_set_blocksize(struct lun *lun, size_t value) {
  lun->l_blocksize = static_cast<int>(value);
}

void lun_set_device_type(struct lun *lun, uint8_t value) {
  lun->l_device_type = value;
}

void lun_set_device_id(struct lun *lun, const char *value) {
  conf_replace_string(&lun->l_device_id, value);
}

void lun_set_path(struct lun *lun, const char *value) {
  conf_replace_string(&lun->l_path, value);
}

void lun_set_scsiname(struct lun *lun, const char *value) {
  conf_replace_string(&lun->l_scsiname, value);
}

void lun_set_serial(struct lun *lun, const char *value) {
  conf_replace_string(&lun->l_serial, value);
}

void lun_set_size(struct lun *lun, uint64_t value) {
  lun->l_size = value;
}

void lun_set_ctl_lun(struct lun *lun, uint32_t value) {
  lun->l_ctl_lun = value;
}

void lun_set_zeld_lun(struct lun *lun, uint32_t value) {
  lun->l_zeld_lun = value;
}

bool lun_ctl_lun_valid(const struct lun *lun) {
  return lun->l_ctl_lun < ZELD_LUN_UNSET;
}

bool lun_zeld_lun_valid(const struct lun *lun) {
  return lun->l_zeld_lun < ZELD_LUN_UNSET;
}

bool lun_is_offline(const struct lun *lun) {
  const struct option *o = option_find(&lun->l_options, "status");
  return o != NULL && strcmp(o->o_value, "offline") == 0;
}

// A LUN's backing path begins with its target's UUID (the target's storage
// namespace). Moving the LUN to another target rewrites that prefix in
// place; both UUIDs have the same length. A target without a UUID, or a
// path too short to hold one, is left alone rather than overrun.
void lun_modify_target_path(struct lun *lun, const struct target *target) {
  const struct target_option *uuid = target_option_find(target, "uuid");
  if (uuid == NULL || lun->l_path == NULL)
    return;
  size_t len = strlen(uuid->to_value);
  if (strlen(lun->l_path) < len)
    return;
  memcpy(lun->l_path, uuid->to_value, len);
}
