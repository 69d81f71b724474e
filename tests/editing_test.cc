// zel.conf through the service: edits and what reads back, the limits, each
// save's published generation, refusals that change nothing, the cache,
// hostile text, concurrent zelctls, and the checks on input from outside.
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <nlohmann/json.hpp>

#include "cache/ConfigCache.h"
#include "conf/ConfHandle.h"
#include "conf_fixture.h"
#include "directory/DirectoryEntries.h"
#include "edit/DefaultsEditor.h"
#include "edit/NamePatterns.h"
#include "edit/NetworkValidation.h"
#include "edit/Validation.h"
#include "edit/Parser.h"
#include "edit/ParserQueries.h"
#include "platform/Host.h"
#include "platform/local/LocalClusterFacts.h"
#include "storage/DatastoreLayout.h"
#include "support/FakeNetworkInterfaces.h"
#include "support/Process.h"
#include "support/ServiceHome.h"

namespace zel {
namespace test {
namespace {

using HostCtl::Orva::IscsiTarget::DefaultInfo;
using HostCtl::Orva::IscsiTarget::OrvaIscsiTarget;
using HostCtl::Orva::IscsiTarget::TargetCreateParam;
using HostCtl::Orva::IscsiTarget::TargetInfo;
using NokCtl::Orva::IscsiTarget::ConfHandle;
using NokCtl::Orva::IscsiTarget::ConfigCache;
using NokCtl::Orva::IscsiTarget::Util::GetConfFilePath;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
namespace fs = std::filesystem;
namespace Parser = NokCtl::Orva::IscsiTarget::Parser;
namespace Util = NokCtl::Orva::IscsiTarget::Util;

constexpr uint64_t kNone = ~uint64_t{0};
const std::string kIqn = "iqn.2024-01.org.example:";

DefaultInfo Defaults(const std::string& type, const std::string& user = "",
                     const std::string& secret = "", const std::string& mutualUser = "",
                     const std::string& mutualSecret = "") {
  DefaultInfo info;
  info.authType = type;
  info.userid = user;
  info.secret = secret;
  info.mutualUserid = mutualUser;
  info.mutualSecret = mutualSecret;
  return info;
}
TargetCreateParam Param(const std::string& alias, const std::string& iqn = "",
                        const std::string& nic = "", int32_t port = 3260) {
  TargetCreateParam param;
  param.alias = alias;
  param.iqn = iqn.empty() ? "" : "iqn.2026-11.local.zel:" + iqn;
  param.networkInterface = nic;
  param.port = port;
  return param;
}
TargetCreateParam Chap(TargetCreateParam param, const std::string& user,
                       const std::string& secret) {
  param.authType = "CHAP";
  param.userid = user;
  param.secret = secret;
  return param;
}
// `text` (kStandardConf by default) with `from` replaced by `to`.
std::string StandardWith(const std::string& from, const std::string& to,
                         std::string text = kStandardConf) {
  const size_t at = text.find(from);
  EXPECT_NE(at, std::string::npos) << from;
  if (at != std::string::npos) text.replace(at, from.size(), to);
  return text;
}
class EditingTest : public ::testing::Test {
 protected:
  EditingTest() { UseHost(); }
  // A host that reads host.json again; the service object goes first, since
  // it holds a session of the old host's policy service.
  void Reinstall() {
    service_.reset();
    services_ = home_.InstallTestHost();
    UseHost();
  }
  // The selected host's interfaces, and a service object on it.
  void UseHost() {
    auto nics = std::make_unique<FakeNetworkInterfaces>();
    // Real kernel names that zel.conf cannot keep in an unquoted word too.
    for (const char* name : {"nok0", "nok1", "nok1:1", "nok#2"})
      nics->Set(name, platform::NOKNIC_UP);
    platform::CurrentHost().SetNics(std::move(nics));
    service_ = NewService();
  }
  std::string Conf() const { return ReadFile(home_.ConfPath()); }
  uint64_t Generation() const { return std::stoull(Conf().substr(sizeof("generation"))); }
  uint64_t Published() const {
    uint64_t generation = kNone;
    return ZeldGetConfigGenNumInBrix(&generation) == NOK_OK ? generation : kNone;
  }
  std::vector<std::string> TargetLinks() const {
    std::vector<std::string> links;
    for (const auto& entry : fs::directory_iterator(Util::GetTargetsDirPath()))
      links.push_back(entry.path().filename());
    return links;
  }
  TargetInfo Target(const std::string& alias) { return service_->GetTargetInfo(alias); }
  std::vector<std::string> Members(const std::string& group) {
    return service_->GetInitiatorgroupInfo(group).initiators;
  }
  // The refusal `operation` throws; file, publication and datastore must be unchanged.
  std::string RefusalChangingNothing(const std::function<void()>& operation) {
    const std::string conf = Conf();
    const uint64_t published = Published();
    const auto entries = [] {
      const fs::directory_iterator all(platform::CurrentHost().Config().datastoreRoot);
      return std::distance(all, fs::directory_iterator{});
    };
    const auto datastore = entries();
    const std::vector<std::string> links = TargetLinks();
    const std::string message = MessageOf(operation);
    EXPECT_EQ(Conf(), conf);
    EXPECT_EQ(Published(), published);
    EXPECT_EQ(entries(), datastore);
    EXPECT_EQ(TargetLinks(), links);
    return message;
  }
  ServiceHome home_;
  TestServices services_ = home_.InstallTestHost();
  std::unique_ptr<OrvaIscsiTarget> service_;
};

const char kStandardDefaultAuth[] =
    "\t chap-mutual \"defuser\" \"RGVmYXVsdCNTZWNyZXQx\" \"defmutual\" \"TXV0dWFsI1NlY3JldDIy\"\n";
const char kStandardListen[] = "\t listen nok0:3260\n";

TEST_F(EditingTest, ChapDefaultsReplaceOnlyTheirLinesAndEachSaveRaisesAndPublishesTheGeneration) {
  DefaultInfo info = Defaults("CHAP", "newuser", "Abcdefgh#123");
  info.networkInterface = "nok1";
  info.port = 3261;
  Parser::UpdateDefaultConfig(info);
  // The writer stores the secret Base64-encoded, never in the clear.
  std::string expected = StandardWith("generation 7\n", "generation 8\n");
  expected =
      StandardWith(kStandardDefaultAuth, "\t chap \"newuser\" \"QWJjZGVmZ2gjMTIz\" \n", expected);
  EXPECT_EQ(Conf(), StandardWith(kStandardListen, "\t listen nok1:3261\n", expected));
  EXPECT_EQ(Published(), 8u);
  Parser::UpdateDefaultConfig(Defaults("No-Authentication"));
  EXPECT_EQ(Generation(), 9u);
  EXPECT_EQ(Published(), 9u);
}
// Secrets read back but never stand in clear; an empty type means no authentication.
TEST_F(EditingTest, DefaultsReadBackThroughTheReader) {
  DefaultInfo mutual =
      Defaults("CHAP-Mutual", "initiator-side", "Outgoing#Sec1", "target-side", "Incoming#Sec2");
  mutual.networkInterface = "nok2";
  mutual.port = 65535;
  DefaultInfo none = Defaults("");
  none.networkInterface = "nok0";
  none.port = 3260;
  int generation = 7;  // each run starts where the last one's save left it
  for (const DefaultInfo& info : {mutual, Defaults("No-Authentication"), none}) {
    home_.WriteConf("generation " + std::to_string(generation++) +
                    std::string(kStandardConf).substr(12));
    Parser::UpdateDefaultConfig(info);
    const DefaultInfo back = Parser::GetDefaultInfo(true);
    const auto fields = [](const DefaultInfo& i) {
      return std::vector<std::string>{i.authType.empty() ? "No-Authentication" : i.authType,
                                      i.userid, i.secret, i.mutualUserid, i.mutualSecret,
                                      i.networkInterface.empty() ? "nok0" : i.networkInterface,
                                      std::to_string(i.port)};
    };
    EXPECT_EQ(fields(back), fields(info)) << info.authType;
    EXPECT_EQ(Conf().find("#Sec"), std::string::npos);
    EXPECT_EQ(info.authType == "CHAP-Mutual",
              Conf().find("auth-group default {\n\t auth-type none\n}\n") == std::string::npos);
  }
}
TEST_F(EditingTest, DefaultsKeepTheListenAddressUnlessGivenOneAndDropTheCache) {
  home_.WriteConf(StandardWith(kStandardListen, "\t listen nok3:4000\n"));
  Parser::GetDefaultInfo(false);
  ASSERT_EQ(ConfigCache::GetCachedConfGenNumber(), 7u);
  Parser::UpdateDefaultConfig(Defaults("CHAP", "u", "Abcdefgh#123"));
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), kNone);
  DefaultInfo back = Parser::GetDefaultInfo(false);
  EXPECT_EQ(back.authType, "CHAP");
  EXPECT_EQ(back.networkInterface, "nok3");
  EXPECT_EQ(back.port, 4000);
  // A given interface leaves exactly one listen address.
  home_.WriteConf("generation 8" +  // where the save above left it
                  StandardWith(kStandardListen,
                               "\t listen nok0:3260\n\t listen nok1:3260\n\t listen nok2:3260\n")
                      .substr(12));
  DefaultInfo info = Defaults("No-Authentication");
  info.networkInterface = "nok5";
  Parser::UpdateDefaultConfig(info);
  ConfHandle handle(ConfHandle::kShareMode, GetConfFilePath());
  const struct portal* portal = TAILQ_FIRST(&portal_group_find(handle.conf, "default")->pg_portals);
  ASSERT_NE(portal, nullptr);
  EXPECT_STREQ(portal->p_host, "nok5");
  EXPECT_STREQ(portal->p_port, "3260");
  EXPECT_EQ(TAILQ_NEXT(portal, p_next), nullptr);
}
TEST_F(EditingTest, FailedPublicationKeepsTheSaveAndStillDropsTheCache) {
  Parser::GetDefaultInfo(false);
  // The file stays reachable, but no namespace identity to publish under.
  const std::string root = home_.Path() + "/datastore";
  fs::rename(home_.NamespaceDir(), root + "/not-a-namespace-identity");
  fs::remove(root + "/.iSCSI-CONFIG");
  fs::create_directory_symlink("not-a-namespace-identity", root + "/.iSCSI-CONFIG");
  EXPECT_EQ(MessageOf([] { Parser::UpdateDefaultConfig(Defaults("No-Authentication")); }),
            "Failed to Update ZEL conf entry into BRIX with error: Failure");
  EXPECT_EQ(ReadFile(root + "/.iSCSI-CONFIG/etc/zel.conf").rfind("generation 8\n", 0), 0u);
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), kNone);
}
// The file layer's failures themselves are swept in conf_file_test.
TEST_F(EditingTest, FailedDefaultsSaveChangesNothingAndPublishesNothing) {
  services_.files->FailNext(FileOp::AtomicUpdate, FILEIO_ERROR);
  EXPECT_EQ(
      RefusalChangingNothing([] { Parser::UpdateDefaultConfig(Defaults("No-Authentication")); }),
      "Failed to swap config and temp config");
  EXPECT_EQ(Parser::GetDefaultInfo(false).userid, "defuser");
}
TEST_F(EditingTest, NewChapTargetWithAclIsSavedPublishedAndReadBack) {
  TargetCreateParam param =
      Chap(Param("payroll", "Payroll", "nok1", 3270), "payroll-user", "Payroll#Secret1");
  param.initiatorsToAdd = {kIqn + "pay-db", "finance-hosts"};
  service_->AddTarget(param);
  const TargetInfo target = Target("payroll");
  EXPECT_EQ((std::vector<std::string>{target.iqn, target.uuid, target.ownerId,
                                      target.ownerHostUuid, target.networkInterface,
                                      target.authType, target.userid}),
            (std::vector<std::string>{"iqn.2026-11.local.zel:payroll", param.uuid, param.uuid,
                                      home_.HostUuid(), "nok1", "CHAP", "payroll-user"}));
  EXPECT_EQ(target.port, 3270);
  EXPECT_THAT(target.initiators, ElementsAre(kIqn + "pay-db"));
  EXPECT_THAT(target.initiatorGroups, ElementsAre("finance-hosts"));
  const std::string conf = Conf();
  EXPECT_EQ((std::pair<uint64_t, uint64_t>{8, 8}), std::make_pair(Generation(), Published()));
  EXPECT_NE(conf.find("portal-group pg-nok1-3270 {\n\t listen nok1:3270\n}\n"), std::string::npos)
      << conf;
  EXPECT_NE(conf.find("auth-group " + param.uuid + " {\n"), std::string::npos);
  EXPECT_EQ(conf.find("Payroll#Secret1"), std::string::npos);
  EXPECT_THAT(TargetLinks(), ElementsAre(param.uuid));
  // An empty IQN is generated and handed back.
  TargetCreateParam generated = Param("generated one");
  service_->AddTarget(generated);
  EXPECT_TRUE(Util::IsValidInitiatorIQN(generated.iqn)) << generated.iqn;
  EXPECT_EQ(generated.iqn.rfind("iqn.1998-01.", 0), 0u) << generated.iqn;
  EXPECT_EQ(Target("generated one").iqn, generated.iqn);
}
TEST_F(EditingTest, RefusedNewTargetsChangeNothing) {
  TargetCreateParam twin = Param("Finance", "f2");  // aliases are exact
  service_->AddTarget(twin);
  EXPECT_EQ(Target("Finance").iqn, "iqn.2026-11.local.zel:f2");
  struct Case {
    TargetCreateParam param;
    std::string message;
  };
  std::vector<Case> cases = {
      {Param("finance", "f3"), "Target alias finance already exists."},
      {Param("other", "FINANCE"), "Target iqn iqn.2026-11.local.zel:FINANCE already exists."},
      {Param("acl", "acl"),
       "Failed to add initiator group no-such-group to target acl: no-such-group is neither a "
       "valid initiator IQN nor a predefined Initiator group "},
  };
  cases.back().param.initiatorsToAdd = {"no-such-group"};
  for (const std::string name : {"nok1:1", "nok#2"}) {
    cases.push_back({Param("odd", "odd", name),
                     "Network interface " + name + " cannot be used: only letters, digits, '.', "
                                                   "'_' and '-' can be stored in its name"});
  }
  for (Case& c : cases) {
    EXPECT_EQ(RefusalChangingNothing([&] { service_->AddTarget(c.param); }), c.message);
  }
  home_.WriteConf(StandardWith(kStandardListen, ""));
  TargetCreateParam nowhere = Param("nowhere", "nowhere");
  EXPECT_EQ(RefusalChangingNothing([&] { service_->AddTarget(nowhere); }),
            "Default network interface not found.");
}
TEST_F(EditingTest, TheHundredTwentyNinthTargetIsRefused) {
  std::string text = kStandardConf;
  for (int n = 0; n < 125; ++n) {
    const std::string id = std::to_string(n);
    text += "target iqn.2026-11.local.zel:extra-" + id + " {\n\talias \"extra-" + id +
            "\"\n\tportal-group default\n\toption uuid 00000000-0000-4000-8000-" +
            std::string(12 - id.size(), '0') + id + "\n}\n";
  }
  home_.WriteConf(text);
  TargetCreateParam last = Param("last", "last");
  service_->AddTarget(last);
  TargetCreateParam beyond = Param("beyond", "beyond");
  EXPECT_EQ(RefusalChangingNothing([&] { service_->AddTarget(beyond); }),
            "Limit on total number of targets (128) has been reached.");
}
TEST_F(EditingTest, FailedSaveRemovesTheNewNamespaceAgain) {
  services_.files->FailNext(FileOp::AtomicUpdate, FILEIO_ERROR);
  TargetCreateParam param = Param("doomed", "doomed");
  EXPECT_EQ(RefusalChangingNothing([&] { service_->AddTarget(param); }),
            "Failed to swap config and temp config");
  EXPECT_TRUE(services_.log->Contains(
      "OrvaIscsiTargetImpl: Add target doomed failed: Failed to swap config and temp config "
      "rollback by deleting target namespace"));
}
TEST_F(EditingTest, RemovalTakesItsGroupsButKeepsSharedOnesAndRefusesBusyTargets) {
  EXPECT_EQ(RefusalChangingNothing([&] { service_->RemoveTarget("finance"); }),
            "Target finance is not empty.");
  EXPECT_EQ(RefusalChangingNothing([&] { service_->RemoveTarget("Lab"); }),
            "Target Lab is not found.");
  TargetCreateParam first = Chap(Param("first", "first", "nok1"), "first", "First#Secret12");
  service_->AddTarget(first);
  TargetCreateParam second = Param("second", "second", "nok1");
  service_->AddTarget(second);
  service_->RemoveTarget("first");
  EXPECT_NE(Conf().find("portal-group pg-nok1-3260"), std::string::npos);
  EXPECT_EQ(Conf().find("auth-group " + first.uuid), std::string::npos);
  EXPECT_THAT(TargetLinks(), ElementsAre(second.uuid));
  service_->RemoveTarget("second");
  EXPECT_EQ(Conf().find("pg-nok1-3260"), std::string::npos);
  EXPECT_NE(Conf().find("portal-group default"), std::string::npos);
  EXPECT_NE(Conf().find("auth-group default"), std::string::npos);
  EXPECT_THAT(TargetLinks(), IsEmpty());
  EXPECT_EQ(Published(), 11u);
}
TEST_F(EditingTest, RemovalKeepsAnOwnGroupThatAHandEditedTargetShares) {
  TargetCreateParam solo = Chap(Param("solo", "solo"), "solo", "Solo#Secret123");
  service_->AddTarget(solo);
  home_.WriteConf(Conf() + "target iqn.2026-11.local.zel:twin {\n\talias \"twin\"\n\tauth-group " +
                  solo.uuid + "\n\toption uuid 00000000-0000-4000-8000-000000000001\n}\n");
  service_->RemoveTarget("solo");
  const std::vector<TargetInfo> left = service_->GetTargets(false, false);
  ASSERT_EQ(left.back().alias, "twin");
  EXPECT_EQ(left.back().userid, "solo");
  EXPECT_NE(Conf().find("auth-group " + solo.uuid + " {"), std::string::npos);
}
TEST_F(EditingTest, UpdateRenamesOnlyToAFreeAlias) {
  TargetCreateParam clash = Param("lab");
  clash.newAlias = "finance";
  EXPECT_EQ(RefusalChangingNothing([&] { service_->UpdateTargetConfig(clash); }),
            "Can't change target alias to finance, because target alias finance already exists");
  TargetCreateParam quoted = Param("lab");
  quoted.newAlias = "a\"b";
  EXPECT_EQ(RefusalChangingNothing([&] { service_->UpdateTargetConfig(quoted); }),
            "'\"' not permitted in alias");
  TargetCreateParam rename = Param("lab");
  rename.newAlias = "Finance";
  service_->UpdateTargetConfig(rename);
  EXPECT_EQ(Target("Finance").uuid, kLabUuid);
  EXPECT_EQ(MessageOf([&] { Target("lab"); }), "Target lab not found");
}
TEST_F(EditingTest, UpdateMovesPortalsAndEditsTheAcl) {
  TargetCreateParam move = Param("lab", "", "nok1", 4000);
  move.initiatorsToAdd = {kIqn + "lab-1", "finance-hosts"};
  move.faultDomain = "Preferred";
  EXPECT_EQ(RefusalChangingNothing([&] { service_->UpdateTargetConfig(move); }),
            "ZEL support stretched cluster is disabled");
  home_.SetHostSetting("options", {{"ORVA.ZelStretchedCluster", 1}});
  Reinstall();
  EXPECT_EQ(RefusalChangingNothing([&] { service_->UpdateTargetConfig(move); }),
            "This host is not in stretched cluster");
  home_.SetHostSetting("faultDomain", "site-a");
  Reinstall();
  zel::platform::HostConfig peer = zel::platform::LoadHostConfig(home_.Path());
  peer.hostUuid = zel::test::kPeerHostUuid;
  peer.faultDomain = "site-b";
  ASSERT_EQ(zel::platform::LocalClusterFacts(peer, *services_.directory).Announce(), NOK_OK);
  ASSERT_EQ(zel::platform::CurrentHost().Cluster().SetPreferredFaultDomain("site-a"), NOK_OK);
  service_->UpdateTargetConfig(move);
  TargetInfo lab = Target("lab");
  EXPECT_EQ((std::vector<std::string>{lab.networkInterface, std::to_string(lab.port), lab.authType,
                                      lab.faultDomain}),
            (std::vector<std::string>{"nok1", "4000", "CHAP-Mutual", "Preferred"}));
  EXPECT_THAT(lab.initiators, ElementsAre(kIqn + "lab-1"));
  TargetCreateParam back = Param("lab", "", "nok0");
  back.initiatorsToRemove = {"finance-hosts", "iqn.2024-01.org.example:LAB-1"};
  back.faultDomain = "None";
  back.authType = "No-Authentication";
  service_->UpdateTargetConfig(back);
  lab = Target("lab");
  EXPECT_EQ(lab.authType + "|" + lab.faultDomain, "No-Authentication|");
  EXPECT_EQ(lab.initiators.size() + lab.initiatorGroups.size(), 0u);
  EXPECT_EQ(Conf().find("pg-nok1-4000"), std::string::npos) << "unused portal group kept";
  TargetCreateParam twice = Param("lab");
  twice.initiatorsToRemove = {kIqn + "lab-1"};
  EXPECT_EQ(RefusalChangingNothing([&] { service_->UpdateTargetConfig(twice); }),
            "Initiator iqn.2024-01.org.example:lab-1 is not found for target lab");
  TargetCreateParam site = Param("lab");
  site.faultDomain = "Elsewhere";
  EXPECT_EQ(RefusalChangingNothing([&] { service_->UpdateTargetConfig(site); }),
            "The input affinity location Elsewhere is invalid, and the expected is "
            "{\"Preferred\" or \"NonPreferred\"} in stretched cluster mode.");
}
TEST_F(EditingTest, AclOnATargetOfTheDefaultGroupLeavesTheDefaultGroupAlone) {
  TargetCreateParam plain = Param("plain", "plain");
  service_->AddTarget(plain);
  EXPECT_EQ(Target("plain").authType, "CHAP-Mutual");  // the standard defaults
  TargetCreateParam acl = Param("plain");
  acl.initiatorsToAdd = {kIqn + "only-me"};
  service_->UpdateTargetConfig(acl);
  const TargetInfo target = Target("plain");
  EXPECT_EQ(target.authType, "CHAP-Mutual");
  EXPECT_EQ(target.userid, "defuser");
  EXPECT_THAT(target.initiators, ElementsAre(kIqn + "only-me"));
  EXPECT_THAT(Target("lab").initiators, IsEmpty());
  const std::string conf = Conf();
  const size_t group = conf.find("auth-group default {");
  EXPECT_EQ(conf.substr(group, conf.find("}\n", group) - group).find("only-me"), std::string::npos)
      << conf;
}
const char kFinanceGroup[] = "initiator-group finance-hosts {\n";

// kStandardConf with `text` inserted before the first occurrence of `before`.
std::string StandardWithBefore(const std::string& before, const std::string& text) {
  return StandardWith(before, text + before);
}
TEST_F(EditingTest, TheTwoHundredFiftySeventhGroupIsRefused) {
  std::string groups;
  for (int i = 1; i < 255; ++i) groups += "initiator-group g" + std::to_string(i) + " {\n}\n";
  home_.WriteConf(StandardWithBefore(kFinanceGroup, groups));
  service_->AddInitiatorgroup("g255");
  ASSERT_EQ(service_->GetInitiatorgroups().size(), 256u);
  const std::string message =
      "Failed to add initiator group g256 with error: the maximum initiator group allowed per "
      "cluster is 256. Current value: 256.";
  EXPECT_EQ(RefusalChangingNothing([&] { service_->AddInitiatorgroup("g256"); }), message);
  EXPECT_TRUE(services_.log->Contains("Parser: " + message));
}
TEST_F(EditingTest, GroupNamesAreComparedExactlyAndValidatedFirst) {
  service_->GetInitiatorgroups();  // fills the cache, which each edit must drop
  service_->AddInitiatorgroup("Finance-Hosts");
  EXPECT_EQ(Generation(), 8u);
  const auto groups = service_->GetInitiatorgroups();
  ASSERT_EQ(groups.size(), 2u);
  EXPECT_EQ(groups[1].name, "Finance-Hosts");
  EXPECT_THAT(groups[1].initiators, IsEmpty());
  EXPECT_EQ(RefusalChangingNothing([&] { service_->AddInitiatorgroup("finance-hosts"); }),
            "Failed to add initiator group finance-hosts with error: initiator group "
            "finance-hosts already exists");
}
TEST_F(EditingTest, MembersAreStoredInLowerCaseAndMatchedInAnyCase) {
  Members("finance-hosts");
  service_->AddInitiatorsToInitiatorgroup("finance-hosts", {kIqn + "Lab-Host1"});
  EXPECT_EQ(Generation(), 8u);
  EXPECT_THAT(Members("finance-hosts"),
              ElementsAre(kIqn + "finance-db1", kIqn + "finance-db2", kIqn + "lab-host1"));
  EXPECT_EQ(RefusalChangingNothing([&] {
              service_->AddInitiatorsToInitiatorgroup("finance-hosts", {kIqn + "lab-host1"});
            }),
            "Failed to add initiators to initiator group finance-hosts with error: initiator " +
                kIqn + "lab-host1 already exists for initiator group finance-hosts");
  service_->RemoveInitiatorsFromInitiatorgroup("finance-hosts",
                                               {"IQN.2024-01.ORG.EXAMPLE:LAB-HOST1"});
  EXPECT_EQ(Generation(), 9u);
  EXPECT_THAT(Members("finance-hosts"), ElementsAre(kIqn + "finance-db1", kIqn + "finance-db2"));
}
TEST_F(EditingTest, ABatchWithOneBadNameChangesNothing) {
  for (const auto& batch : std::vector<std::vector<std::string>>{
           {kIqn + "new1", "host-without-iqn"}, {kIqn + "new1", kIqn + "NEW1"}}) {
    EXPECT_NE(RefusalChangingNothing(
                  [&] { service_->AddInitiatorsToInitiatorgroup("finance-hosts", batch); }),
              "")
        << batch[1];
  }
  // The message names the member as it was asked for; no colon after "error".
  for (const std::string missing : {"finance-db9", "LAB-HOST1"}) {
    EXPECT_EQ(RefusalChangingNothing([&] {
                service_->RemoveInitiatorsFromInitiatorgroup(
                    "finance-hosts", {kIqn + "finance-db1", kIqn + missing});
              }),
              "Failed to remove initiators from initiator group finance-hosts with error "
              "Initiator " + kIqn + missing + " is not found for initiator group finance-hosts");
  }
  EXPECT_EQ(MessageOf([&] { service_->AddInitiatorsToInitiatorgroup("nobody", {kIqn + "x"}); }),
            "Failed to add initiators to initiator group nobody with error: Initiator group "
            "nobody not found.");
}
TEST_F(EditingTest, AGroupWithMembersIsDeletedOnlyByForceWithAllReferences) {
  // The lab target admits the group too.
  home_.WriteConf(
      StandardWithBefore("}\nportal-group default", "\t initiator-group finance-hosts\n"));
  ASSERT_EQ(service_->GetInitiatorgroupInfo("finance-hosts").targets.size(), 2u);
  EXPECT_EQ(RefusalChangingNothing([&] { service_->RemoveInitiatorgroup("finance-hosts", false); }),
            "Failed to remove initiator group finance-hosts with error Initiator group "
            "finance-hosts is not empty. Use '--force' option to delete.");
  service_->RemoveInitiatorgroup("finance-hosts", true);
  EXPECT_EQ(Generation(), 8u);
  EXPECT_EQ(Conf().find("finance-hosts"), std::string::npos) << Conf();
  EXPECT_EQ(service_->GetTargets(false, false).size(), 2u);
  EXPECT_NE(Conf().find("\t initiator-name " + kIqn + "backup1\n"), std::string::npos);
  EXPECT_TRUE(services_.log->Contains(
      "Parser: Remove initiator group finance-hosts from conf file (force enabled: 1)."));
}
TEST_F(EditingTest, AnEmptyGroupIsDeletedWithoutForceEvenWhileReferenced) {
  service_->RemoveInitiatorsFromInitiatorgroup(
      "finance-hosts", {"IQN.2024-01.ORG.EXAMPLE:FINANCE-DB1", kIqn + "finance-db2"});
  EXPECT_EQ(Generation(), 8u);
  ASSERT_THAT(Members("finance-hosts"), IsEmpty());
  service_->RemoveInitiatorgroup("finance-hosts", false);
  EXPECT_EQ(Generation(), 9u);
  EXPECT_EQ(Conf().find("finance-hosts"), std::string::npos) << Conf();
  EXPECT_EQ(RefusalChangingNothing([&] { service_->RemoveInitiatorgroup("finance-hosts", true); }),
            "Failed to remove initiator group finance-hosts with error Initiator group "
            "finance-hosts not found.");
}
TEST_F(EditingTest, TheClusterHoldsAtMost8192InitiatorsCountingTargetsNames) {
  // With finance-hosts' two and the finance target's own name: 8191.
  std::string bulk = "initiator-group bulk {\n";
  for (int i = 0; i < 8188; ++i)
    bulk += "\t initiator " + kIqn + "bulk" + std::to_string(i) + " \n";
  home_.WriteConf(StandardWithBefore(kFinanceGroup, bulk + "}\n"));
  service_->AddInitiatorsToInitiatorgroup("bulk", {kIqn + "last"});
  EXPECT_EQ(Generation(), 8u);
  EXPECT_EQ(
      RefusalChangingNothing(
          [&] { service_->AddInitiatorsToInitiatorgroup("bulk", {kIqn + "over"}); }),
      "Failed to add initiators to initiator group bulk with error: the maximum initiators "
      "allowed per cluster is: 8192. Current initiator count: 8192. New initiators count: 1.");
  // Freeing one place admits one more.
  service_->RemoveInitiatorsFromInitiatorgroup("finance-hosts", {kIqn + "finance-db1"});
  service_->AddInitiatorsToInitiatorgroup("bulk", {kIqn + "over"});
  EXPECT_EQ(Generation(), 10u);
}
TEST_F(EditingTest, EveryGroupEditIsRefusedWhileTheServiceIsDisabled) {
  home_.SetServiceEnabled(false);
  service_ = NewService();  // a service object reads the status when it is made
  const std::vector<std::function<void()>> edits = {
      [&] { service_->AddInitiatorgroup("new-group"); },
      [&] { service_->RemoveInitiatorgroup("finance-hosts", true); },
      [&] { service_->AddInitiatorsToInitiatorgroup("finance-hosts", {kIqn + "x"}); },
      [&] {
        service_->RemoveInitiatorsFromInitiatorgroup("finance-hosts", {kIqn + "finance-db1"});
      }};
  for (const auto& edit : edits) {
    EXPECT_EQ(RefusalChangingNothing(edit),
              "Orva iSCSI Target Service is not enabled or the enable task is in progress.");
  }
}
// The cache: queries from memory or zel.conf, change notices, refreshes, failed reads.
// The standard conf saved elsewhere as `generation`, target "lab" renamed `labAlias`.
std::string Changed(uint64_t generation, const std::string& labAlias) {
  std::string text = kStandardConf;
  text.replace(0, text.find('\n'), "generation " + std::to_string(generation));
  const std::string lab = "\talias \"lab\"";
  text.replace(text.find(lab), lab.size(), "\talias \"" + labAlias + "\"");
  return text;
}
std::vector<std::string> TargetAliases() {
  std::vector<std::string> aliases;
  for (const auto& target : ConfigCache::GetTargetsInfos()) aliases.push_back(target.alias);
  return aliases;
}
std::vector<std::string> GroupNames() {
  std::vector<std::string> names;
  for (const auto& group : ConfigCache::GetInitiatorGroupInfos()) names.push_back(group.name);
  return names;
}
// Polls for about 30 s: the notice comes from the directory's own thread.
template <typename Condition>
bool Eventually(Condition condition) {
  for (int attempt = 0; attempt < 3000; ++attempt) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return condition();
}
class ConfigCacheTest : public ::testing::Test {
 protected:
  // The queries that went to the file, by the line each logs before reading.
  std::vector<std::string> FileReads() const {
    std::vector<std::string> reads;
    for (const std::string& line : host_.log->Texts()) {
      if (line.find(" from conf file") != std::string::npos) reads.push_back(line);
    }
    return reads;
  }
  int Opens() const { return host_.files->Calls(FileOp::Open); }
  // The state in which queries are served from memory.
  void SubscribeAndFill() {
    ConfigCache::SubscribeBrix();
    TargetAliases();
    ASSERT_EQ(FileReads().size(), 1u);
    ASSERT_FALSE(ConfigCache::IsZelConfDirty());
  }
  ServiceHome home_;
  TestServices host_ = home_.InstallTestHost();
};

TEST_F(ConfigCacheTest, WithoutSubscriptionEveryQueryReadsTheFile) {
  std::vector<std::string> twice;
  for (int round = 0; round < 2; ++round) {
    ConfigCache::GetConfigInfo(false);
    ConfigCache::GetTargetsInfos();
    ConfigCache::GetInitiatorGroupInfos();
    ConfigCache::GetAllIscsiNoknics();
    for (const char* query :
         {"GetConfigInfo", "GetTargetsInfos", "GetInitiatorGroupInfos", "GetAllIscsiNoknics"})
      twice.push_back(std::string("ZelConfigCache: ") + query + " from conf file");
  }
  EXPECT_EQ(FileReads(), twice);
  EXPECT_EQ(Opens(), 8);
  // Each read refills the cache, which stays untrusted until subscribed.
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), 7u);
}
TEST_F(ConfigCacheTest, SubscribedAndCleanCacheIsServedFromMemory) {
  SubscribeAndFill();
  const int opens = Opens();
  // A change that no notice announced is not seen: nothing opens the file.
  home_.WriteConf(Changed(8, "lab-renamed"));
  EXPECT_THAT(TargetAliases(), ElementsAre("finance", "lab"));
  EXPECT_THAT(GroupNames(), ElementsAre("finance-hosts"));
  EXPECT_EQ(ConfigCache::GetConfigInfo(false).userid, "defuser");
  EXPECT_THAT(ConfigCache::GetAllIscsiNoknics(), ElementsAre("nok0"));
  EXPECT_EQ(Opens(), opens);
  EXPECT_EQ(FileReads().size(), 1u);
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), 7u);
}
TEST_F(ConfigCacheTest, ChangeNoticeMarksDirtyAndTheNextQueryReadsTheFileOnce) {
  SubscribeAndFill();
  home_.WriteConf(Changed(8, "lab-renamed"));
  UpdateZelConfigCacheAPI(nullptr, NOK_OK);
  EXPECT_TRUE(ConfigCache::IsZelConfDirty());
  EXPECT_TRUE(ConfigCache::GetZelConfBrixEntryExists(true));
  EXPECT_THAT(TargetAliases(), ElementsAre("finance", "lab-renamed"));
  EXPECT_FALSE(ConfigCache::IsZelConfDirty());
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), 8u);
  GroupNames();
  EXPECT_EQ(FileReads().size(), 2u);
  // A notice of unknown meaning still asks for a read.
  UpdateZelConfigCacheAPI(nullptr, NOK_NO_CONNECTION);
  EXPECT_TRUE(ConfigCache::IsZelConfDirty());
  TargetAliases();
  EXPECT_EQ(FileReads().size(), 3u);
  // A notice of an absent entry records the absence and keeps the cache clean.
  const int opens = Opens();
  UpdateZelConfigCacheAPI(nullptr, NOK_NOT_FOUND);
  EXPECT_FALSE(ConfigCache::GetZelConfBrixEntryExists(true));
  EXPECT_FALSE(ConfigCache::IsZelConfDirty());
  TargetAliases();
  EXPECT_EQ(Opens(), opens);
}
TEST_F(ConfigCacheTest, BackgroundRefreshReplacesTheGraphButLeavesTheDirtyFlag) {
  SubscribeAndFill();
  home_.WriteConf(Changed(8, "lab-renamed"));
  UpdateZelConfigCacheAPI(nullptr, NOK_OK);
  ConfigCache::UpdateZelConfigCache(0);
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), 8u);
  EXPECT_TRUE(ConfigCache::IsZelConfDirty());
  EXPECT_TRUE(host_.log->Contains("ZelConfigCache: Done with the ZEL config cache update."));
  // Only a query's own read makes the cache trusted again.
  TargetAliases();
  EXPECT_EQ(FileReads().size(), 2u);
  EXPECT_FALSE(ConfigCache::IsZelConfDirty());
  // A failed refresh is logged and empties the cache.
  home_.WriteConf("generation 9\ntarget {\n}\n");
  ConfigCache::UpdateZelConfigCache(0);
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), kNone);
  EXPECT_TRUE(ConfigCache::IsBrixSubscribed());
  EXPECT_TRUE(host_.log->Contains(
      "ZelConfigCache: Failed to update the config cache due to: Failed to read conf file: " +
      GetConfFilePath()));
}
TEST_F(ConfigCacheTest, FailedReadThrowsAndLeavesTheCacheAsItWas) {
  SubscribeAndFill();
  UpdateZelConfigCacheAPI(nullptr, NOK_OK);
  home_.WriteConf("generation 8\ntarget {\n}\n");
  EXPECT_EQ(MessageOf([] { ConfigCache::GetTargetsInfos(); }),
            "Failed to read conf file: " + GetConfFilePath());
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), 7u);
  EXPECT_TRUE(ConfigCache::IsZelConfDirty());
  home_.WriteConf(Changed(9, "lab-renamed"));
  host_.files->FailNext(FileOp::Open, FILEIO_ERROR);
  EXPECT_EQ(MessageOf([] { ConfigCache::GetInitiatorGroupInfos(); }),
            "Parser: share lock failed on " + GetConfFilePath());
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), 7u);
  EXPECT_TRUE(ConfigCache::IsZelConfDirty());
  EXPECT_THAT(TargetAliases(), ElementsAre("finance", "lab-renamed"));
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), 9u);
}
TEST_F(ConfigCacheTest, DroppingTheGraphOrTheSubscriptionMakesQueriesReadAgain) {
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), kNone);
  SubscribeAndFill();
  // Dropping the graph keeps the subscription; the next query reads.
  ConfigCache::CleanupCachedConfig();
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), kNone);
  EXPECT_TRUE(ConfigCache::IsBrixSubscribed());
  TargetAliases();
  EXPECT_EQ(FileReads().size(), 2u);
  // Unsubscribing empties the cache and every query reads.
  ConfigCache::UnsubscribeBrix();
  EXPECT_FALSE(ConfigCache::IsBrixSubscribed());
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), kNone);
  TargetAliases();
  TargetAliases();
  EXPECT_EQ(FileReads().size(), 4u);
}
TEST_F(ConfigCacheTest, SubscribingTwiceKeepsOneAndFailureLeavesItUnsubscribed) {
  ConfigCache::SubscribeBrix();
  ConfigCache::SubscribeBrix();
  const std::vector<std::string> lines = host_.log->Texts();
  EXPECT_EQ(std::count(lines.begin(), lines.end(),
                       "ZelConfigCache: Subscribing ZEL config info from BRIX"),
            1);
  ConfigCache::UnsubscribeBrix();
  // Without the namespace there is no generation entry to watch.
  home_.RemoveNamespaceLink();
  EXPECT_THAT(MessageOf([] { ConfigCache::SubscribeBrix(); }),
              HasSubstr("Failed to subscribe BRIX ZEL config entry: "));
  EXPECT_FALSE(ConfigCache::IsBrixSubscribed());
}
// The child is forked before this process opens its directory (no thread copied mid-flight).
TEST(ConfigCacheAcrossProcessesTest, SaveAndPublishElsewhereMakesThisCacheReadTheFileOnce) {
  ServiceHome home;
  ChildProcess writer([&home](ChildControl& control) {
    control.AwaitRelease();
    home.InstallLocalServiceHost(platform::LogLevel::Error);
    ConfHandle handle(ConfHandle::kExclusiveMode, GetConfFilePath());
    if (initiator_group_new(handle.conf, "added-group") == nullptr) return 2;
    const uint64_t generation = handle.WriteConfFile();
    if (generation != 8) return 3;
    return ZeldUpdateBrixEntryForConfig(generation) == NOK_OK ? 0 : 4;
  });
  TestServices host = home.InstallTestHost();
  ConfigCache::SubscribeBrix();
  EXPECT_THAT(GroupNames(), ElementsAre("finance-hosts"));
  const int opens = host.files->Calls(FileOp::Open);
  GroupNames();
  ASSERT_EQ(host.files->Calls(FileOp::Open), opens);
  writer.Release();
  ASSERT_EQ(writer.Join(), 0);
  // The shared lock orders this read after the notice that set the flags.
  ASSERT_TRUE(Eventually([] { return ConfigCache::GetZelConfBrixEntryExists(true); }));
  EXPECT_TRUE(ConfigCache::IsZelConfDirty());
  EXPECT_THAT(GroupNames(), ElementsAre("finance-hosts", "added-group"));
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), 8u);
  GroupNames();
  EXPECT_EQ(host.files->Calls(FileOp::Open), opens + 1);
}

// Text from outside never changes the file's structure: each attempt with a
// character that means something to the file is refused leaving the file
// byte-identical, or stored and read back unchanged; the file always parses.
TEST_F(EditingTest, HostileTextIsRefusedOrStoredVerbatim) {
  int stored = 0, serial = 0;
  const auto attempt = [&](const std::function<void()>& store, const std::function<bool()>& back) {
    const std::string before = Conf();
    const std::string refusal = MessageOf(store);
    if (refusal.empty()) {
      ++stored;
      EXPECT_TRUE(back && back()) << "stored but read back differently";
    } else {
      EXPECT_EQ(Conf(), before) << "refused (" << refusal << ") but the file changed";
    }
    EXPECT_NO_THROW(ConfHandle(ConfHandle::kShareMode, home_.ConfPath())) << Conf();
  };
  const auto secretStored = [&](const std::string& secret) {
    ConfHandle handle(ConfHandle::kShareMode, home_.ConfPath());  // secrets are never reported
    const struct auth_group* ag;
    TAILQ_FOREACH(ag, &handle.conf->conf_auth_groups, ag_next) {
      const struct auth* auth = TAILQ_FIRST(&ag->ag_auths);
      if (auth != nullptr && secret == auth->a_secret) return true;
    }
    return false;
  };
  for (const std::string h : {"\"", "{", "}", ";", "\n", "\t", "#", "\xc3\xa9\xff"}) {
    const std::string tag = std::to_string(static_cast<unsigned char>(h[0]));
    SCOPED_TRACE("character " + tag);
    TargetCreateParam param = Chap(Param("a" + h, std::to_string(++serial)), "user", "Abcdefgh#12" + h);
    attempt([&] { service_->AddTarget(param); },
            [&] { return Target(param.alias).alias == param.alias && secretStored(param.secret); });
    TargetCreateParam policy = Param("p" + tag, std::to_string(++serial));
    policy.policy = "\"thinProvisioned\" \"true" + h + "\"";
    attempt([&] { service_->AddTarget(policy); }, nullptr);
    TargetCreateParam user = Chap(Param("u" + tag, std::to_string(++serial)), "u" + h, "Abcdefgh#123");
    attempt([&] { service_->AddTarget(user); }, nullptr);
    attempt([&] { service_->AddInitiatorgroup("g" + h); }, nullptr);
    attempt([&] { service_->AddInitiatorsToInitiatorgroup("finance-hosts", {kIqn + "i" + h}); },
            nullptr);
    TargetCreateParam acl = Param("lab");
    acl.initiatorsToAdd = {kIqn + "i" + h};
    attempt([&] { service_->UpdateTargetConfig(acl); }, nullptr);
  }
  // Braces, ';', tab, '#' and non-ASCII are legal in aliases and secrets;
  // policy texts, user and initiator names have strict forms.
  EXPECT_GE(stored, 6);
}
using ParserHelpersTest = ConfFixture;

TEST_F(ParserHelpersTest, InitiatorLimitCountsGroupsAndTargetsButNotGroupNames) {
  struct initiator_group* ig = nullptr;
  for (int i = 0; i < 8189; ++i) {
    if (i % 1000 == 0) ig = initiator_group_new(conf_, ("g" + std::to_string(i)).c_str());
    initiator_new(ig, (kIqn + "h" + std::to_string(i)).c_str());
  }
  struct target* t = target_new(conf_, "iqn.2026-11.local.zel:t");
  t->t_auth_group = auth_group_new(conf_, "tg");
  auth_name_new(t->t_auth_group, (kIqn + "direct").c_str());
  auth_name_new(t->t_auth_group, "g0");  // names a group: not an initiator of its own
  EXPECT_EQ(MessageOf([&] { Parser::checkInitiatorCount(conf_, 2); }), "");
  EXPECT_EQ(MessageOf([&] { Parser::checkInitiatorCount(conf_, 3); }),
            "the maximum initiators allowed per cluster is: 8192. Current initiator count: "
            "8190. New initiators count: 3.");
  EXPECT_EQ(MessageOf([&] { Parser::checkInitiatorCount(conf_, 0); }), "");
}
TEST_F(ParserHelpersTest, TargetAuthGroupIsNamedAfterItsUuidAndRewritten) {
  using NokCtl::Orva::IscsiTarget::AuthInfo;
  struct target* t = target_new(conf_, "iqn.2026-11.local.zel:t");
  target_option_new(t, "uuid", kFinanceUuid);
  Parser::UpdateTargetAuthGroup(t, AuthInfo("CHAP", "user", "Abcdefgh#123", "", ""));
  struct auth_group* ag = auth_group_find(conf_, kFinanceUuid);
  ASSERT_NE(ag, nullptr);
  EXPECT_EQ(t->t_auth_group, ag);
  EXPECT_EQ(ag->ag_type, AG_TYPE_CHAP);
  EXPECT_TRUE(host_.Log().Contains("Parser: Updating auth type 'CHAP' for target " +
                                   std::string(t->t_name)));
  // The type is matched in any case; the one credential is replaced.
  Parser::UpdateTargetAuthGroup(
      t, AuthInfo("chap-MUTUAL", "out", "Abcdefgh#123", "in", "Zyxwvuts#987"));
  EXPECT_EQ(ag->ag_type, AG_TYPE_CHAP_MUTUAL);
  ASSERT_NE(TAILQ_FIRST(&ag->ag_auths), nullptr);
  EXPECT_EQ(TAILQ_NEXT(TAILQ_FIRST(&ag->ag_auths), a_next), nullptr);
  EXPECT_STREQ(TAILQ_FIRST(&ag->ag_auths)->a_mutual_user, "in");
  Parser::UpdateTargetAuthGroup(t, AuthInfo("No-Authentication", "", "", "", ""));
  EXPECT_EQ(ag->ag_type, AG_TYPE_NO_AUTHENTICATION);
  EXPECT_TRUE(TAILQ_EMPTY(&ag->ag_auths));
}
TEST_F(ParserHelpersTest, InitConfCreatesAnEmptyFileAndKeepsAnExistingOne) {
  const std::string path = GetConfFilePath();
  WriteFile(Util::GetConfDirPath() + "keep", "");
  struct stat st;
  for (const std::string text : {"", "generation 3\n"}) {
    if (!text.empty()) WriteFile(path, text, 0600);
    Parser::InitConf();
    EXPECT_EQ(ReadFile(path), text);
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0660u);
  }
}
// The file lock serialises saves: nothing lost, one generation per save, last one published.
TEST(EditConcurrencyTest, ParallelEditorsLoseNoChangeAndCountEverySave) {
  constexpr int kProcesses = 4, kTargetsEach = 5;
  ServiceHome home;
  auto zelctl = [&home](std::vector<std::string> args) {
    args.insert(args.begin(), {ZELCTL_PATH, "--home", home.Path()});
    return RunProgram(args);
  };
  auto generation = [&home] { return std::stoull(ReadFile(home.ConfPath()).substr(11)); };
  const uint64_t before = generation();
  // Per worker 5 adds, a group, its members, 2 removals: 9 saves.
  std::vector<std::string> failures(kProcesses);
  std::vector<std::thread> workers;
  std::set<std::string> expected = {"finance", "lab"};
  for (int w = 0; w < kProcesses; ++w) {
    const std::string id = std::to_string(w);
    for (int t = 0; t < kTargetsEach; t += 2) expected.insert("w" + id + "-t" + std::to_string(t));
    workers.emplace_back([&, w, id] {
      auto run = [&](const std::vector<std::string>& args) {
        const ProcessResult result = zelctl(args);
        if (result.exitCode != 0) failures[w] += args[0] + " " + args[1] + ": " + result.err;
      };
      for (int t = 0; t < kTargetsEach; ++t)
        run({"target", "add", "--alias", "w" + id + "-t" + std::to_string(t)});
      run({"initiator-group", "add", "group-" + id});
      run({"initiator-group", "add-initiators", "group-" + id, kIqn + "w" + id + "-a",
           kIqn + "w" + id + "-b"});
      for (int t = 1; t < kTargetsEach; t += 2)
        run({"target", "remove", "w" + id + "-t" + std::to_string(t)});
    });
  }
  for (std::thread& worker : workers) worker.join();
  EXPECT_EQ(failures, std::vector<std::string>(kProcesses));
  std::set<std::string> aliases;
  for (const auto& target : nlohmann::json::parse(zelctl({"--json", "target", "list"}).out))
    aliases.insert(target["alias"].get<std::string>());
  EXPECT_EQ(aliases, expected);
  size_t members = 0;
  for (const auto& group : nlohmann::json::parse(zelctl({"--json", "initiator-group", "list"}).out))
    members += group["initiators"].size();
  EXPECT_EQ(members, 2u + 2u * kProcesses);  // finance-hosts keeps its two
  EXPECT_EQ(generation(), before + 9u * kProcesses);
  home.InstallTestHost();
  uint64_t published = 0;
  ASSERT_EQ(ZeldGetConfigGenNumInBrix(&published), NOK_OK);
  EXPECT_EQ(published, generation());
}
const std::string kUserRule =
    "Username should meet all these requirements: 1) must contain at least one character; "
    "2) special characters allowed are ( _, ., -, @, :); 3) cannot start with special "
    "characters.";
const std::string kSecretRule =
    "User secret should meet all these requirements: 1) 12 to 16 characters in length, "
    "2) minimum 1 uppercase character, 3) minimum 1 lowercase character, 4) minimum 1 "
    "numeric digit, 5) minimum 1 special character( !, @, #, $, %, &, ^ and *), 6) only "
    "visible ASCII characters including space (excluding non-printing control characters "
    "such as BEL, Nul,...), 7) cannot start or end with spaces.";
const std::string kIqnFormat =
    "'. Permitted characters A-Z, a-z, 0-9, '.', ':', '-' Expected format : "
    "iqn.YYYY-MM.domain:TargetName.";
const std::string kGroupName = "Invalid initiator group name '";
const std::string kGroupCharacters =
    "'. Allowed characters are A-Z, a-z, 0-9, '.', ':', '-', '_', and cannot be all digits";
const std::string kGroupTooLong = "'. Maximum permitted length is 223 bytes.";
const std::string kInitiatorFormat =
    "'. Expected format for initiator IQN is 'iqn.YYYY-MM.domain:initiatorName' or "
    "'eui.YYYY-MM.domain:initiatorName'";

// "iqn.2024-01.org.example:" padded with 'a' to `length` bytes.
std::string IqnOfLength(size_t length, const std::string& prefix = "iqn.2024-01.org.example:") {
  return prefix + std::string(length - prefix.size(), 'a');
}
// What the core said, with the defaults wrapper's context removed.
std::string CoreRefusal(const std::string& type, const std::string& user, const std::string& secret,
                        const std::string& mutualUser = "", const std::string& mutualSecret = "") {
  const std::string message = MessageOf([&] {
    Util::VerifyDefaultAuthParams(Defaults(type, user, secret, mutualUser, mutualSecret));
  });
  const std::string prefix =
      "Failed to verify default authentication type " + type + " with error: ";
  if (message.empty()) return message;
  EXPECT_EQ(message.compare(0, prefix.size(), prefix), 0) << message;
  return message.substr(prefix.size());
}
TEST(TargetParamsTest, AliasIqnAndQuotesAreCheckedInOrderWithTheirLimits) {
  using Edit = std::function<void(TargetCreateParam&)>;
  const std::string a127(127, 'a'), a128(128, 'a');
  const std::string i223 = IqnOfLength(223), i224 = IqnOfLength(224);
  // Too long and malformed at once: the pattern speaks first.
  const std::string badLong = IqnOfLength(300, "iqn.2024-01.org.example:bad name ");
  std::vector<std::pair<Edit, std::string>> cases = {
      {[&](TargetCreateParam& p) { p.alias = a127; }, ""},
      {[](TargetCreateParam& p) { p.alias = "x"; }, ""},
      {[&](TargetCreateParam& p) { p.alias = a128; },
       "Invalid alias '" + a128 + "'. Permitted length should be less than 128 bytes."},
      {[](TargetCreateParam& p) { p.alias = ""; },
       "Invalid alias ''. Permitted length should be larger than 1 bytes."},
      {[&](TargetCreateParam& p) { p.iqn = i223; }, ""},
      {[&](TargetCreateParam& p) { p.iqn = i224; },
       "Invalid IQN '" + i224 + "'. Permitted length should be less than 224 bytes."},
      {[&](TargetCreateParam& p) { p.iqn = badLong; }, "Invalid IQN '" + badLong + kIqnFormat},
      // A whitespace-only alias is refused after the quote checks.
      {[](TargetCreateParam& p) { p.alias = " \t "; },
       "Invalid alias ' \t '. The alias should not contain only whitespaces."},
      {[](TargetCreateParam& p) { p.alias = " \t ", p.secret = "\""; },
       "'\"' not permitted in secret"},
      {[](TargetCreateParam& p) { p.alias = " finance "; }, ""},
      // Double quotes are reported field by field in order.
      {[](TargetCreateParam& p) { p.alias += "\"", p.userid = p.secret = "\""; },
       "'\"' not permitted in alias"},
      {[](TargetCreateParam& p) { p.userid = p.secret = p.mutualUserid = "\""; },
       "'\"' not permitted in userid"},
      {[](TargetCreateParam& p) { p.secret = p.mutualUserid = p.mutualSecret = "\""; },
       "'\"' not permitted in secret"},
      {[](TargetCreateParam& p) { p.mutualUserid = p.mutualSecret = "\""; },
       "'\"' not permitted in mutual userid"},
      {[](TargetCreateParam& p) { p.mutualSecret = "\""; }, "'\"' not permitted in mutual secret"},
  };
  // The IQN pattern wants a lower-case prefix and a real month.
  for (const std::string iqn : {"iqn.2024-01.org.example:t", "iqn.2024-12.org.example:t",
                                "iqn.2024-09.org.example", "iqn.2024-09.org.example:a:b.c-d"})
    cases.push_back({[=](TargetCreateParam& p) { p.iqn = iqn; }, ""});
  for (const std::string iqn :
       {"iqn.2024-00.org.example:t", "iqn.2024-13.org.example:t", "IQN.2024-01.org.example:t",
        "Iqn.2024-01.org.example:t", "iqn.24-01.org.example:t", "iqn.2024-01.:t",
        "iqn.2024-01.org.example:bad name", "iqn.2024-01.org_example:t", ""})
    cases.push_back({[=](TargetCreateParam& p) { p.iqn = iqn; }, "Invalid IQN '" + iqn + kIqnFormat});
  for (size_t i = 0; i < cases.size(); ++i) {
    TargetCreateParam param;
    param.alias = "finance";
    param.iqn = "iqn.2024-01.org.example:finance";
    cases[i].first(param);
    EXPECT_EQ(MessageOf([&] { Util::VerifyTargetParams(param); }), cases[i].second) << i;
  }
}
TEST(AuthParamsTest, CredentialsAreCheckedPresenceFirstThenUsersThenSecrets) {
  const std::string ok = "Abcdefgh#123", ok2 = "Abcdefgh#124";
  const std::vector<std::tuple<std::string, std::string, std::string, std::string, std::string,
                               std::string>>
      cases = {
          {"No-Authentication", "u", "s", "m", "t", "User id should not be provided."},
          {"No-Authentication", "", "s", "m", "t", "Secret should not be provided."},
          {"No-Authentication", "", "", "m", "t", "Mutual user id should not be provided."},
          {"No-Authentication", "", "", "", "t", "Mutual secret should not be provided."},
          {"No-Authentication", "", "", "", "", ""},
          {"", "u", "s", "m", "t", "User id should not be provided."},
          {"", "", "", "", "t", "Mutual secret should not be provided."},
          {"", "", "", "", "", ""},
          {"CHAP", "", "", "m", "t", "User id should not be empty."},
          {"CHAP", "u", "", "m", "t", "Secret should not be empty."},
          {"CHAP", "u", "weak", "m", "t", "Mutual user id should not be provided."},
          {"CHAP", "u", "weak", "", "t", "Mutual secret should not be provided."},
          {"CHAP", "_u", "weak", "", "", kUserRule},
          {"CHAP", "u", "weak", "", "", kSecretRule},
          {"CHAP", "u", ok, "", "", ""},
          {"CHAP-Mutual", "", "", "", "", "User id should not be empty."},
          {"CHAP-Mutual", "u", "", "", "", "Secret should not be empty."},
          {"CHAP-Mutual", "u", "s", "", "", "Mutual user id should not be empty."},
          {"CHAP-Mutual", "u", "s", "m", "", "Mutual secret should not be empty."},
          {"CHAP-Mutual", "u", ok, "m", ok2, ""},
          // Equal secrets fail before the secret rule.
          {"CHAP-Mutual", "_u", "weak", "_m", "weak",
           "Outgoing and incoming CHAP secret could not be the same."},
          // A bad mutual user is reported although the secret is bad too.
          {"CHAP-Mutual", "u", "weak", "-m", ok2, kUserRule},
          {"CHAP-Mutual", "u", ok, "m", "weak", kSecretRule},
          // Type names are exact, letter case included.
          {"chap", "u", ok, "", "", "Found invalid auth type chap"},
          {"Chap-Mutual", "", "", "", "", "Found invalid auth type Chap-Mutual"},
          {"None", "", "", "", "", "Found invalid auth type None"},
      };
  for (const auto& [type, user, secret, mutualUser, mutualSecret, expected] : cases) {
    EXPECT_EQ(CoreRefusal(type, user, secret, mutualUser, mutualSecret), expected)
        << type << "/" << user << "/" << secret << "/" << mutualUser << "/" << mutualSecret;
  }
}
TEST(AuthParamsTest, UserAndSecretRules) {
  // A user starts with a letter or digit, then allows five specials.
  for (const std::string user : {"u", "7", "a_b-c.d@e:f", "Admin01"})
    EXPECT_EQ(CoreRefusal("CHAP", user, "Abcdefgh#123"), "") << user;
  for (const std::string user : {"_u", ".u", "@u", "user name", "user!", "us\"er", "u\n"})
    EXPECT_EQ(CoreRefusal("CHAP", user, "Abcdefgh#123"), kUserRule) << user;
  // Only pattern and outer spaces count: a control character passes despite the message.
  for (const std::string secret : {"Abcdefgh#123", "Abcdefgh#1234567", "Abcd efgh#123",
                                   "Abcdefgh!123", "Abcdefgh@123", "Abcdefgh$123", "Abcdefgh%123",
                                   "Abcdefgh^123", "Abcdefgh&123", "Abcdefgh*123", "Abcdefgh#12\a"})
    EXPECT_EQ(CoreRefusal("CHAP", "u", secret), "") << secret;
  for (const std::string secret : {
           "Abcdefg#123",        // 11
           "Abcdefgh#12345678",  // 17
           "abcdefgh#123",       // no upper case
           "ABCDEFGH#123",       // no lower case
           "Abcdefgh#abc",       // no digit
           "Abcdefgh+123",       // no listed special
           "Abcdefgh#123 ",      // 13 and fits the pattern, but ends with a blank
           " Abcdefgh#123",      // starts with a blank
       })
    EXPECT_EQ(CoreRefusal("CHAP", "u", secret), kSecretRule) << "'" << secret << "'";
}
// The defaults' wrapper is checked by CoreRefusal on every refusal above.
TEST(AuthParamsTest, TargetWrapperNamesTheTarget) {
  TargetCreateParam param = Chap(Param("finance"), "u", "");
  EXPECT_EQ(MessageOf([&] { Util::VerifyTargetAuthParams(param); }),
            "Failed to verify authentication type CHAP for target finance with error: Secret "
            "should not be empty.");
  param.secret = "Abcdefgh#123";
  EXPECT_EQ(MessageOf([&] { Util::VerifyTargetAuthParams(param); }), "");
}
TEST(InitiatorNameTest, HoldsAtMost223BytesCheckedBeforeTheFormAndIsIqnOrEui) {
  const std::string tooLong = IqnOfLength(224, "not an initiator ");
  const std::vector<std::pair<std::string, std::string>> cases = {
      {IqnOfLength(223), ""},
      {tooLong, "Invalid initiator IQN '" + tooLong + "'. Maximum permitted length is 223 bytes."},
      {"iqn.2024-01.org.example:host1", ""},
      {"eui.2024-01.org.example:host1", ""},
      {"iqn.1998-12.com.x", ""}};
  for (const auto& [name, expected] : cases)
    EXPECT_EQ(MessageOf([&] { Util::ValidateInitiatorIQN(name); }), expected) << name;
  for (const std::string name : {"IQN.2024-01.org.example:host1", "eui.2024-13.org.example",
                                 "iqn.2024-01.org.example:host 1", "host1", ""}) {
    EXPECT_EQ(MessageOf([&] { Util::ValidateInitiatorIQN(name); }),
              "Invalid initiator IQN: '" + name + kInitiatorFormat)
        << name;
  }
}
TEST(InitiatorGroupNameTest, CharactersThenLengthThenPrefix) {
  const std::string longest(223, 'g'), tooLong(224, 'g'), digits(224, '7');
  const std::string prefixedTooLong = "iqn." + std::string(220, 'g');
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"finance-hosts", ""}, {"a.b:c_d-e", ""}, {"0a", ""}, {"iqn-hosts", ""}, {"iqn", ""},
      {longest, ""},
      {"finance hosts", kGroupName + "finance hosts" + kGroupCharacters},
      {"hosts!", kGroupName + "hosts!" + kGroupCharacters},
      {"12345", kGroupName + "12345" + kGroupCharacters},
      {"", kGroupName + kGroupCharacters},
      {"h\"q", kGroupName + "h\"q" + kGroupCharacters},
      {tooLong, kGroupName + tooLong + kGroupTooLong},
      // Characters first: 224 digits break the character rule.
      {digits, kGroupName + digits + kGroupCharacters},
      // Length speaks before the prefix.
      {prefixedTooLong, kGroupName + prefixedTooLong + kGroupTooLong}};
  for (const auto& [name, expected] : cases)
    EXPECT_EQ(MessageOf([&] { Util::ValidateInitiatorGroupName(name); }), expected) << name;
  for (const std::string name : {"iqn.hosts", "IqN.hosts", "EUI.hosts", "eui.2024-01.x"}) {
    EXPECT_EQ(MessageOf([&] { Util::ValidateInitiatorGroupName(name); }),
              kGroupName + name + "'. Initiator group name cannot start with 'iqn.' or 'eui.'")
        << name;
  }
}
// A host's interface (any state) with 1024 < port <= 65535, or none and only 3260.
TEST(NetworkValidationTest, InterfaceMustBeThisHostsAndThePortInRange) {
  ScopedTestHost host;
  auto nics = std::make_unique<FakeNetworkInterfaces>();
  FakeNetworkInterfaces* fake = nics.get();
  nics->Set("nok0", platform::NOKNIC_UP);
  nics->Set("nok1", platform::NOKNIC_DOWN);
  platform::CurrentHost().SetNics(std::move(nics));
  const std::string range =
      " provided for interface nok0, valid port range is 1024 < port <= 65535";
  const std::string absent = " is not available on this host";
  const std::vector<std::tuple<std::string, int32_t, std::string>> cases = {
      {"nok1", 3260, ""},
      {"nok9", 3260, "Network interface nok9" + absent},
      {"nok9", 5000, "Network interface nok9" + absent},
      {"NOK0", 3260, "Network interface NOK0" + absent},  // names compare exactly
      {"nok", 3260, "Network interface nok" + absent},
      {"nok0", 1024, "Invalid port 1024" + range},
      {"nok0", 1025, ""},
      {"nok0", 3260, ""},
      {"nok0", 65535, ""},
      {"nok0", 65536, "Invalid port 65536" + range},
      {"nok0", 0, "Invalid port 0" + range},
      {"nok0", -3260, "Invalid port -3260" + range},
      {"", 3260, ""},
      {"", 3261, "Network interface is not provided for port 3261"},
      {"", 1025, "Network interface is not provided for port 1025"}};
  for (const auto& [nic, port, expected] : cases) {
    EXPECT_EQ(MessageOf([&, n = nic, p = port] { Util::VerifyNetworkConfig(n, p); }), expected)
        << nic << ":" << port;
  }
  // Only the missing interface is logged, as an error.
  EXPECT_THAT(host.Log().Texts(platform::LogLevel::Error),
              ElementsAre("Util: Network interface is not provided for port 3261",
                          "Util: Network interface is not provided for port 1025"));
  EXPECT_FALSE(host.Log().Contains("Util: Invalid port 1024" + range));
  fake->FailListing("Failed to list the network interfaces of this host: Out of memory");
  EXPECT_EQ(MessageOf([] { Util::VerifyNetworkConfig("", 3260); }), "");
  EXPECT_EQ(MessageOf([] { Util::VerifyNetworkConfig("nok0", 3260); }),
            "Failed to list the network interfaces of this host: Out of memory");
}

}  // namespace
}  // namespace test
}  // namespace zel
