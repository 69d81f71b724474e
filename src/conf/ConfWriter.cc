// The writer of zel.conf. It emits a subset of what the reader accepts, in a
// fixed order and spacing that other tools compare byte for byte: initiator
// groups come before the auth groups that reference them, because the reader
// resolves references as it goes.
#include <cstring>
#include <string>

#include "conf/ConfHandle.h"
#include "conf/ParserAuth.h"
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

// The text is assembled in memory and written with one call: formatting
// each line through stdio costs several times the save's own I/O.
class Text {
 public:
  // Room for the largest configuration the service admits, so the text is
  // never copied while it grows.
  Text() { text_.reserve(1 << 20); }
  Text& operator<<(const char* piece) {
    text_.append(piece);
    return *this;
  }
  Text& operator<<(const std::string& piece) {
    text_.append(piece);
    return *this;
  }
  Text& operator<<(uint64_t number) { return *this << std::to_string(number); }
  Text& operator<<(int64_t number) { return *this << std::to_string(number); }
  Text& operator<<(int number) { return *this << std::to_string(number); }
  const std::string& str() const { return text_; }

 private:
  std::string text_;
};

bool IsBuiltInOnlyGroup(const char* name) {
  return strcmp(name, "no-authentication") == 0 || strcmp(name, "no-access") == 0;
}

void WriteInitiatorGroups(Text& out, const struct conf* conf) {
  const struct initiator_group* ig;
  TAILQ_FOREACH(ig, &conf->conf_initiator_groups, ig_next) {
    out << "initiator-group " << ig->ig_name << " {\n";
    const struct initiator* ini;
    TAILQ_FOREACH(ini, &ig->ig_initiators, i_next) out << "\t initiator " << ini->i_name << " \n";
    out << "}\n";
  }
}

void WriteAuthGroup(Text& out, const struct auth_group* ag) {
  out << "auth-group " << ag->ag_name << " {\n";
  if (TAILQ_EMPTY(&ag->ag_auths)) {
    out << "\t auth-type none\n";
  }
  const struct auth* auth;
  TAILQ_FOREACH(auth, &ag->ag_auths, a_next) {
    if (ag->ag_type == AG_TYPE_CHAP) {
      ZEL_LOG_INFO("%s: found chap type auth %s\n", "ConfHandle", ag->ag_name);
      out << "\t chap \"" << auth->a_user << "\" \"" << EncodeSecret(auth->a_secret) << "\" \n";
    } else if (ag->ag_type == AG_TYPE_CHAP_MUTUAL) {
      ZEL_LOG_INFO("%s: found chap-mutual type auth %s\n", "ConfHandle", ag->ag_name);
      out << "\t chap-mutual \"" << auth->a_user << "\" \"" << EncodeSecret(auth->a_secret)
          << "\" \"" << auth->a_mutual_user << "\" \"" << EncodeSecret(auth->a_mutual_secret)
          << "\"\n";
    } else {
      // Deliberately without a line end: the file format has always been
      // written so, and readers accept what follows on the same line.
      out << "\t auth-type none";
    }
  }
  const struct igroup_ref* ref;
  TAILQ_FOREACH(ref, &ag->ag_igroup_refs, igr_next) {
    out << "\t initiator-group " << ref->igr_initiator_group->ig_name << "\n";
  }
  const struct auth_name* name;
  TAILQ_FOREACH(name, &ag->ag_names, an_next) {
    out << "\t initiator-name " << name->an_initator_name << "\n";
  }
  out << "}\n";
}

void WriteAuthGroups(Text& out, const struct conf* conf) {
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

void WritePortalGroups(Text& out, const struct conf* conf) {
  const struct portal_group* pg;
  TAILQ_FOREACH(pg, &conf->conf_portal_groups, pg_next) {
    out << "portal-group " << pg->pg_name << " {\n";
    if (pg->pg_discovery_auth_group != nullptr && pg->pg_discovery_auth_group->ag_name != nullptr) {
      out << "\t discovery-auth-group " << pg->pg_discovery_auth_group->ag_name << "\n";
    }
    const struct portal* portal;
    TAILQ_FOREACH(portal, &pg->pg_portals, p_next) {
      if (portal->p_host == nullptr) continue;
      out << "\t listen " << portal->p_host << ":" << portal->p_port << "\n";
      break;
    }
    out << "}\n";
  }
}

void WriteLun(Text& out, const struct lun* lun) {
  out << "\tlun " << static_cast<int>(lun->l_zeld_lun) << " {\n";
  if (lun->l_backend != nullptr) out << "\t\tbackend " << lun->l_backend << "\n";
  if (lun->l_path != nullptr) out << "\t\tpath " << lun->l_path << "\n";
  out << "\t\tsize " << static_cast<int64_t>(lun->l_size) << "\n";
  const struct option* o;
  TAILQ_FOREACH(o, &lun->l_options, o_next) {
    out << "\t\toption " << o->o_name << " \"" << o->o_value << "\"\n";
  }
  out << "\t}\n";
}

void WriteTarget(Text& out, const struct target* target) {
  if (target->t_auth_group != nullptr && target->t_auth_group->ag_name == nullptr) {
    throw OrvaCtlException(std::string("Cannot write target \"") + target->t_name +
                           "\": its authorisations are not in a named auth-group");
  }
  out << "target " << target->t_name << " {\n";
  if (target->t_alias != nullptr) out << "\talias \"" << target->t_alias << "\"\n";
  const struct port* port = zeld_target_to_port(target);
  if (port != nullptr && port->p_portal_group != nullptr) {
    out << "\tportal-group " << port->p_portal_group->pg_name << "\n";
  }
  if (target->t_auth_group != nullptr) {
    out << "\tauth-group " << target->t_auth_group->ag_name << "\n";
  }
  const struct target_option* to;
  TAILQ_FOREACH(to, &target->t_options, to_next) {
    out << "\toption " << to->to_name << " " << to->to_value << "\n";
  }
  for (const struct lun* lun : target->t_luns) {
    if (lun != nullptr) WriteLun(out, lun);
  }
  out << "}\n";
}

}  // namespace

void ConfHandle::_WriteConfigToFile(FILE* out) {
  Text text;
  text << "generation " << static_cast<uint64_t>(conf->conf_generation) << "\n";
  const struct conf_option* co;
  TAILQ_FOREACH(co, &conf->conf_options, co_next) {
    text << "option " << co->co_name << " " << co->co_value << "\n";
  }
  WriteInitiatorGroups(text, conf);
  WriteAuthGroups(text, conf);
  WritePortalGroups(text, conf);
  const struct target* target;
  TAILQ_FOREACH(target, &conf->conf_targets, t_next) WriteTarget(text, target);
  fwrite(text.str().data(), 1, text.str().size(), out);
}

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
