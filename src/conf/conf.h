// The in-memory configuration of the target daemon: a graph of plain
// structures rooted in one `conf`, joined by insertion-ordered tail queues.
// The reader builds it, the writer prints it in list order, the cache keeps
// one copy and the editing operations change it.
//
// Ownership: every string is a private heap copy owned by the object that
// holds it; every object is owned by its parent list, and deleting a parent
// deletes its children. A graph is used by one thread at a time.
//
// Failure: "new" functions warn and return null (or 1) on a rule breach and
// leave the graph unchanged; allocation failures and malformed initiator
// portals throw OrvaCtlException through log_err/log_errx.
#pragma once

#include <stdint.h>
#include <sys/queue.h>
#include <sys/socket.h>

#include <cstdarg>

#define ZELD_MAX_LUNS 256
#define ZELD_LUN_UNSET 0xFFFFFFFFu

#define AG_TYPE_UNKNOWN 0
#define AG_TYPE_DENY 1
#define AG_TYPE_NO_AUTHENTICATION 2
#define AG_TYPE_CHAP 3
#define AG_TYPE_CHAP_MUTUAL 4

#define PG_FILTER_UNKNOWN 0
#define PG_FILTER_NONE 1
#define PG_FILTER_PORTAL 2
#define PG_FILTER_PORTAL_NAME 3
#define PG_FILTER_PORTAL_NAME_AUTH 4

struct addrinfo;
struct conf;
struct target;
struct auth_group;
struct portal_group;
struct initiator_group;
struct pport;
struct lun_index;

struct option {
  TAILQ_ENTRY(option) o_next;
  char *o_name;
  char *o_value;
};
TAILQ_HEAD(options, option);

struct target_option {
  TAILQ_ENTRY(target_option) to_next;
  struct target *to_target;
  char *to_name;
  char *to_value;
};

struct conf_option {
  TAILQ_ENTRY(conf_option) co_next;
  struct conf *co_conf;
  char *co_name;
  char *co_value;
};

struct auth {
  TAILQ_ENTRY(auth) a_next;
  struct auth_group *a_auth_group;
  char *a_user;
  char *a_secret;
  char *a_mutual_user;    // null unless chap-mutual
  char *a_mutual_secret;  // null unless chap-mutual
};

struct auth_name {
  TAILQ_ENTRY(auth_name) an_next;
  struct auth_group *an_auth_group;
  char *an_initator_name;
};

struct auth_portal {
  TAILQ_ENTRY(auth_portal) ap_next;
  struct auth_group *ap_auth_group;
  char *ap_initator_portal;         // the text as written
  int ap_family;                    // AF_INET (2) or AF_INET6 (10)
  struct sockaddr_storage ap_sa;    // the binary address
  int ap_mask;                      // prefix length
};

struct initiator {
  TAILQ_ENTRY(initiator) i_next;
  struct initiator_group *i_initiator_group;
  char *i_name;
};

struct initiator_group {
  TAILQ_ENTRY(initiator_group) ig_next;
  struct conf *ig_conf;
  char *ig_name;
  TAILQ_HEAD(, initiator) ig_initiators;
};

struct igroup_ref {
  TAILQ_ENTRY(igroup_ref) igr_next;
  struct initiator_group *igr_initiator_group;  // not owned
};

struct auth_group {
  TAILQ_ENTRY(auth_group) ag_next;
  struct conf *ag_conf;
  char *ag_name;               // null for a target's private group
  struct target *ag_target;    // owner of an unnamed group (for messages)
  int ag_type;                 // AG_TYPE_*
  TAILQ_HEAD(, auth) ag_auths;
  TAILQ_HEAD(, auth_name) ag_names;
  TAILQ_HEAD(, auth_portal) ag_portals;
  TAILQ_HEAD(, igroup_ref) ag_igroup_refs;
};

struct portal {
  TAILQ_ENTRY(portal) p_next;
  struct portal_group *p_portal_group;  // null for an iSNS server address
  bool p_iser;
  char *p_listen;                       // the text as written
  char *p_host;
  char *p_port;
  struct addrinfo *p_ai;                // resolved addresses, when resolved
};

struct port;

struct portal_group {
  TAILQ_ENTRY(portal_group) pg_next;
  struct conf *pg_conf;
  struct options pg_options;
  char *pg_name;
  struct auth_group *pg_discovery_auth_group;
  int pg_discovery_filter;     // PG_FILTER_*
  bool pg_foreign;
  bool pg_unassigned;
  TAILQ_HEAD(, portal) pg_portals;
  TAILQ_HEAD(, port) pg_ports;
  char *pg_redirection;
  uint16_t pg_tag;
  uint32_t pg_dscp;            // copied into each port created on the group
};

struct pport {
  TAILQ_ENTRY(pport) pp_next;
  struct conf *pp_conf;
  TAILQ_HEAD(, port) pp_ports;
  char *pp_name;
  uint32_t pp_ctl_port;
};

// One target's presence on one portal group or pport.
struct port {
  TAILQ_ENTRY(port) p_next;     // in conf
  TAILQ_ENTRY(port) p_pgs;      // in portal group
  TAILQ_ENTRY(port) p_pps;      // in pport
  TAILQ_ENTRY(port) p_ts;       // in target
  struct conf *p_conf;
  char *p_name;
  struct auth_group *p_auth_group;
  struct portal_group *p_portal_group;
  struct pport *p_pport;
  struct target *p_target;
  uint32_t p_dscp;
  uint32_t p_ctl_port;
};

struct isns {
  TAILQ_ENTRY(isns) i_next;
  struct conf *i_conf;
  char *i_addr;
  struct portal *i_portal;  // ownerless portal with the server's host and port
  struct addrinfo *i_ai;
};

struct lun {
  TAILQ_ENTRY(lun) l_next;
  struct conf *l_conf;
  struct options l_options;
  char *l_name;
  char *l_backend;
  uint8_t l_device_type;
  int l_blocksize;
  char *l_device_id;
  char *l_path;
  char *l_scsiname;
  char *l_serial;
  uint64_t l_size;        // in 512-byte units for the block-size check
  uint32_t l_ctl_lun;
  uint32_t l_zeld_lun;    // LUN number within its target
};

struct target {
  TAILQ_ENTRY(target) t_next;
  TAILQ_HEAD(, target_option) t_options;
  struct conf *t_conf;
  struct lun *t_luns[ZELD_MAX_LUNS];
  struct auth_group *t_auth_group;
  TAILQ_HEAD(, port) t_ports;
  char *t_name;           // lower-cased iSCSI name
  char *t_alias;
  char *t_redirection;
};

struct conf {
  TAILQ_HEAD(, lun) conf_luns;
  struct lun_index *conf_lun_index;  // conf_luns by name; null while empty
  TAILQ_HEAD(, target) conf_targets;
  TAILQ_HEAD(, auth_group) conf_auth_groups;
  TAILQ_HEAD(, port) conf_ports;
  TAILQ_HEAD(, portal_group) conf_portal_groups;
  TAILQ_HEAD(, pport) conf_pports;
  TAILQ_HEAD(, isns) conf_isns;
  uint32_t conf_isns_period;
  uint32_t conf_isns_timeout;
  TAILQ_HEAD(, initiator_group) conf_initiator_groups;
  TAILQ_HEAD(, conf_option) conf_options;  // at most one reachable element
  uint64_t conf_generation;
  uint32_t conf_debug;
  uint32_t conf_timeout;
  uint32_t conf_maxproc;
  uint8_t conf_default_pg_defined;
  uint8_t conf_default_ag_defined;
  uint8_t conf_read_from_file;
};

// --- conf -----------------------------------------------------------------
struct conf *conf_new(void);
void conf_delete(struct conf *conf);
int conf_verify(struct conf *conf);

// --- auth groups ----------------------------------------------------------
// An unnamed group is a target's private one: its messages name the target,
// so the caller sets ag_target before adding types or credentials.
struct auth_group *auth_group_new(struct conf *conf, const char *name);
struct auth_group *auth_group_find(const struct conf *conf, const char *name);
void auth_group_delete(struct auth_group *ag);
int auth_group_set_type(struct auth_group *ag, const char *type);

const struct auth *auth_new_chap(struct auth_group *ag, const char *user, const char *secret,
                                 bool decode);
const struct auth *auth_new_chap_mutual(struct auth_group *ag, const char *user,
                                        const char *secret, const char *user2,
                                        const char *secret2, bool decode);
const struct auth *auth_find(const struct auth_group *ag, const char *user);
void auth_delete(struct auth *auth);

const struct auth_name *auth_name_new(struct auth_group *ag, const char *initiator_name);
const struct auth_name *auth_name_find(const struct auth_group *ag, const char *initiator_name);
void auth_name_delete(struct auth_name *an);
bool auth_name_defined(const struct auth_group *ag);
int auth_name_check(const struct auth_group *ag, const char *initiator_name);

const struct auth_portal *auth_portal_new(struct auth_group *ag, const char *initiator_portal);
const struct auth_portal *auth_portal_find(const struct auth_group *ag,
                                           const struct sockaddr_storage *sa);
bool auth_portal_defined(const struct auth_group *ag);
int auth_portal_check(const struct auth_group *ag, const struct sockaddr_storage *sa);

// --- initiator groups -------------------------------------------------------
struct initiator_group *initiator_group_new(struct conf *conf, const char *name);
struct initiator_group *initiator_group_find(const struct conf *conf, const char *name);
void initiator_group_delete(struct initiator_group *ig);
struct initiator *initiator_new(struct initiator_group *ig, const char *name);
struct initiator *initiator_find(const struct initiator_group *ig, const char *name);
void initiator_delete(struct initiator *ini);

struct igroup_ref *auth_group_igroup_ref_add(struct conf *conf, struct auth_group *ag,
                                             const char *group_name);
struct igroup_ref *auth_group_igroup_ref_find(const struct auth_group *ag,
                                              const char *group_name);
void auth_group_igroup_ref_remove(struct auth_group *ag, struct igroup_ref *ref);
bool auth_group_initiator_group_defined(const struct auth_group *ag);
struct initiator *auth_group_igroup_initiator_find(const struct auth_group *ag,
                                                   const char *initiator_name);
void initiator_group_delete_all_refs(struct conf *conf, const char *group_name);

// --- portal groups, portals, iSNS -----------------------------------------
struct portal_group *portal_group_new(struct conf *conf, const char *name);
struct portal_group *portal_group_find(const struct conf *conf, const char *name);
void portal_group_delete(struct portal_group *pg);
int portal_group_add_listen(struct portal_group *pg, const char *listen, bool iser);
int portal_group_set_filter(struct portal_group *pg, const char *filter);
int portal_group_set_redirection(struct portal_group *pg, const char *addr);

struct portal *portal_new(struct portal_group *pg);
void portal_delete(struct portal *portal);

int isns_new(struct conf *conf, const char *addr);
void isns_delete(struct isns *is);

// Splits "host", "host:port", "[v6]" or "[v6]:port"; a bare IPv6 address
// (two or more ':') is all host. A missing or empty port is `def_port`.
// Returns 0, or 1 for a malformed bracket (outputs untouched). The outputs
// are heap copies owned by the caller.
int parse_addr_port(const char *arg, const char *def_port, char **host, char **port);

// --- pports and ports -------------------------------------------------------
struct pport *pport_new(struct conf *conf, const char *name, uint32_t ctl_port);
struct pport *pport_find(const struct conf *conf, const char *name);
struct pport *pport_copy(struct pport *pp, struct conf *conf);
void pport_delete(struct pport *pp);

struct port *port_new(struct conf *conf, struct target *target, struct portal_group *pg);
struct port *port_new_pp(struct conf *conf, struct target *target, struct pport *pp);
struct port *port_find(const struct conf *conf, const char *name);
struct port *port_find_in_pg(const struct portal_group *pg, const char *target);
void port_delete(struct port *port);

// --- targets ------------------------------------------------------------------
struct target *target_new(struct conf *conf, const char *name);
struct target *target_find(struct conf *conf, const char *name);
void target_delete(struct target *target);
int target_set_redirection(struct target *target, const char *addr);

struct target_option *target_option_new(struct target *target, const char *name,
                                         const char *value);
struct target_option *target_option_find(const struct target *target, const char *name);
void target_option_delete(struct target_option *to);

struct port *zeld_target_to_port(const struct target *target);
void target_copy_port_id(const struct target *from, struct target *to);
void zeld_target_lun_name(char *buf, size_t size, const struct target *target, uint32_t lun);

// --- LUNs -----------------------------------------------------------------------
struct lun *lun_new(struct conf *conf, const char *name);
struct lun *lun_find(const struct conf *conf, const char *name);
void lun_delete(struct lun *lun);
struct lun *lun_find_by_ctl_id(const struct conf *conf, uint32_t id);
struct target *lun_target_find(const struct conf *conf, const struct lun *lun);
// The string setters keep a private copy; null clears the field.
void lun_set_backend(struct lun *lun, const char *value);
void lun_set_blocksize(struct lun *lun, size_t value);
void lun_set_device_type(struct lun *lun, uint8_t value);
void lun_set_device_id(struct lun *lun, const char *value);
void lun_set_path(struct lun *lun, const char *value);
void lun_set_scsiname(struct lun *lun, const char *value);
void lun_set_serial(struct lun *lun, const char *value);
void lun_set_size(struct lun *lun, uint64_t value);
void lun_set_ctl_lun(struct lun *lun, uint32_t value);
void lun_set_zeld_lun(struct lun *lun, uint32_t value);
bool lun_ctl_lun_valid(const struct lun *lun);
bool lun_zeld_lun_valid(const struct lun *lun);
bool lun_is_offline(const struct lun *lun);
void lun_modify_target_path(struct lun *lun, const struct target *target);

// --- options ----------------------------------------------------------------------
struct option *option_new(struct options *options, const char *name, const char *value);
struct option *option_find(const struct options *options, const char *name);
void option_set(struct option *o, const char *value);
void option_delete(struct options *options, struct option *o);

struct conf_option *conf_option_new(struct conf *conf, const char *name, const char *value);
struct conf_option *conf_option_find(const struct conf *conf, const char *name);
void conf_option_delete(struct conf_option *co);

// --- names and numbers -------------------------------------------------------------
bool valid_iscsi_name(const char *name);
int expand_number(const char *buf, uint64_t *num);
char *checked_strdup(const char *s);

// --- logging -------------------------------------------------------------------------
// One process-wide level: a message is emitted when its level is not above
// it. Warnings are 2, info 3, debug 4 and 5. The level is 0 until log_init,
// so a process that wants the layer's messages must call it. Lines are cut
// to 255 characters. log_err and log_errx throw OrvaCtlException with the
// formatted text and never return.
void log_init(int level);
void log_warn(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void log_warnx(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void log_info(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void log_debugx(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void log_debugx2(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
[[noreturn]] void log_err(int status, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
[[noreturn]] void log_errx(int status, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void log_cleanup(void);
[[noreturn]] void exit_with_cleanup(int status);
