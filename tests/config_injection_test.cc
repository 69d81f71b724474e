// Text that reaches zel.conf from outside must never change the file's
// structure: every field an operator types is tried with the characters that
// mean something to the file format. Each attempt is either refused with a
// message (and the file stays byte-identical) or stored and read back
// unchanged; the file parses after every attempt.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "conf/ConfHandle.h"
#include "platform/Host.h"
#include "support/FakeNetworkInterfaces.h"
#include "support/Messages.h"
#include "support/ServiceHome.h"

namespace zel {
namespace test {
namespace {

using HostCtl::Orva::IscsiTarget::TargetCreateParam;
using NokCtl::Orva::IscsiTarget::ConfHandle;

const std::vector<std::string> kHostile = {"\"", "{", "}", ";", "\n", "\t", "#", "\xc3\xa9\xff"};

std::string Printable(const std::string& text) {
  std::string out;
  for (const unsigned char c : text) {
    out += std::isprint(c) ? std::string(1, static_cast<char>(c)) : "\\x" + std::to_string(c);
  }
  return out;
}

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

class ConfigInjectionTest : public ::testing::Test {
 protected:
  ConfigInjectionTest() {
    home_.InstallTestHost();
    auto nics = std::make_unique<FakeNetworkInterfaces>();
    nics->Set("nok0", platform::NOKNIC_UP);
    platform::CurrentHost().SetNics(std::move(nics));
    service_ = NewService();
  }

  // Runs `store`; a refusal must leave the file as it was, an acceptance
  // must read back through `readBack`. Either way the file must parse.
  void TryField(const std::string& field, const std::string& hostile,
                const std::function<void()>& store, const std::function<bool()>& readBack) {
    SCOPED_TRACE(field + " with " + Printable(hostile));
    const std::string before = ReadFile(home_.ConfPath());
    const std::string refusal = MessageOf(store);
    if (refusal.empty()) {
      ++stored_;
      EXPECT_TRUE(readBack()) << "stored but read back differently";
    } else {
      EXPECT_EQ(ReadFile(home_.ConfPath()), before) << "refused (" << refusal
                                                     << ") but the file changed";
    }
    EXPECT_NO_THROW(ConfHandle(ConfHandle::kShareMode, home_.ConfPath()))
        << ReadFile(home_.ConfPath());
  }

  TargetCreateParam Chap(const std::string& alias, const std::string& user,
                         const std::string& secret) {
    TargetCreateParam param;
    param.alias = alias;
    param.iqn = "iqn.2026-11.local.zel:" + std::to_string(++serial_);
    param.authType = "CHAP";
    param.userid = user;
    param.secret = secret;
    return param;
  }

  ServiceHome home_;
  std::unique_ptr<HostCtl::Orva::IscsiTarget::OrvaIscsiTarget> service_;
  int serial_ = 0;
  int stored_ = 0;  // attempts the service accepted
};

TEST_F(ConfigInjectionTest, TargetFieldsAreRefusedOrStoredVerbatim) {
  for (const std::string& hostile : kHostile) {
    const std::string alias = "a" + hostile + "z";
    TryField("alias", hostile, [&] {
      TargetCreateParam param = Chap(alias, "user", "Abcdefgh#123");
      service_->AddTarget(param);
    }, [&] { return service_->GetTargetInfo(alias).alias == alias; });

    const std::string iqn = "iqn.2026-11.local.zel:x" + hostile;
    TryField("iqn", hostile, [&] {
      TargetCreateParam param = Chap("iqn" + std::to_string(serial_), "user", "Abcdefgh#123");
      param.iqn = iqn;
      service_->AddTarget(param);
    }, [&] { return false; });

    const std::string user = "u" + hostile;
    const std::string userAlias = "user" + std::to_string(serial_);
    TryField("userid", hostile, [&] {
      TargetCreateParam param = Chap(userAlias, user, "Abcdefgh#123");
      service_->AddTarget(param);
    }, [&] { return service_->GetTargetInfo(userAlias).userid == user; });

    const std::string secret = "Abcdefgh#12" + hostile;
    const std::string secretAlias = "secret" + std::to_string(serial_);
    TryField("secret", hostile, [&] {
      TargetCreateParam param = Chap(secretAlias, "user", secret);
      service_->AddTarget(param);
    }, [&] {
      // Secrets are never reported; the file itself must hold this one.
      ConfHandle handle(ConfHandle::kShareMode, home_.ConfPath());
      for (const struct auth_group* ag = TAILQ_FIRST(&handle.conf->conf_auth_groups);
           ag != nullptr; ag = TAILQ_NEXT(ag, ag_next)) {
        const struct auth* auth = TAILQ_FIRST(&ag->ag_auths);
        if (auth != nullptr && secret == auth->a_secret) return true;
      }
      return false;
    });

    const std::string policy = "\"thinProvisioned\" \"true" + hostile + "\"";
    const std::string policyAlias = "policy" + std::to_string(serial_);
    TryField("policy", hostile, [&] {
      TargetCreateParam param = Chap(policyAlias, "user", "Abcdefgh#123");
      param.policy = policy;
      service_->AddTarget(param);
    }, [&] { return service_->GetTargetInfo(policyAlias).policy == policy; });

    TryField("affinity", hostile, [&] {
      TargetCreateParam param;
      param.alias = "lab";
      param.faultDomain = "Preferred" + hostile;
      service_->UpdateTargetConfig(param);
    }, [&] { return false; });
  }
  // Braces, semicolons, tabs, "#" and non-ASCII bytes are legal in aliases,
  // secrets and policies: those must have been stored, not refused.
  EXPECT_GE(stored_, 12);
}

TEST_F(ConfigInjectionTest, InitiatorAndGroupNamesAreRefusedOrStoredVerbatim) {
  for (const std::string& hostile : kHostile) {
    const std::string group = "g" + hostile;
    TryField("initiator group", hostile, [&] { service_->AddInitiatorgroup(group); },
             [&] { return service_->GetInitiatorgroupInfo(group).name == group; });

    const std::string initiator = "iqn.2024-01.org.example:i" + hostile;
    TryField("group member", hostile,
             [&] { service_->AddInitiatorsToInitiatorgroup("finance-hosts", {initiator}); },
             [&] {
               const auto members = service_->GetInitiatorgroupInfo("finance-hosts").initiators;
               return std::find(members.begin(), members.end(), Lower(initiator)) !=
                      members.end();
             });

    TryField("target initiator", hostile, [&] {
      TargetCreateParam param;
      param.alias = "lab";
      param.initiatorsToAdd = {initiator};
      service_->UpdateTargetConfig(param);
    }, [&] {
      const auto names = service_->GetTargetInfo("lab").initiators;
      return std::find(names.begin(), names.end(), initiator) != names.end();
    });
  }
  EXPECT_EQ(stored_, 0) << "initiator and group names have strict forms";
}

}  // namespace
}  // namespace test
}  // namespace zel
