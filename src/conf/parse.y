/*
 * Grammar of zel.conf. The actions only call the configuration object model
 * and log the reader's own semantic messages; the model's functions log
 * theirs. Any semantic error aborts the parse.
 *
 * Exceptions and the parser stack: a model call can throw OrvaCtlException
 * (allocation failure, malformed initiator portal, undecodable secret), and
 * so can the scanner. An exception that unwound through zeldParser_parse
 * would skip bison's clean-up and lose the token strings on its stack, which
 * only the %destructor below frees. So no exception ever leaves an action or
 * the scanner: guarded() parks it in zeld_reader.failure and the action
 * YYABORTs (the scanner wrapper returns the error token), bison pops and
 * destroys its stack, and conf_new_from_file rethrows the parked exception
 * once the parser has returned. The partly built conf stays in the reader
 * state for ZeldCleanConf.
 *
 * Ownership of token strings: the scanner hands out a heap copy with every
 * STR. While it is on the stack, bison frees it on an abort; once a rule is
 * reduced (also when its action aborts) it belongs to the action, which
 * adopts it into a token_text.
 */

%{
#include <errno.h>
#include <inttypes.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <exception>
#include <utility>

#include "conf/conf.h"
#include "conf/reader.h"
#include "conf/reader_state.h"
%}

%define api.prefix {zeldParser_}

%union {
  char *str;
}

/* The numbering from 258 is part of the parser tables: keep the order. */
%token ALIAS AUTH_GROUP AUTH_TYPE BACKEND BLOCKSIZE CHAP CHAP_MUTUAL
%token CLOSING_BRACKET CTL_LUN DEBUG DEVICE_ID DEVICE_TYPE
%token DISCOVERY_AUTH_GROUP DISCOVERY_FILTER FOREIGN INITIATOR_NAME
%token INITIATOR_PORTAL ISNS_SERVER ISNS_PERIOD ISNS_TIMEOUT LISTEN
%token LISTEN_ISER LUN MAXPROC OPENING_BRACKET OPTION PATH PIDFILE PORT
%token PORTAL_GROUP REDIRECT SEMICOLON SERIAL SIZE
%token <str> STR
%token TAG TARGET TIMEOUT INITIATOR_GROUP GENERATION

%destructor { free($$); } <str>

%code {
int zeldParser_lex(void);

namespace {

struct zeld_reader_state &reader = zeld_reader;

// A token string adopted by the action that reduced it.
class token_text {
 public:
  explicit token_text(char *text) : text_(text) {}
  token_text(const token_text &) = delete;
  token_text &operator=(const token_text &) = delete;
  ~token_text() { free(text_); }
  operator const char *() const { return text_; }
  // Hands the string to an object that keeps it.
  char *release() { return std::exchange(text_, nullptr); }

 private:
  char *text_;
};

// Runs one action's work; false when it failed, whether by a semantic error
// (already logged) or by an exception, which is parked for
// conf_new_from_file.
template <typename Work>
bool guarded(Work &&work) {
  try {
    return work();
  } catch (...) {
    reader.failure = std::current_exception();
    return false;
  }
}

// The scanner throws as the model does (string copies, its own fatal
// errors); the parser sees the error token instead, which aborts the parse
// like a failed action.
int guarded_lex(void) {
  try {
    return zeldParser_lex();
  } catch (...) {
    reader.failure = std::current_exception();
    return ZELDPARSER_error;
  }
}

// A number that must fit a field of at most `max`. A bad one goes through
// the parser's error report, so that it carries the line.
bool parse_number(const char *text, uint64_t max, uint64_t *value) {
  if (expand_number(text, value) == 0 && *value <= max)
    return true;
  zeldParser_error("invalid numeric value");
  return false;
}

// The number of a LUN of the current target: an index into its table that
// no LUN holds yet.
bool parse_lun_number(const char *text, uint64_t *number) {
  if (!parse_number(text, ZELD_MAX_LUNS - 1, number))
    return false;
  if (reader.target->t_luns[*number] != NULL) {
    log_warnx("lun %" PRIu64 " for target \"%s\" specified more than once",
        *number, reader.target->t_name);
    return false;
  }
  return true;
}

// The SCSI peripheral device type: a name or a number from 0 to 15, or -1.
int parse_device_type(const char *text) {
  if (strcasecmp(text, "disk") == 0 || strcasecmp(text, "direct") == 0)
    return 0;
  if (strcasecmp(text, "processor") == 0)
    return 3;
  if (strcasecmp(text, "cd") == 0 || strcasecmp(text, "cdrom") == 0 ||
      strcasecmp(text, "dvd") == 0 || strcasecmp(text, "dvdrom") == 0)
    return 5;
  char *end;
  errno = 0;
  long type = strtol(text, &end, 0);
  if (end == text || *end != '\0' || errno != 0 || type < 0 || type > 15)
    return -1;
  return (int)type;
}

// The target's own unnamed auth group, made on first use by an entry that
// authorises initiators directly. A target that names a shared auth-group
// cannot also carry its own authorisations.
struct auth_group *target_private_auth_group(const char *entry) {
  struct target *target = reader.target;
  if (target->t_auth_group != NULL) {
    if (target->t_auth_group->ag_name != NULL) {
      log_warnx("cannot use both auth-group and %s for target \"%s\"",
          entry, target->t_name);
      return NULL;
    }
    return target->t_auth_group;
  }
  target->t_auth_group = auth_group_new(reader.conf, NULL);
  if (target->t_auth_group != NULL)
    target->t_auth_group->ag_target = target;
  return target->t_auth_group;
}

}  // namespace

#define zeldParser_lex guarded_lex
}

%%

statements:
  %empty
  | statements statement
  | statements statement SEMICOLON
  ;

statement:
  generation
  | debug
  | timeout
  | maxproc
  | conf_option
  | isns_server
  | isns_period
  | isns_timeout
  | auth_group
  | portal_group
  | initiator_group
  | lun
  | target
  ;

generation: GENERATION STR
  {
    token_text text($2);
    uint64_t value;
    if (!parse_number(text, UINT64_MAX, &value))
      YYABORT;
    reader.conf->conf_generation = value;
  }
  ;

debug: DEBUG STR
  {
    token_text text($2);
    uint64_t value;
    if (!parse_number(text, UINT32_MAX, &value))
      YYABORT;
    reader.conf->conf_debug = (uint32_t)value;
  }
  ;

timeout: TIMEOUT STR
  {
    token_text text($2);
    uint64_t value;
    if (!parse_number(text, UINT32_MAX, &value))
      YYABORT;
    reader.conf->conf_timeout = (uint32_t)value;
  }
  ;

maxproc: MAXPROC STR
  {
    token_text text($2);
    uint64_t value;
    if (!parse_number(text, UINT32_MAX, &value))
      YYABORT;
    reader.conf->conf_maxproc = (uint32_t)value;
  }
  ;

conf_option: OPTION STR STR
  {
    token_text name($2);
    token_text value($3);
    if (!guarded([&] {
      return conf_option_new(reader.conf, name, value) != NULL;
    }))
      YYABORT;
  }
  ;

isns_server: ISNS_SERVER STR
  {
    token_text address($2);
    if (!guarded([&] { return isns_new(reader.conf, address) == 0; }))
      YYABORT;
  }
  ;

isns_period: ISNS_PERIOD STR
  {
    token_text text($2);
    uint64_t value;
    if (!parse_number(text, UINT32_MAX, &value))
      YYABORT;
    reader.conf->conf_isns_period = (uint32_t)value;
  }
  ;

isns_timeout: ISNS_TIMEOUT STR
  {
    token_text text($2);
    uint64_t value;
    if (!parse_number(text, UINT32_MAX, &value))
      YYABORT;
    reader.conf->conf_isns_timeout = (uint32_t)value;
  }
  ;

auth_group: AUTH_GROUP auth_group_name
    OPENING_BRACKET auth_group_entries CLOSING_BRACKET
  {
    reader.auth_group = NULL;
  }
  ;

auth_group_name: STR
  {
    token_text name($1);
    if (!guarded([&] {
      // Every conf starts with a built-in "default" group; the file's
      // first definition of it fills that group in.
      if (strcmp(name, "default") == 0 &&
          !reader.conf->conf_default_ag_defined) {
        reader.conf->conf_default_ag_defined = 1;
        reader.auth_group = auth_group_find(reader.conf, name);
      } else {
        reader.auth_group = auth_group_new(reader.conf, name);
      }
      return reader.auth_group != NULL;
    }))
      YYABORT;
  }
  ;

auth_group_entries:
  %empty
  | auth_group_entries auth_group_entry
  | auth_group_entries auth_group_entry SEMICOLON
  ;

auth_group_entry:
  auth_group_auth_type
  | auth_group_chap
  | auth_group_chap_mutual
  | auth_group_initiator_name
  | auth_group_initiator_portal
  | auth_group_initiator_group
  ;

auth_group_auth_type: AUTH_TYPE STR
  {
    token_text type($2);
    if (!guarded([&] {
      return auth_group_set_type(reader.auth_group, type) == 0;
    }))
      YYABORT;
  }
  ;

auth_group_chap: CHAP STR STR
  {
    token_text user($2);
    token_text secret($3);
    if (!guarded([&] {
      return auth_new_chap(reader.auth_group, user, secret, true) != NULL;
    }))
      YYABORT;
  }
  ;

auth_group_chap_mutual: CHAP_MUTUAL STR STR STR STR
  {
    token_text user($2);
    token_text secret($3);
    token_text mutual_user($4);
    token_text mutual_secret($5);
    if (!guarded([&] {
      return auth_new_chap_mutual(reader.auth_group, user, secret,
          mutual_user, mutual_secret, true) != NULL;
    }))
      YYABORT;
  }
  ;

auth_group_initiator_name: INITIATOR_NAME STR
  {
    token_text name($2);
    if (!guarded([&] {
      return auth_name_new(reader.auth_group, name) != NULL;
    }))
      YYABORT;
  }
  ;

auth_group_initiator_portal: INITIATOR_PORTAL STR
  {
    token_text portal($2);
    if (!guarded([&] {
      return auth_portal_new(reader.auth_group, portal) != NULL;
    }))
      YYABORT;
  }
  ;

auth_group_initiator_group: INITIATOR_GROUP STR
  {
    token_text group($2);
    if (!guarded([&] {
      if (auth_group_igroup_ref_add(reader.conf, reader.auth_group,
          group) != NULL)
        return true;
      const char *ag = reader.auth_group->ag_name;
      log_warnx("Failed to add initiator-group ref \"%s\" to "
          "auth-group \"%s\". Please make sure initiator group "
          "\"%s\" is in configuration file and it appears ahead "
          "of auth-group \"%s\"", (const char *)group, ag,
          (const char *)group, ag);
      return false;
    }))
      YYABORT;
  }
  ;

portal_group: PORTAL_GROUP portal_group_name
    OPENING_BRACKET portal_group_entries CLOSING_BRACKET
  {
    reader.portal_group = NULL;
  }
  ;

portal_group_name: STR
  {
    token_text name($1);
    if (!guarded([&] {
      // As for auth groups, "default" is built in.
      if (strcmp(name, "default") == 0 &&
          !reader.conf->conf_default_pg_defined) {
        reader.conf->conf_default_pg_defined = 1;
        reader.portal_group = portal_group_find(reader.conf, name);
      } else {
        reader.portal_group = portal_group_new(reader.conf, name);
      }
      return reader.portal_group != NULL;
    }))
      YYABORT;
  }
  ;

portal_group_entries:
  %empty
  | portal_group_entries portal_group_entry
  | portal_group_entries portal_group_entry SEMICOLON
  ;

portal_group_entry:
  portal_group_discovery_auth_group
  | portal_group_discovery_filter
  | portal_group_foreign
  | portal_group_listen
  | portal_group_listen_iser
  | portal_group_option
  | portal_group_redirect
  | portal_group_tag
  ;

portal_group_discovery_auth_group: DISCOVERY_AUTH_GROUP STR
  {
    token_text name($2);
    if (!guarded([&] {
      struct portal_group *pg = reader.portal_group;
      if (pg->pg_discovery_auth_group != NULL) {
        log_warnx("discovery-auth-group for portal-group \"%s\" "
            "specified more than once", pg->pg_name);
        return false;
      }
      pg->pg_discovery_auth_group = auth_group_find(reader.conf, name);
      if (pg->pg_discovery_auth_group == NULL) {
        log_warnx("unknown discovery-auth-group \"%s\" "
            "for portal-group \"%s\"", (const char *)name,
            pg->pg_name);
        return false;
      }
      return true;
    }))
      YYABORT;
  }
  ;

portal_group_discovery_filter: DISCOVERY_FILTER STR
  {
    token_text filter($2);
    if (!guarded([&] {
      return portal_group_set_filter(reader.portal_group, filter) == 0;
    }))
      YYABORT;
  }
  ;

portal_group_foreign: FOREIGN
  {
    reader.portal_group->pg_foreign = true;
  }
  ;

portal_group_listen: LISTEN STR
  {
    token_text address($2);
    if (!guarded([&] {
      return portal_group_add_listen(reader.portal_group, address,
          false) == 0;
    }))
      YYABORT;
  }
  ;

portal_group_listen_iser: LISTEN_ISER STR
  {
    token_text address($2);
    if (!guarded([&] {
      return portal_group_add_listen(reader.portal_group, address,
          true) == 0;
    }))
      YYABORT;
  }
  ;

portal_group_option: OPTION STR STR
  {
    token_text name($2);
    token_text value($3);
    if (!guarded([&] {
      return option_new(&reader.portal_group->pg_options, name,
          value) != NULL;
    }))
      YYABORT;
  }
  ;

portal_group_redirect: REDIRECT STR
  {
    token_text address($2);
    if (!guarded([&] {
      return portal_group_set_redirection(reader.portal_group,
          address) == 0;
    }))
      YYABORT;
  }
  ;

portal_group_tag: TAG STR
  {
    token_text text($2);
    uint64_t value;
    if (!parse_number(text, UINT16_MAX, &value))
      YYABORT;
    reader.portal_group->pg_tag = (uint16_t)value;
  }
  ;

initiator_group: INITIATOR_GROUP initiator_group_name
    OPENING_BRACKET initiator_group_entries CLOSING_BRACKET
  {
    reader.initiator_group = NULL;
  }
  ;

initiator_group_name: STR
  {
    token_text name($1);
    if (!guarded([&] {
      reader.initiator_group = initiator_group_new(reader.conf, name);
      return reader.initiator_group != NULL;
    }))
      YYABORT;
  }
  ;

initiator_group_entries:
  %empty
  | initiator_group_entries initiator_group_entry
  | initiator_group_entries initiator_group_entry SEMICOLON
  ;

/* "initiator" is scanned as INITIATOR_NAME, so both spellings land here. */
initiator_group_entry: INITIATOR_NAME STR
  {
    token_text name($2);
    if (!guarded([&] {
      return initiator_new(reader.initiator_group, name) != NULL;
    }))
      YYABORT;
  }
  ;

lun: LUN lun_name OPENING_BRACKET lun_entries CLOSING_BRACKET
  {
    reader.lun = NULL;
  }
  ;

lun_name: STR
  {
    token_text name($1);
    if (!guarded([&] {
      reader.lun = lun_new(reader.conf, name);
      return reader.lun != NULL;
    }))
      YYABORT;
  }
  ;

target: TARGET target_name OPENING_BRACKET target_entries CLOSING_BRACKET
  {
    reader.target = NULL;
  }
  ;

target_name: STR
  {
    token_text name($1);
    if (!guarded([&] {
      reader.target = target_new(reader.conf, name);
      return reader.target != NULL;
    }))
      YYABORT;
  }
  ;

target_entries:
  %empty
  | target_entries target_entry
  | target_entries target_entry SEMICOLON
  ;

target_entry:
  target_alias
  | target_auth_group
  | target_auth_type
  | target_chap
  | target_chap_mutual
  | target_initiator_name
  | target_initiator_portal
  | target_portal_group
  | target_port
  | target_redirect
  | target_option
  | target_lun
  | target_lun_ref
  ;

target_alias: ALIAS STR
  {
    token_text alias($2);
    if (!guarded([&] {
      if (reader.target->t_alias != NULL) {
        log_warnx("alias for target \"%s\" specified more than once",
            reader.target->t_name);
        return false;
      }
      reader.target->t_alias = alias.release();
      return true;
    }))
      YYABORT;
  }
  ;

target_auth_group: AUTH_GROUP STR
  {
    token_text name($2);
    if (!guarded([&] {
      struct target *target = reader.target;
      if (target->t_auth_group != NULL) {
        if (target->t_auth_group->ag_name != NULL)
          log_warnx("auth-group for target \"%s\" "
              "specified more than once", target->t_name);
        else
          log_warnx("cannot use both auth-group and explicit "
              "authorisations for target \"%s\"", target->t_name);
        return false;
      }
      target->t_auth_group = auth_group_find(reader.conf, name);
      if (target->t_auth_group == NULL) {
        log_warnx("unknown auth-group \"%s\" for target \"%s\"",
            (const char *)name, target->t_name);
        return false;
      }
      return true;
    }))
      YYABORT;
  }
  ;

target_auth_type: AUTH_TYPE STR
  {
    token_text type($2);
    if (!guarded([&] {
      struct auth_group *ag = target_private_auth_group("auth-type");
      return ag != NULL && auth_group_set_type(ag, type) == 0;
    }))
      YYABORT;
  }
  ;

target_chap: CHAP STR STR
  {
    token_text user($2);
    token_text secret($3);
    if (!guarded([&] {
      struct auth_group *ag = target_private_auth_group("chap");
      return ag != NULL && auth_new_chap(ag, user, secret, true) != NULL;
    }))
      YYABORT;
  }
  ;

target_chap_mutual: CHAP_MUTUAL STR STR STR STR
  {
    token_text user($2);
    token_text secret($3);
    token_text mutual_user($4);
    token_text mutual_secret($5);
    if (!guarded([&] {
      struct auth_group *ag = target_private_auth_group("chap-mutual");
      return ag != NULL && auth_new_chap_mutual(ag, user, secret,
          mutual_user, mutual_secret, true) != NULL;
    }))
      YYABORT;
  }
  ;

target_initiator_name: INITIATOR_NAME STR
  {
    token_text name($2);
    if (!guarded([&] {
      struct auth_group *ag = target_private_auth_group("initiator-name");
      return ag != NULL && auth_name_new(ag, name) != NULL;
    }))
      YYABORT;
  }
  ;

target_initiator_portal: INITIATOR_PORTAL STR
  {
    token_text portal($2);
    if (!guarded([&] {
      struct auth_group *ag =
          target_private_auth_group("initiator-portal");
      return ag != NULL && auth_portal_new(ag, portal) != NULL;
    }))
      YYABORT;
  }
  ;

target_portal_group: PORTAL_GROUP STR STR
  {
    token_text pg_name($2);
    token_text ag_name($3);
    if (!guarded([&] {
      struct target *target = reader.target;
      struct portal_group *pg = portal_group_find(reader.conf, pg_name);
      if (pg == NULL) {
        log_warnx("unknown portal-group \"%s\" for target \"%s\"",
            (const char *)pg_name, target->t_name);
        return false;
      }
      struct auth_group *ag = auth_group_find(reader.conf, ag_name);
      if (ag == NULL) {
        log_warnx("unknown auth-group \"%s\" for target \"%s\"",
            (const char *)ag_name, target->t_name);
        return false;
      }
      struct port *port = port_new(reader.conf, target, pg);
      if (port == NULL) {
        log_warnx("can't link portal-group \"%s\" to target \"%s\"",
            (const char *)pg_name, target->t_name);
        return false;
      }
      port->p_auth_group = ag;
      return true;
    }))
      YYABORT;
  }
  | PORTAL_GROUP STR
  {
    token_text pg_name($2);
    if (!guarded([&] {
      struct target *target = reader.target;
      struct portal_group *pg = portal_group_find(reader.conf, pg_name);
      if (pg == NULL) {
        log_warnx("unknown portal-group \"%s\" for target \"%s\"",
            (const char *)pg_name, target->t_name);
        return false;
      }
      if (port_new(reader.conf, target, pg) == NULL) {
        log_warnx("can't link portal-group \"%s\" to target \"%s\"",
            (const char *)pg_name, target->t_name);
        return false;
      }
      return true;
    }))
      YYABORT;
  }
  ;

target_port: PORT STR
  {
    token_text name($2);
    if (!guarded([&] {
      struct target *target = reader.target;
      struct pport *pp = pport_find(reader.conf, name);
      if (pp == NULL) {
        log_warnx("unknown port \"%s\" for target \"%s\"",
            (const char *)name, target->t_name);
        return false;
      }
      if (!TAILQ_EMPTY(&pp->pp_ports)) {
        log_warnx("can't link port \"%s\" to target \"%s\", "
            "port already linked to some target",
            (const char *)name, target->t_name);
        return false;
      }
      if (port_new_pp(reader.conf, target, pp) == NULL) {
        log_warnx("can't link port \"%s\" to target \"%s\"",
            (const char *)name, target->t_name);
        return false;
      }
      return true;
    }))
      YYABORT;
  }
  ;

target_redirect: REDIRECT STR
  {
    token_text address($2);
    if (!guarded([&] {
      return target_set_redirection(reader.target, address) == 0;
    }))
      YYABORT;
  }
  ;

target_option: OPTION STR STR
  {
    token_text name($2);
    token_text value($3);
    if (!guarded([&] {
      return target_option_new(reader.target, name, value) != NULL;
    }))
      YYABORT;
  }
  ;

target_lun: LUN lun_number OPENING_BRACKET lun_entries CLOSING_BRACKET
  {
    reader.lun = NULL;
  }
  ;

lun_number: STR
  {
    token_text text($1);
    uint64_t number;
    if (!guarded([&] {
      if (!parse_lun_number(text, &number))
        return false;
      // A target name has at most 222 characters, so the ",L,0x" suffix
      // with its 16 digits always fits.
      char name[256];
      zeld_target_lun_name(name, sizeof(name), reader.target,
          (uint32_t)number);
      reader.lun = lun_new(reader.conf, name);
      if (reader.lun == NULL)
        return false;
      lun_set_zeld_lun(reader.lun, (uint32_t)number);
      reader.target->t_luns[number] = reader.lun;
      return true;
    }))
      YYABORT;
  }
  ;

target_lun_ref: LUN STR STR
  {
    token_text text($2);
    token_text name($3);
    uint64_t number;
    if (!guarded([&] {
      if (!parse_lun_number(text, &number))
        return false;
      struct lun *lun = lun_find(reader.conf, name);
      if (lun == NULL) {
        log_warnx("unknown lun \"%s\" for target \"%s\"",
            (const char *)name, reader.target->t_name);
        return false;
      }
      reader.target->t_luns[number] = lun;
      return true;
    }))
      YYABORT;
  }
  ;

lun_entries:
  %empty
  | lun_entries lun_entry
  | lun_entries lun_entry SEMICOLON
  ;

lun_entry:
  lun_backend
  | lun_blocksize
  | lun_device_id
  | lun_device_type
  | lun_ctl_lun
  | lun_option
  | lun_path
  | lun_serial
  | lun_size
  ;

lun_backend: BACKEND STR
  {
    token_text backend($2);
    if (!guarded([&] {
      if (reader.lun->l_backend != NULL) {
        log_warnx("backend for lun \"%s\" specified more than once",
            reader.lun->l_name);
        return false;
      }
      lun_set_backend(reader.lun, backend);
      return true;
    }))
      YYABORT;
  }
  ;

lun_blocksize: BLOCKSIZE STR
  {
    token_text text($2);
    uint64_t value;
    if (!guarded([&] {
      if (!parse_number(text, INT32_MAX, &value))
        return false;
      if (reader.lun->l_blocksize != 0) {
        log_warnx("blocksize for lun \"%s\" specified more than once",
            reader.lun->l_name);
        return false;
      }
      lun_set_blocksize(reader.lun, value);
      return true;
    }))
      YYABORT;
  }
  ;

lun_device_id: DEVICE_ID STR
  {
    token_text id($2);
    if (!guarded([&] {
      if (reader.lun->l_device_id != NULL) {
        log_warnx("device_id for lun \"%s\" specified more than once",
            reader.lun->l_name);
        return false;
      }
      lun_set_device_id(reader.lun, id);
      return true;
    }))
      YYABORT;
  }
  ;

lun_device_type: DEVICE_TYPE STR
  {
    token_text text($2);
    if (!guarded([&] {
      int type = parse_device_type(text);
      if (type < 0) {
        zeldParser_error("invalid device-type value");
        return false;
      }
      lun_set_device_type(reader.lun, (uint8_t)type);
      return true;
    }))
      YYABORT;
  }
  ;

lun_ctl_lun: CTL_LUN STR
  {
    token_text text($2);
    uint64_t value;
    if (!guarded([&] {
      if (!parse_number(text, UINT32_MAX, &value))
        return false;
      if (lun_ctl_lun_valid(reader.lun)) {
        log_warnx("ctl_lun for lun \"%s\" specified more than once",
            reader.lun->l_name);
        return false;
      }
      lun_set_ctl_lun(reader.lun, (uint32_t)value);
      return true;
    }))
      YYABORT;
  }
  ;

lun_option: OPTION STR STR
  {
    token_text name($2);
    token_text value($3);
    if (!guarded([&] {
      return option_new(&reader.lun->l_options, name, value) != NULL;
    }))
      YYABORT;
  }
  ;

lun_path: PATH STR
  {
    token_text path($2);
    if (!guarded([&] {
      if (reader.lun->l_path != NULL) {
        log_warnx("path for lun \"%s\" specified more than once",
            reader.lun->l_name);
        return false;
      }
      lun_set_path(reader.lun, path);
      return true;
    }))
      YYABORT;
  }
  ;

lun_serial: SERIAL STR
  {
    token_text serial($2);
    if (!guarded([&] {
      if (reader.lun->l_serial != NULL) {
        log_warnx("serial for lun \"%s\" specified more than once",
            reader.lun->l_name);
        return false;
      }
      lun_set_serial(reader.lun, serial);
      return true;
    }))
      YYABORT;
  }
  ;

lun_size: SIZE STR
  {
    token_text text($2);
    uint64_t value;
    if (!guarded([&] {
      if (!parse_number(text, UINT64_MAX, &value))
        return false;
      if (reader.lun->l_size != 0) {
        log_warnx("size for lun \"%s\" specified more than once",
            reader.lun->l_name);
        return false;
      }
      lun_set_size(reader.lun, value);
      return true;
    }))
      YYABORT;
  }
  ;

%%
