// zelctl as an operator runs it on a host with the service enabled: what the
// command line adds to the library: tables or JSON on stdout, exit codes 0,
// 1 (the service's message) and 2 (usage), secrets read from stdin and never
// printed, zel.conf untouched by a refused or misused command.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/EntryMarshal.h"
#include "platform/local/LocalNetworkInterfaces.h"
#include "support/Process.h"
#include "support/ServiceHome.h"

namespace zel {
namespace test {
namespace {

using nlohmann::json;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;

constexpr const char* kWebIqn1 = "iqn.2024-01.org.example:web1";
constexpr const char* kWebIqn2 = "iqn.2024-01.org.example:web2";
// The secrets given on stdin, in the clear and as zel.conf keeps them.
constexpr const char* kWebSecret = "Web#Secret1234";
constexpr const char* kWebSecretBase64 = "V2ViI1NlY3JldDEyMzQ=";
constexpr const char* kOutSecret = "Out#Secret1234";
constexpr const char* kOutSecretBase64 = "T3V0I1NlY3JldDEyMzQ=";
constexpr const char* kInSecret = "In#Secret12345";
constexpr const char* kInSecretBase64 = "SW4jU2VjcmV0MTIzNDU=";

// Every secret the home holds or a test gives, as given and as kept.
const std::vector<std::string> kSecrets = {
    kDefaultSecret, "RGVmYXVsdCNTZWNyZXQx", kDefaultMutualSecret, "TXV0dWFsI1NlY3JldDIy",
    kStoreSecret, kFinanceSecret, "RmluYW5jZSNTZWNyZXQx", "Lab#Outgoing1", "TGFiI091dGdvaW5nMQ==",
    "Lab#Incoming2", "TGFiI0luY29taW5nMg==", kWebSecret, kWebSecretBase64, kOutSecret,
    kOutSecretBase64, kInSecret, kInSecretBase64};

ProcessResult Zelctl(const std::string& home, std::vector<std::string> args,
                     const std::string& input = "") {
  args.insert(args.begin(), {ZELCTL_PATH, "--home", home});
  ProcessResult result = RunProgram(args, input);
  for (const std::string& secret : kSecrets) {
    EXPECT_EQ(result.out.find(secret), std::string::npos) << "stdout shows a secret";
    EXPECT_EQ(result.err.find(secret), std::string::npos) << "stderr shows a secret";
  }
  return result;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// The words of a table line.
std::vector<std::string> Cells(const std::string& line) {
  std::vector<std::string> cells;
  std::istringstream in(line);
  for (std::string cell; in >> cell;) cells.push_back(cell);
  return cells;
}

// The value of "key:" in a key/value block, or "<absent>".
std::string Field(const std::string& out, const std::string& key) {
  for (const std::string& line : Lines(out)) {
    const std::vector<std::string> cells = Cells(line);
    if (!cells.empty() && cells[0] == key + ":") {
      return cells.size() > 1 ? line.substr(line.find(cells[1])) : "";
    }
  }
  return "<absent>";
}

std::vector<std::string> Keys(const json& object) {
  std::vector<std::string> keys;
  for (const auto& item : object.items()) keys.push_back(item.key());
  return keys;
}

class ZelctlTest : public ::testing::Test {
 protected:
  ZelctlTest() {
    // The store holds its own copy of the defaults, secrets and all.
    HostCtl::Orva::IscsiTarget::DefaultInfo stored;
    stored.networkInterface = "nok0";
    stored.authType = "CHAP";
    stored.userid = "storeuser";
    stored.secret = kStoreSecret;
    home_.SetStoredDefaults(stored);
  }
  ProcessResult Run(const std::vector<std::string>& args, const std::string& input = "") {
    return Zelctl(home_.Path(), args, input);
  }
  json RunJson(std::vector<std::string> args, const std::string& input = "") {
    args.insert(args.begin(), "--json");
    const ProcessResult result = Run(args, input);
    EXPECT_EQ(result.exitCode, 0) << result.err;
    return result.exitCode == 0 ? json::parse(result.out) : json();
  }
  std::vector<std::string> TableLines(const std::vector<std::string>& args) {
    const ProcessResult table = Run(args);
    EXPECT_EQ(table.exitCode, 0) << table.err;
    return Lines(table.out);
  }
  std::string Conf() { return ReadFile(home_.ConfPath()); }
  std::string File(const std::string& name, const std::string& text, int mode = 0600) {
    const std::string path = home_.Path() + "/" + name;
    WriteFile(path, text, mode);
    return path;
  }
  ServiceHome home_;
};

TEST(ZelctlHostTest, HostInfoOnAFreshHomeNamesWhereEverythingLives) {
  TempHome fresh;
  const std::string home = fresh.Path() + "/host";
  const ProcessResult first = Zelctl(home, {"--json", "host", "info"});
  ASSERT_EQ(first.exitCode, 0) << first.err;
  const json info = json::parse(first.out);
  EXPECT_THAT(Keys(info), UnorderedElementsAre("hostUuid", "hostName", "home", "datastorePath",
                                               "confPath", "directory"));
  std::string canonical;
  EXPECT_TRUE(platform::ParseUuidText(info["hostUuid"].get<std::string>(), &canonical));
  EXPECT_NE(info["hostName"], "");
  EXPECT_EQ(info["home"], home);
  EXPECT_EQ(info["datastorePath"], home + "/datastore");
  EXPECT_EQ(info["confPath"], home + "/datastore/.iSCSI-CONFIG/etc/zel.conf");
  EXPECT_EQ(info["directory"], "sqlite:" + home + "/directory.db");
  // The identity made on first use is kept.
  const ProcessResult again = Zelctl(home, {"host", "info"});
  EXPECT_EQ(again.exitCode, 0);
  ASSERT_FALSE(again.out.empty());
  EXPECT_THAT(Cells(Lines(again.out)[0]), ElementsAre("hostUuid:", info["hostUuid"]));
}

TEST_F(ZelctlTest, ReadCommandsPrintTablesOrJson) {
  std::vector<std::string> lines = TableLines({"target", "list"});
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_THAT(Cells(lines[0]), ElementsAre("alias", "iqn", "networkInterface", "port", "authType",
                                           "ownerHostUuid", "faultDomain"));
  EXPECT_THAT(Cells(lines[1]), ElementsAre("finance", "iqn.2026-11.local.zel:finance", "nok0",
                                           "3260", "CHAP", home_.HostUuid()));
  EXPECT_THAT(Cells(lines[2]), ElementsAre("lab", "iqn.2026-11.local.zel:lab", "nok0", "3260",
                                           "CHAP-Mutual", kPeerHostUuid));
  const json targets = RunJson({"target", "list"});
  ASSERT_EQ(targets.size(), 2u);
  EXPECT_EQ(targets[0]["initiatorGroups"], json::array({"finance-hosts"}));
  const json local = RunJson({"target", "list", "--local"});
  ASSERT_EQ(local.size(), 1u);
  EXPECT_EQ(local[0]["alias"], "finance");
  const ProcessResult lab = Run({"target", "get", "lab"});
  EXPECT_EQ(Field(lab.out, "ownerHostName"), kPeerHostName);
  // A target's LUNs end its block as a table, the same as lun list prints.
  lines = TableLines({"target", "get", "finance"});
  ASSERT_GE(lines.size(), 3u);
  const std::vector<std::string> lunTable(lines.end() - 3, lines.end());
  EXPECT_THAT(Cells(lunTable[0]), ElementsAre("id", "alias", "sizeMiB", "status", "uuid"));
  EXPECT_THAT(Cells(lunTable[1]), ElementsAre("0", "ledger", "1024", "online", kLedgerUuid));
  EXPECT_THAT(Cells(lunTable[2]), ElementsAre("1", "100", "offline", kArchiveUuid));
  EXPECT_EQ(TableLines({"lun", "list", "--target", "finance"}), lunTable);
  const json finance = RunJson({"target", "get", "finance"});
  EXPECT_EQ(finance["uuid"], kFinanceUuid);
  ASSERT_EQ(finance["luns"].size(), 2u);
  EXPECT_EQ(finance["luns"][1]["path"],
            home_.Path() + "/datastore/" + kFinanceUuid + "/" + kArchiveUuid + ".qdsk");
  EXPECT_EQ(RunJson({"lun", "list", "--target", "finance"})[0]["sizeSectors"], 2097152);
  const ProcessResult archive = Run({"lun", "get", "--target", "finance", "--id", "1"});
  EXPECT_EQ(Field(archive.out, "status"), "offline");
  EXPECT_EQ(Field(archive.out, "uuid"), kArchiveUuid);
  const json archiveJson = RunJson({"lun", "get", "--target", "finance", "--id", "1"});
  EXPECT_EQ(archiveJson["target"], "finance");
  const ProcessResult defaults = Run({"defaults", "get"});
  EXPECT_EQ(Field(defaults.out, "userid"), "defuser");
  EXPECT_EQ(Field(defaults.out, "networkInterface"), "nok0");
  EXPECT_THAT(defaults.out, Not(HasSubstr("ecret")));
  const json defaultsJson = RunJson({"defaults", "get"});
  EXPECT_THAT(Keys(defaultsJson), UnorderedElementsAre("networkInterface", "port", "authType",
                                                       "userid", "mutualUserid"));
  EXPECT_EQ(defaultsJson["authType"], "CHAP-Mutual");
  const std::string groupTargets = "finance=iqn.2026-11.local.zel:finance";
  lines = TableLines({"initiator-group", "list"});
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_THAT(Cells(lines[0]), ElementsAre("name", "initiators", "targets"));
  EXPECT_THAT(Cells(lines[1]),
              ElementsAre("finance-hosts",
                          "iqn.2024-01.org.example:finance-db1,iqn.2024-01.org.example:finance-db2",
                          groupTargets));
  const ProcessResult group = Run({"initiator-group", "get", "finance-hosts"});
  EXPECT_EQ(Field(group.out, "name"), "finance-hosts");
  EXPECT_EQ(Field(group.out, "targets"), groupTargets);
  const json groupJson = RunJson({"initiator-group", "get", "finance-hosts"});
  EXPECT_EQ(groupJson["initiators"], json::array({"iqn.2024-01.org.example:finance-db1",
                                                  "iqn.2024-01.org.example:finance-db2"}));
  EXPECT_EQ(groupJson["targets"], json({{"finance", "iqn.2026-11.local.zel:finance"}}));
  EXPECT_EQ(RunJson({"initiator-group", "list"}), json::array({groupJson}));
}

// Each option reaches the service: secrets from stdin (one line each, the
// outgoing one first) land Base64-encoded in zel.conf, what is not given is
// kept, and the results show in the read commands.
TEST_F(ZelctlTest, EditCommandsTakeTheirOptionsAndSecretsFromStdin) {
  const json created =
      RunJson({"target", "add", "--alias", "web", "--auth-type", "CHAP", "--userid", "webuser",
               "--secret", "-", "--initiator", kWebIqn1, "--initiator", "finance-hosts"},
              std::string(kWebSecret) + "\n");
  EXPECT_THAT(Keys(created), ElementsAre("alias", "iqn", "uuid"));
  EXPECT_EQ(created["alias"], "web");
  EXPECT_THAT(created["iqn"].get<std::string>(), StartsWith("iqn."));
  json web = RunJson({"target", "get", "web"});
  EXPECT_EQ(web["uuid"], created["uuid"]);
  EXPECT_EQ(web["initiators"], json::array({kWebIqn1}));
  EXPECT_EQ(web["initiatorGroups"], json::array({"finance-hosts"}));
  EXPECT_EQ(web["ownerHostUuid"], home_.HostUuid());
  EXPECT_THAT(Conf(), HasSubstr(std::string("\"webuser\" \"") + kWebSecretBase64 + "\""));
  const ProcessResult human = Run({"target", "add", "--alias", "plain"});
  ASSERT_EQ(human.exitCode, 0) << human.err;
  EXPECT_THAT(human.out, StartsWith("alias: plain\niqn:   iqn."));
  EXPECT_THAT(human.out, HasSubstr("\nuuid:  "));
  const ProcessResult renamed =
      Run({"target", "update", "web", "--new-alias", "shop", "--add-initiator", kWebIqn2,
           "--remove-initiator", kWebIqn1, "--remove-initiator", "finance-hosts"});
  ASSERT_EQ(renamed.exitCode, 0) << renamed.err;
  EXPECT_EQ(renamed.out, "Updated target web, now named shop\n");
  const ProcessResult mutual =
      Run({"target", "update", "shop", "--auth-type", "CHAP-Mutual", "--userid", "shopuser",
           "--secret", "-", "--mutual-userid", "shoptarget", "--mutual-secret", "-"},
          std::string(kOutSecret) + "\n" + kInSecret + "\n");
  ASSERT_EQ(mutual.exitCode, 0) << mutual.err;
  json shop = RunJson({"target", "get", "shop"});
  EXPECT_EQ(shop["initiators"], json::array({kWebIqn2}));
  EXPECT_EQ(shop["initiatorGroups"], json::array());
  EXPECT_EQ(shop["networkInterface"], "nok0");
  EXPECT_EQ(shop["authType"], "CHAP-Mutual");
  EXPECT_EQ(shop["mutualUserid"], "shoptarget");
  EXPECT_THAT(Conf(), HasSubstr(std::string("\"shopuser\" \"") + kOutSecretBase64 +
                                "\" \"shoptarget\" \"" + kInSecretBase64 + "\""));
  // The service accepts only interfaces this host really has.
  const std::vector<std::string> names = platform::NewLocalNetworkInterfaces()->GetNokKernelNicNames();
  if (!names.empty()) {
    ASSERT_EQ(Run({"target", "update", "shop", "--interface", names[0], "--port", "3261"}).exitCode, 0);
    shop = RunJson({"target", "get", "shop"});
    EXPECT_EQ(shop["networkInterface"], names[0]);
    EXPECT_EQ(shop["port"], 3261);
  }
  for (const std::string alias : {"shop", "plain"}) {
    const ProcessResult removed = Run({"target", "remove", alias});
    ASSERT_EQ(removed.exitCode, 0) << removed.err;
    EXPECT_EQ(removed.out, "Removed target " + alias + "\n");
  }
  EXPECT_EQ(RunJson({"target", "list"}).size(), 2u);
  ASSERT_EQ(Run({"initiator-group", "add", "web-hosts"}).exitCode, 0);
  ASSERT_EQ(Run({"initiator-group", "add-initiators", "web-hosts", kWebIqn1, kWebIqn2}).exitCode, 0);
  EXPECT_EQ(RunJson({"initiator-group", "get", "web-hosts"})["initiators"],
            json::array({kWebIqn1, kWebIqn2}));
  ASSERT_EQ(Run({"initiator-group", "remove-initiators", "web-hosts", kWebIqn1}).exitCode, 0);
  EXPECT_EQ(RunJson({"initiator-group", "get", "web-hosts"})["initiators"], json::array({kWebIqn2}));
  ASSERT_EQ(Run({"initiator-group", "remove", "web-hosts", "--force"}).exitCode, 0);
  EXPECT_EQ(RunJson({"initiator-group", "list"}).size(), 1u);
}

// Refusals exit 1 with the service's message last on stderr (read commands
// print nothing else), usage errors exit 2; neither prints on stdout nor
// changes zel.conf.
TEST_F(ZelctlTest, RefusalsExitOneAndUsageErrorsTwoChangingNothing) {
  const std::vector<std::tuple<std::vector<std::string>, std::string, bool>> refused = {
      {{"lun", "get", "--target", "finance", "--id", "7"},
       "LUN id 7 not found for target finance\n", true},
      {{"target", "remove", "finance"}, "Target finance is not empty.\n", false},
      {{"initiator-group", "remove", "finance-hosts"},
       "Failed to remove initiator group finance-hosts with error Initiator group finance-hosts "
       "is not empty. Use '--force' option to delete.\n",
       false},
      {{"target", "add", "--alias", "web", "--port", "3261"},
       "Network interface is not provided for port 3261\n", false},
  };
  const std::string before = Conf();
  for (const auto& [args, message, alone] : refused) {
    SCOPED_TRACE(::testing::PrintToString(args));
    const ProcessResult result = Run(args);
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.out, "");
    // The service's own error log lines may come before its message.
    const std::string::size_type tail = result.err.size() - std::min(result.err.size(), message.size());
    EXPECT_EQ(alone ? result.err : result.err.substr(tail), message);
    EXPECT_EQ(Conf(), before);
  }
  const std::vector<std::vector<std::string>> misused = {
      {"target", "add", "--secret", "-"},  // no alias
      {"target", "update", "--new-alias", "x"},
      {"target", "add", "--alias", "web", "--frobnicate"},
      {"initiator-group", "add-initiators", "finance-hosts"},
      {"conf", "check"},
      {"conf", "frobnicate"},
  };
  for (const std::vector<std::string>& args : misused) {
    const ProcessResult result = Run(args, std::string(kWebSecret) + "\n");
    EXPECT_EQ(result.exitCode, 2) << ::testing::PrintToString(args);
    EXPECT_EQ(result.out, "") << ::testing::PrintToString(args);
  }
  EXPECT_EQ(Conf(), before);
  const ProcessResult help = Run({"conf", "fmt", "--help"});
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_THAT(help.out, HasSubstr("FILE"));
  home_.SetServiceEnabled(false);
  const ProcessResult disabled = Run({"--json", "target", "list"});
  EXPECT_EQ(disabled.exitCode, 1);
  EXPECT_EQ(disabled.out, "");
  EXPECT_EQ(disabled.err,
            "Orva iSCSI Target Service is not enabled or the enable task is in progress.\n");
}

// conf check prints the reader's warnings one per line (and with -v its
// info and debug lines) and refuses a syntax error naming line and token;
// conf fmt prints the formatted file (secrets and all, as the file has them),
// or nothing on stdout when it fails.
TEST_F(ZelctlTest, ConfCheckAndFmtReportOnStderrAndFormatOnStdout) {
  const auto Plain = [this](std::vector<std::string> args) {
    args.insert(args.begin(), {ZELCTL_PATH, "--home", home_.Path()});
    return RunProgram(args);
  };
  const std::string sample = ReadFile(std::string(ZEL_SAMPLES_DIR) + "/zel.conf");
  const std::string copy = File("sample.conf", sample);
  ProcessResult run = Plain({"conf", "check", copy});
  EXPECT_EQ(run.exitCode, 0);
  EXPECT_EQ(run.err, "");
  run = Plain({"conf", "fmt", copy});
  EXPECT_EQ(run.exitCode, 0);
  EXPECT_EQ(run.out, sample);
  run = Plain({"-v", "conf", "check", copy});
  EXPECT_EQ(run.exitCode, 0);
  EXPECT_THAT(run.err, HasSubstr("Parser: Initializing ZEL parser lib"));
  EXPECT_THAT(run.err, HasSubstr("ZELD: share lock succeeded for config file " + copy));
  const std::string warn = File("warn.conf", "generation 1\nauth-group unused {\n}\n", 0644);
  run = Plain({"conf", "check", warn});
  EXPECT_EQ(run.exitCode, 0);
  EXPECT_EQ(run.err, "ZELD: " + warn + " is world-readable\n" +
                         "ZELD: auth-group \"unused\" not assigned to any target\n");
  const std::string bad = File("bad.conf", "generation 1\ntarget {\n}\n");
  run = Plain({"conf", "check", bad});
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_THAT(run.err, HasSubstr("error in configuration file at line 2 near '{': syntax error"));
  EXPECT_THAT(run.err, HasSubstr("Failed to read conf file: " + bad));
  // 24 secret bytes need 32 Base64 characters: one more than fits.
  const std::string tooLong = File("long.conf", "generation 1\nauth-group g {\n chap \"u\" "
                                                "\"c2VjcmV0c2VjcmV0c2VjcmV0c2VjcmV0\"\n}\n");
  run = Plain({"conf", "fmt", tooLong});
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_THAT(run.err, HasSubstr("Base64_Encode failed: Unexpected encoding size"));
}

}  // namespace
}  // namespace test
}  // namespace zel
