// zelctl end to end in a prepared home: what the command line adds to the
// library: tables or JSON on stdout, one line per change, exit codes 0, 1
// (the service's message) and 2 (usage), secrets read from stdin and never
// printed, control characters shown escaped, zel.conf untouched by a refused
// or misused command. The service commands run with real daemons in programs_test.cc.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/EntryMarshal.h"
#include "platform/local/LocalNetworkInterfaces.h"
#include "support/Process.h"
#include "support/ServiceHome.h"

namespace zel::test {
namespace {

using nlohmann::json;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

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

std::vector<std::string> Argv(const std::string& home, std::vector<std::string> args) {
  args.insert(args.begin(), {ZELCTL_PATH, "--home", home});
  return args;
}

// A terminal acts on these bytes: ESC, BEL, DEL and the C1 control CSI.
bool HasControlCharacter(const std::string& text) {
  for (size_t i = 0; i < text.size(); ++i) {
    const unsigned char c = text[i], next = i + 1 < text.size() ? text[i + 1] : 0;
    if ((c < 0x20 && c != '\n') || c == 0x7F || (c == 0xC2 && next >= 0x80 && next < 0xA0)) {
      return true;
    }
  }
  return false;
}

// Runs zelctl; no secret is ever printed, and no control character either
// (JSON escapes by its own rules, which leave C1 characters as they are).
ProcessResult Zelctl(const std::string& home, const std::vector<std::string>& args,
                     const std::string& input = "") {
  ProcessResult result = RunProgram(Argv(home, args), input);
  const std::string what = ::testing::PrintToString(args);
  for (const std::string& secret : kSecrets) {
    EXPECT_EQ((result.out + "\n" + result.err).find(secret), std::string::npos) << what << " shows a secret";
  }
  if (std::find(args.begin(), args.end(), "--json") == args.end()) {
    EXPECT_FALSE(HasControlCharacter(result.out)) << what;
  }
  EXPECT_FALSE(HasControlCharacter(result.err)) << what;
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
  std::smatch match;
  return std::regex_search(out, match, std::regex("(^|\n) *" + key + ": *([^\n]*)")) ? match[2].str()
                                                                                   : "<absent>";
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
  const std::string uuid = info.value("hostUuid", "");
  std::string canonical;
  EXPECT_TRUE(platform::ParseUuidText(uuid, &canonical)) << uuid;
  EXPECT_NE(info.value("hostName", ""), "");
  EXPECT_EQ(info, json({{"hostUuid", uuid}, {"hostName", info.value("hostName", "")}, {"home", home},
                        {"datastorePath", home + "/datastore"},
                        {"confPath", home + "/datastore/.iSCSI-CONFIG/etc/zel.conf"},
                        {"directory", "sqlite:" + home + "/directory.db"}}));
  EXPECT_EQ(Field(Zelctl(home, {"host", "info"}).out, "hostUuid"), uuid);
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
  EXPECT_EQ(Field(Run({"target", "get", "lab"}).out, "ownerHostName"), kPeerHostName);
  // A target's LUNs end its block as a table, the same as lun list prints.
  lines = TableLines({"target", "get", "finance"});
  ASSERT_GE(lines.size(), 3u);
  const std::vector<std::string> lunTable(lines.end() - 3, lines.end());
  EXPECT_THAT(Cells(lunTable[0]), ElementsAre("id", "alias", "size", "status", "uuid"));
  EXPECT_THAT(Cells(lunTable[1]), ElementsAre("0", "ledger", "1GiB", "online", kLedgerUuid));
  EXPECT_THAT(Cells(lunTable[2]), ElementsAre("1", "100MiB", "offline", kArchiveUuid));
  // lun list shows every field, the policies with them.
  const std::vector<std::string> lunList = TableLines({"lun", "list", "--target", "finance"});
  ASSERT_EQ(lunList.size(), 3u);
  EXPECT_EQ(Cells(lunList[0]).size(), 13u);
  EXPECT_THAT(lunList[1], HasSubstr("ledger-policy"));
  const json finance = RunJson({"target", "get", "finance"});
  EXPECT_EQ(finance["uuid"], kFinanceUuid);
  ASSERT_EQ(finance["luns"].size(), 2u);
  EXPECT_EQ(finance["luns"][1]["path"],
            home_.Path() + "/datastore/" + kFinanceUuid + "/" + kArchiveUuid + ".qdsk");
  EXPECT_EQ(RunJson({"lun", "list", "--target", "finance"})[0]["sizeSectors"], 2097152);
  const ProcessResult archive = Run({"lun", "get", "--target", "finance", "--id", "1"});
  EXPECT_EQ(Field(archive.out, "status") + " " + Field(archive.out, "uuid"),
            "offline " + std::string(kArchiveUuid));
  EXPECT_EQ(RunJson({"lun", "get", "--target", "finance", "--id", "1"})["target"], "finance");
  const ProcessResult defaults = Run({"defaults", "get"});
  EXPECT_EQ(Field(defaults.out, "userid") + " " + Field(defaults.out, "networkInterface"), "defuser nok0");
  EXPECT_THAT(defaults.out, ::testing::Not(HasSubstr("ecret")));
  EXPECT_EQ(RunJson({"defaults", "get"}), json({{"networkInterface", "nok0"}, {"port", 3260},
                                                {"authType", "CHAP-Mutual"}, {"userid", "defuser"},
                                                {"mutualUserid", "defmutual"}}));
  const std::string groupTargets = "finance=iqn.2026-11.local.zel:finance";
  lines = TableLines({"initiator-group", "list"});
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_THAT(Cells(lines[0]), ElementsAre("name", "initiators", "targets"));
  EXPECT_THAT(Cells(lines[1]),
              ElementsAre("finance-hosts",
                          "iqn.2024-01.org.example:finance-db1,iqn.2024-01.org.example:finance-db2",
                          groupTargets));
  const ProcessResult group = Run({"initiator-group", "get", "finance-hosts"});
  EXPECT_EQ(Field(group.out, "name") + " " + Field(group.out, "targets"), "finance-hosts " + groupTargets);
  const json groupJson = RunJson({"initiator-group", "get", "finance-hosts"});
  EXPECT_EQ(groupJson["initiators"], json::array({"iqn.2024-01.org.example:finance-db1",
                                                  "iqn.2024-01.org.example:finance-db2"}));
  EXPECT_EQ(groupJson["targets"], json({{"finance", "iqn.2026-11.local.zel:finance"}}));
  EXPECT_EQ(RunJson({"initiator-group", "list"}), json::array({groupJson}));
}

// Each option reaches the service: secrets from stdin (one line each, the outgoing one first,
// CRLF or no line end) land Base64-encoded in zel.conf, what is not given is kept.
TEST_F(ZelctlTest, EditCommandsTakeTheirOptionsAndSecretsFromStdin) {
  const json created =
      RunJson({"target", "add", "--alias", "web", "--auth-type", "CHAP", "--userid", "webuser",
               "--secret", "-", "--initiator", kWebIqn1, "--initiator", "finance-hosts"},
              std::string(kWebSecret) + "\n");
  const json web = RunJson({"target", "get", "web"});
  EXPECT_EQ(created, json({{"alias", "web"}, {"iqn", web["iqn"]}, {"uuid", web["uuid"]}}));
  EXPECT_EQ(json::array({web["initiators"], web["initiatorGroups"], web["ownerHostUuid"]}),
            json::array({json::array({kWebIqn1}), json::array({"finance-hosts"}), home_.HostUuid()}));
  EXPECT_THAT(Conf(), HasSubstr(std::string("\"webuser\" \"") + kWebSecretBase64 + "\""));
  const ProcessResult human = Run({"target", "add", "--alias", "plain"});
  ASSERT_EQ(human.exitCode, 0) << human.err;
  EXPECT_THAT(human.out, StartsWith("alias: plain\niqn:   iqn."));
  EXPECT_THAT(human.out, HasSubstr("\nuuid:  "));
  ASSERT_EQ(0, Run({"target", "update", "web", "--new-alias", "shop", "--add-initiator", kWebIqn2,
                    "--remove-initiator", kWebIqn1, "--remove-initiator", "finance-hosts"}).exitCode);
  const ProcessResult mutual =
      Run({"target", "update", "shop", "--auth-type", "CHAP-Mutual", "--userid", "shopuser",
           "--secret", "-", "--mutual-userid", "shoptarget", "--mutual-secret", "-"},
          std::string(kOutSecret) + "\n" + kInSecret + "\n");
  ASSERT_EQ(mutual.exitCode, 0) << mutual.err;
  json shop = RunJson({"target", "get", "shop"});
  EXPECT_EQ(json::array({shop["initiators"], shop["initiatorGroups"], shop["networkInterface"],
                         shop["authType"], shop["mutualUserid"]}),
            json::array({json::array({kWebIqn2}), json::array(), "nok0", "CHAP-Mutual", "shoptarget"}));
  EXPECT_THAT(Conf(), HasSubstr(std::string("\"shopuser\" \"") + kOutSecretBase64 +
                                "\" \"shoptarget\" \"" + kInSecretBase64 + "\""));
  for (const auto& [user, input] : std::vector<std::pair<std::string, std::string>>{
           {"crlf", "Web#Secret1234\r\nIn#Secret12345\r\n"}, {"noend", "Web#Secret1234\r\nIn#Secret12345"}}) {
    const ProcessResult added =
        Run({"target", "add", "--alias", user, "--auth-type", "CHAP-Mutual", "--userid", "user",
             "--secret", "-", "--mutual-userid", user, "--mutual-secret", "-"},
            input);
    ASSERT_EQ(added.exitCode, 0) << added.err;
    EXPECT_THAT(Conf(), HasSubstr(std::string("\"") + kWebSecretBase64 + "\" \"" + user + "\" \"" +
                                  kInSecretBase64 + "\""));
  }
  // The service accepts only interfaces this host really has.
  const std::vector<std::string> names =
      platform::NewLocalNetworkInterfaces(platform::LoadHostConfig(home_.Path()))
          ->GetNokKernelNicNames();
  if (!names.empty()) {
    ASSERT_EQ(Run({"target", "update", "shop", "--interface", names[0], "--port", "3261"}).exitCode, 0);
    shop = RunJson({"target", "get", "shop"});
    EXPECT_EQ(json::array({shop["networkInterface"], shop["port"]}), json::array({names[0], 3261}));
  }
  for (const std::string alias : {"shop", "plain", "crlf", "noend"}) {
    const ProcessResult removed = Run({"target", "remove", alias});
    ASSERT_EQ(removed.exitCode, 0) << removed.err;
    EXPECT_EQ(removed.out, "Removed target " + alias + "\n");
  }
  EXPECT_EQ(RunJson({"target", "list"}).size(), 2u);
  ASSERT_EQ(Run({"initiator-group", "add", "web-hosts"}).exitCode, 0);
  ASSERT_EQ(Run({"initiator-group", "add-initiators", "web-hosts", kWebIqn1, kWebIqn2}).exitCode, 0);
  ASSERT_EQ(Run({"initiator-group", "remove-initiators", "web-hosts", kWebIqn1}).exitCode, 0);
  EXPECT_EQ(RunJson({"initiator-group", "get", "web-hosts"})["initiators"], json::array({kWebIqn2}));
}

// A change prints one line and nothing on stderr; a refusal exits 1 with the
// service's message (alone, or last after the service's log lines); a usage
// error exits 2 with its message first. Neither prints on stdout nor changes
// zel.conf.
TEST_F(ZelctlTest, EachCommandPrintsOneLineOrRefusesWithOneOrTwoChangingNothing) {
  struct Case {
    std::vector<std::string> args;
    int exitCode;
    std::string text;  // stdout of a change; stderr (or its start for 2) of a failure
    bool alone = true;  // the refusal is all of stderr
  };
  const std::string missing = home_.Path() + "/missing.conf";
  const std::vector<Case> cases = {
      {{"initiator-group", "add", "web"}, 0, "Added initiator group web\n"},
      {{"initiator-group", "add-initiators", "web", kWebIqn1, kWebIqn2}, 0,
       "Added 2 initiators to initiator group web\n"},
      {{"initiator-group", "remove-initiators", "web", kWebIqn2}, 0,
       "Removed 1 initiator from initiator group web\n"},
      {{"target", "update", "finance", "--add-initiator", "web"}, 0, "Updated target finance\n"},
      {{"target", "update", "lab", "--new-alias", "lab2"}, 0, "Updated target lab, now named lab2\n"},
      {{"initiator-group", "remove", "web", "--force"}, 0, "Removed initiator group web\n"},
      {{"target", "add", "--alias", "finance"}, 1, "Target alias finance already exists.\n"},
      {{"lun", "get", "--target", "finance", "--id", "7"}, 1, "LUN id 7 not found for target finance\n"},
      {{"conf", "check", missing}, 1, "Cannot read " + missing + ": No such file or directory\n"},
      {{"target", "remove", "finance"}, 1, "Target finance is not empty.\n", false},
      {{"initiator-group", "remove", "finance-hosts"}, 1,
       "Failed to remove initiator group finance-hosts with error Initiator group finance-hosts "
       "is not empty. Use '--force' option to delete.\n", false},
      {{"target", "add", "--alias", "web", "--port", "3261"}, 1,
       "Network interface is not provided for port 3261\n", false},
      {{"target", "nosuch"}, 2, "Unknown command: target nosuch\n"},
      {{"target", "update", "finance"}, 2, "At least 1 option from [--new-alias,"},
      {{"target", "update", "finance", "--new-alias", ""}, 2, "--new-alias: must not be empty\n"},
      {{"initiator-group", "get", ""}, 2, "NAME: must not be empty\n"},
      {{"initiator-group", "add-initiators", "finance-hosts", ""}, 2, "IQN: must not be empty\n"},
      {{"target", "get", ""}, 2, "ALIAS: must not be empty\n"},
      {{"target", "remove", ""}, 2, "ALIAS: must not be empty\n"},
      {{"lun", "list", "--target", ""}, 2, "--target: must not be empty\n"},
      {{"target", "add", "--secret", "-"}, 2, ""}, {{"target", "update", "--new-alias", "x"}, 2, ""},
      {{"target", "add", "--alias", "web", "--frobnicate"}, 2, ""}, {{"conf", "check"}, 2, ""},
      {{"initiator-group", "add-initiators", "finance-hosts"}, 2, ""}, {{"conf", "frobnicate"}, 2, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.args));
    const std::string before = Conf();
    const ProcessResult result = Run(c.args, std::string(kWebSecret) + "\n");
    EXPECT_EQ(result.exitCode, c.exitCode) << result.err;
    if (c.exitCode == 0) {
      EXPECT_EQ(result.out, c.text);
      EXPECT_EQ(result.err, "");
      continue;
    }
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(Conf(), before);
    const size_t size = std::min(result.err.size(), c.text.size());
    EXPECT_EQ(c.exitCode == 2 ? result.err.substr(0, size)
                              : c.alone ? result.err : result.err.substr(result.err.size() - size),
              c.text);
  }
  // With --json after the command, a change prints the record it left.
  EXPECT_EQ(json::parse(Run({"initiator-group", "add", "db", "--json"}).out)["name"], "db");
  const ProcessResult help = Run({"conf", "fmt", "--help"});
  EXPECT_TRUE(help.exitCode == 0 && help.out.find("FILE") != std::string::npos) << help.out;
  home_.SetServiceEnabled(false);
  const ProcessResult disabled = Run({"--json", "target", "list"});
  EXPECT_EQ(std::make_tuple(disabled.exitCode, disabled.out, disabled.err),
            std::make_tuple(1, std::string(), std::string("Orva iSCSI Target Service is not enabled or the "
                                                          "enable task is in progress.\n")));
}

// A name is shown escaped in tables, blocks, refusals and usage errors, and
// kept as it is in JSON.
TEST_F(ZelctlTest, ControlCharactersInNamesAreShownEscapedButKeptInJson) {
  const std::vector<std::pair<std::string, std::string>> aliases = {
      {"clear\x1b[2J", "clear\\e[2J"}, {"bell\a", "bell\\a"},    {"del\x7f", "del\\x7f"},
      {"csi\xc2\x9b", "csi\\u009b"},   {"back\\s", "back\\\\s"}, {"utf\xc3\xa9", "utf\xc3\xa9"}};
  for (const auto& [alias, shown] : aliases) {
    const ProcessResult added = Run({"target", "add", "--alias", alias});
    ASSERT_EQ(added.exitCode, 0) << shown << ": " << added.err;
    EXPECT_THAT(added.out, StartsWith("alias: " + shown + "\n"));
    EXPECT_THAT(Run({"target", "list"}).out, HasSubstr("\n" + shown + " "));
    EXPECT_EQ(json::parse(Run({"target", "get", alias, "--json"}).out)["alias"], alias);
    EXPECT_EQ(Run({"target", "add", "--alias", alias}).err,
              "Target alias " + shown + " already exists.\n");
    EXPECT_THAT(Run({"target", "get", "finance", alias}).err, HasSubstr(shown));
  }
}

// conf check reports on stderr, one line per warning (with -v also the info lines), and
// fails on a syntax error; conf fmt prints the formatted file (secrets and all, as the file
// has them) or nothing on stdout when it fails. The messages are the reader's own.
TEST_F(ZelctlTest, ConfCheckAndFmtReportOnStderrAndFormatOnStdout) {
  const std::string sample = ReadFile(std::string(ZEL_SAMPLES_DIR) + "/zel.conf");
  const std::string copy = File("sample.conf", sample);
  const std::string warn = File("warn.conf", "generation 1\nauth-group unused {\n}\n", 0644);
  const std::string bad = File("bad.conf", "generation 1\ntarget {\n}\n");
  // 24 secret bytes need 32 Base64 characters: one more than fits.
  const std::string tooLong = File("long.conf", "generation 1\nauth-group g {\n chap \"u\" "
                                                "\"c2VjcmV0c2VjcmV0c2VjcmV0c2VjcmV0\"\n}\n");
  struct Case {
    std::vector<std::string> args;
    int exitCode;
    std::string out, err;
    bool wholeErr;
  };
  for (const Case& c : std::vector<Case>{
           {{"conf", "check", copy}, 0, "", "", true},
           {{"conf", "fmt", copy}, 0, sample, "", true},
           {{"-v", "conf", "check", copy}, 0, "", "Parser: Initializing ZEL parser lib", false},
           {{"conf", "check", warn}, 0, "", "ZELD: " + warn + " is world-readable\n" +
                "ZELD: auth-group \"unused\" not assigned to any target\n", true},
           {{"conf", "check", bad}, 1, "", "at line 2 near '{': syntax error", false},
           {{"conf", "fmt", tooLong}, 1, "", "Base64_Encode failed: Unexpected encoding size", false}}) {
    const ProcessResult run = RunProgram(Argv(home_.Path(), c.args));
    EXPECT_EQ(run.exitCode, c.exitCode) << c.args[2];
    EXPECT_EQ(run.out, c.out) << c.args[2];
    EXPECT_TRUE(c.wholeErr ? run.err == c.err : run.err.find(c.err) != std::string::npos) << run.err;
  }
}

}  // namespace
}  // namespace zel::test
