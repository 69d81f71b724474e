// The writer of zel.conf. It emits a subset of what the reader accepts, in a
// fixed order and spacing that other tools compare byte for byte: initiator
// groups come before the auth groups that reference them, because the reader
// resolves references as it goes.
#include <cinttypes>
#include <cstring>
#include <string>

#include "conf/ConfHandle.h"
#include "edit/Parser.h"
#include "platform/Log.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

using HostCtl::Lib::Orva::OrvaCtlException;

namespace {

// Secrets are stored Base64-encoded in a 32-byte buffer, so a secret whose
// encoding needs more than 31 characters cannot be saved.
std::string EncodeSecret(const char* secret) {
  char encoded[32];
  Parser::Base64EncodeWrapper(reinterpret_cast<const unsigned char*>(secret), strlen(secret),
                              encoded, sizeof(encoded));
  return encoded;
}

bool IsBuiltInOnlyGroup(const char* name) {
  return strcmp(name, "no-authentication") == 0 || strcmp(name, "no-access") == 0;
}

void WriteInitiatorGroups(FILE* out, const struct conf* conf) {
  const struct initiator_group* ig;
  TAILQ_FOREACH(ig, &conf->conf_initiator_groups, ig_next) {
    fprintf(out, "initiator-group %s {\n", ig->ig_name);
    const struct initiator* ini;
    TAILQ_FOREACH(ini, &ig->ig_initiators, i_next) fprintf(out, "\t initiator %s \n", ini->i_name);
    fprintf(out, "}\n");
  }
}

void WriteAuthGroup(FILE* out, const struct auth_group* ag) {
  fprintf(out, "auth-group %s {\n", ag->ag_name);
  if (TAILQ_EMPTY(&ag->ag_auths)) {
    fprintf(out, "\t auth-type none\n");
  }
  const struct auth* auth;
  TAILQ_FOREACH(auth, &ag->ag_auths, a_next) {
    if (ag->ag_type == AG_TYPE_CHAP) {
      ZEL_LOG_INFO("%s: found chap type auth %s\n", "ConfHandle", ag->ag_name);
      fprintf(out, "\t chap \"%s\" \"%s\" \n", auth->a_user, EncodeSecret(auth->a_secret).c_str());
    } else if (ag->ag_type == AG_TYPE_CHAP_MUTUAL) {
      ZEL_LOG_INFO("%s: found chap-mutual type auth %s\n", "ConfHandle", ag->ag_name);
      fprintf(out, "\t chap-mutual \"%s\" \"%s\" \"%s\" \"%s\"\n", auth->a_user,
              EncodeSecret(auth->a_secret).c_str(), auth->a_mutual_user,
              EncodeSecret(auth->a_mutual_secret).c_str());
    } else {
      // Deliberately without a line end: the file format has always been
      // written so, and readers accept what follows on the same line.
      fprintf(out, "\t auth-type none");
    }
  }
  const struct igroup_ref* ref;
  TAILQ_FOREACH(ref, &ag->ag_igroup_refs, igr_next) {
    fprintf(out, "\t initiator-group %s\n", ref->igr_initiator_group->ig_name);
  }
  const struct auth_name* name;
  TAILQ_FOREACH(name, &ag->ag_names, an_next) {
    fprintf(out, "\t initiator-name %s\n", name->an_initator_name);
  }
  fprintf(out, "}\n");
}

void WriteAuthGroups(FILE* out, const struct conf* conf) {
  const struct auth_group* ag;
  TAILQ_FOREACH(ag, &conf->conf_auth_groups, ag_next) {
    // A target's private group has no name to be written under; targets
    // that use one are refused when they are written.
    if (ag->ag_name == nullptr) continue;
    if (IsBuiltInOnlyGroup(ag->ag_name)) {
      ZEL_LOG_INFO("%s: Skipping default auth group\n", "ConfHandle");
      continue;
    }
    WriteAuthGroup(out, ag);
  }
}

void WritePortalGroups(FILE* out, const struct conf* conf) {
  const struct portal_group* pg;
  TAILQ_FOREACH(pg, &conf->conf_portal_groups, pg_next) {
    fprintf(out, "portal-group %s {\n", pg->pg_name);
    if (pg->pg_discovery_auth_group != nullptr && pg->pg_discovery_auth_group->ag_name != nullptr) {
      fprintf(out, "\t discovery-auth-group %s\n", pg->pg_discovery_auth_group->ag_name);
    }
    const struct portal* portal;
    TAILQ_FOREACH(portal, &pg->pg_portals, p_next) {
      if (portal->p_host == nullptr) continue;
      fprintf(out, "\t listen %s:%s\n", portal->p_host, portal->p_port);
      break;
    }
    fprintf(out, "}\n");
  }
}

void WriteLun(FILE* out, const struct lun* lun) {
  fprintf(out, "\tlun %d {\n", static_cast<int>(lun->l_zeld_lun));
  if (lun->l_backend != nullptr) fprintf(out, "\t\tbackend %s\n", lun->l_backend);
  if (lun->l_path != nullptr) fprintf(out, "\t\tpath %s\n", lun->l_path);
  fprintf(out, "\t\tsize %" PRId64 "\n", static_cast<int64_t>(lun->l_size));
  const struct option* o;
  TAILQ_FOREACH(o, &lun->l_options, o_next) {
    fprintf(out, "\t\toption %s \"%s\"\n", o->o_name, o->o_value);
  }
  fprintf(out, "\t}\n");
}

void WriteTarget(FILE* out, const struct target* target) {
  if (target->t_auth_group != nullptr && target->t_auth_group->ag_name == nullptr) {
    throw OrvaCtlException(std::string("Cannot write target \"") + target->t_name +
                           "\": its authorisations are not in a named auth-group");
  }
  fprintf(out, "target %s {\n", target->t_name);
  if (target->t_alias != nullptr) fprintf(out, "\talias \"%s\"\n", target->t_alias);
  const struct port* port = zeld_target_to_port(target);
  if (port != nullptr && port->p_portal_group != nullptr) {
    fprintf(out, "\tportal-group %s\n", port->p_portal_group->pg_name);
  }
  if (target->t_auth_group != nullptr) {
    fprintf(out, "\tauth-group %s\n", target->t_auth_group->ag_name);
  }
  const struct target_option* to;
  TAILQ_FOREACH(to, &target->t_options, to_next) {
    fprintf(out, "\toption %s %s\n", to->to_name, to->to_value);
  }
  for (const struct lun* lun : target->t_luns) {
    if (lun != nullptr) WriteLun(out, lun);
  }
  fprintf(out, "}\n");
}

}  // namespace

void ConfHandle::_WriteConfigToFile(FILE* out) {
  fprintf(out, "generation %" PRIu64 "\n", conf->conf_generation);
  const struct conf_option* co;
  TAILQ_FOREACH(co, &conf->conf_options, co_next) {
    fprintf(out, "option %s %s\n", co->co_name, co->co_value);
  }
  WriteInitiatorGroups(out, conf);
  WriteAuthGroups(out, conf);
  WritePortalGroups(out, conf);
  const struct target* target;
  TAILQ_FOREACH(target, &conf->conf_targets, t_next) WriteTarget(out, target);
}

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
