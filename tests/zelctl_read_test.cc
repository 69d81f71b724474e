// zelctl's read commands as an operator runs them on a host: the host's
// facts on a fresh home, the prepared targets, LUNs, defaults and initiator
// groups as tables and as JSON, no secret in any output, and the service's
// own message with exit code 1 when it refuses.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/EntryMarshal.h"
#include "support/Process.h"
#include "support/ServiceHome.h"

namespace zel {
namespace test {
namespace {

using nlohmann::json;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::UnorderedElementsAre;

// Every secret the home holds, in the clear and as the files keep them.
const std::vector<std::string> kSecrets = {
    kDefaultSecret,         "RGVmYXVsdCNTZWNyZXQx", kDefaultMutualSecret, "TXV0dWFsI1NlY3JldDIy",
    kStoreSecret,           kFinanceSecret,         "RmluYW5jZSNTZWNyZXQx", "Lab#Outgoing1",
    "TGFiI091dGdvaW5nMQ==", "Lab#Incoming2",        "TGFiI0luY29taW5nMg=="};

ProcessResult Zelctl(const std::string& home, std::vector<std::string> args) {
  args.insert(args.begin(), {ZELCTL_PATH, "--home", home});
  ProcessResult result = RunProgram(args);
  for (const std::string& secret : kSecrets) {
    EXPECT_EQ(result.out.find(secret), std::string::npos) << "stdout shows a secret";
    EXPECT_EQ(result.err.find(secret), std::string::npos) << "stderr shows a secret";
  }
  return result;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::string::size_type start = 0, end;
  while ((end = text.find('\n', start)) != std::string::npos) {
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

// The words of a table line.
std::vector<std::string> Cells(const std::string& line) {
  std::vector<std::string> cells;
  std::string::size_type start = line.find_first_not_of(' ');
  while (start != std::string::npos) {
    const std::string::size_type end = line.find(' ', start);
    cells.push_back(line.substr(start, end - start));
    start = end == std::string::npos ? end : line.find_first_not_of(' ', end);
  }
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

class ZelctlReadTest : public ::testing::Test {
 protected:
  ZelctlReadTest() {
    // The store holds its own copy of the defaults, secrets and all.
    HostCtl::Orva::IscsiTarget::DefaultInfo stored;
    stored.networkInterface = "nok0";
    stored.authType = "CHAP";
    stored.userid = "storeuser";
    stored.secret = kStoreSecret;
    home_.SetStoredDefaults(stored);
  }
  ProcessResult Run(const std::vector<std::string>& args) { return Zelctl(home_.Path(), args); }
  json RunJson(std::vector<std::string> args) {
    args.insert(args.begin(), "--json");
    const ProcessResult result = Run(args);
    EXPECT_EQ(result.exitCode, 0) << result.err;
    return json::parse(result.out);
  }

  ServiceHome home_;
};

TEST(ZelctlReadHostTest, HostInfoOnAFreshHomeNamesWhereEverythingLives) {
  TempHome fresh;
  const std::string home = fresh.Path() + "/host";
  const ProcessResult first = Zelctl(home, {"--json", "host", "info"});
  ASSERT_EQ(first.exitCode, 0) << first.err;
  const json info = json::parse(first.out);
  std::vector<std::string> keys;
  for (const auto& item : info.items()) keys.push_back(item.key());
  EXPECT_THAT(keys, UnorderedElementsAre("hostUuid", "hostName", "home", "datastorePath",
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

TEST_F(ZelctlReadTest, TargetListShowsEveryTargetWithItsOwner) {
  const ProcessResult table = Run({"target", "list"});
  ASSERT_EQ(table.exitCode, 0) << table.err;
  const std::vector<std::string> lines = Lines(table.out);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_THAT(Cells(lines[0]), ElementsAre("alias", "iqn", "networkInterface", "port", "authType",
                                           "ownerHostUuid", "faultDomain"));
  EXPECT_THAT(Cells(lines[1]), ElementsAre("finance", "iqn.2026-11.local.zel:finance", "nok0",
                                           "3260", "CHAP", home_.HostUuid()));
  EXPECT_THAT(Cells(lines[2]), ElementsAre("lab", "iqn.2026-11.local.zel:lab", "nok0", "3260",
                                           "CHAP-Mutual", kPeerHostUuid));

  const json targets = RunJson({"target", "list"});
  ASSERT_EQ(targets.size(), 2u);
  EXPECT_EQ(targets[0]["alias"], "finance");
  EXPECT_EQ(targets[0]["userid"], "finance");
  EXPECT_EQ(targets[0]["initiatorGroups"], json::array({"finance-hosts"}));
  EXPECT_EQ(targets[1]["ownerHostUuid"], kPeerHostUuid);
  EXPECT_EQ(targets[1]["mutualUserid"], "labtarget");

  const json local = RunJson({"target", "list", "--local"});
  ASSERT_EQ(local.size(), 1u);
  EXPECT_EQ(local[0]["alias"], "finance");
}

TEST_F(ZelctlReadTest, TargetGetShowsTheRecordAndItsLuns) {
  const ProcessResult shown = Run({"target", "get", "lab"});
  ASSERT_EQ(shown.exitCode, 0) << shown.err;
  EXPECT_EQ(Field(shown.out, "ownerHostName"), kPeerHostName);
  EXPECT_EQ(Field(shown.out, "authType"), "CHAP-Mutual");
  EXPECT_EQ(Field(shown.out, "policy"), "lab-policy");

  const ProcessResult withLuns = Run({"target", "get", "finance"});
  ASSERT_EQ(withLuns.exitCode, 0) << withLuns.err;
  const std::vector<std::string> lines = Lines(withLuns.out);
  ASSERT_GE(lines.size(), 3u);
  EXPECT_THAT(Cells(lines[lines.size() - 3]), ElementsAre("id", "alias", "sizeMiB", "status", "uuid"));
  EXPECT_THAT(Cells(lines[lines.size() - 2]), ElementsAre("0", "ledger", "1024", "online", kLedgerUuid));
  EXPECT_THAT(Cells(lines[lines.size() - 1]), ElementsAre("1", "100", "offline", kArchiveUuid));

  const json finance = RunJson({"target", "get", "finance"});
  EXPECT_EQ(finance["uuid"], kFinanceUuid);
  EXPECT_EQ(finance["policy"], "finance-policy");
  EXPECT_EQ(finance["initiators"], json::array({"iqn.2024-01.org.example:backup1"}));
  ASSERT_EQ(finance["luns"].size(), 2u);
  EXPECT_EQ(finance["luns"][1]["path"],
            home_.Path() + "/datastore/" + kFinanceUuid + "/" + kArchiveUuid + ".qdsk");
}

TEST_F(ZelctlReadTest, LunListAndGetShowTheTargetsLuns) {
  const ProcessResult table = Run({"lun", "list", "--target", "finance"});
  ASSERT_EQ(table.exitCode, 0) << table.err;
  const std::vector<std::string> lines = Lines(table.out);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_THAT(Cells(lines[1]), ElementsAre("0", "ledger", "1024", "online", kLedgerUuid));
  EXPECT_THAT(Cells(lines[2]), ElementsAre("1", "100", "offline", kArchiveUuid));

  const json luns = RunJson({"lun", "list", "--target", "finance"});
  ASSERT_EQ(luns.size(), 2u);
  EXPECT_EQ(luns[0]["sizeSectors"], 2097152);

  const ProcessResult shown = Run({"lun", "get", "--target", "finance", "--id", "1"});
  ASSERT_EQ(shown.exitCode, 0) << shown.err;
  EXPECT_EQ(Field(shown.out, "status"), "offline");
  EXPECT_EQ(Field(shown.out, "uuid"), kArchiveUuid);
  const json archive = RunJson({"lun", "get", "--target", "finance", "--id", "1"});
  EXPECT_EQ(archive["status"], "offline");
  EXPECT_EQ(archive["policy"], "archive-policy");
  EXPECT_EQ(archive["target"], "finance");
}

TEST_F(ZelctlReadTest, DefaultsShowTheConfigurationsDefaultsWithoutSecrets) {
  const ProcessResult shown = Run({"defaults", "get"});
  ASSERT_EQ(shown.exitCode, 0) << shown.err;
  EXPECT_EQ(Field(shown.out, "userid"), "defuser");
  EXPECT_EQ(Field(shown.out, "networkInterface"), "nok0");
  EXPECT_THAT(shown.out, Not(HasSubstr("ecret")));

  const json defaults = RunJson({"defaults", "get"});
  std::vector<std::string> keys;
  for (const auto& item : defaults.items()) keys.push_back(item.key());
  EXPECT_THAT(keys, UnorderedElementsAre("networkInterface", "port", "authType", "userid",
                                         "mutualUserid"));
  EXPECT_EQ(defaults["authType"], "CHAP-Mutual");
  EXPECT_EQ(defaults["userid"], "defuser");
  EXPECT_EQ(defaults["mutualUserid"], "defmutual");
  EXPECT_EQ(defaults["port"], 3260);
}

TEST_F(ZelctlReadTest, InitiatorGroupListAndGetShowMembersAndTargets) {
  const ProcessResult table = Run({"initiator-group", "list"});
  ASSERT_EQ(table.exitCode, 0) << table.err;
  const std::vector<std::string> lines = Lines(table.out);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_THAT(Cells(lines[0]), ElementsAre("name", "initiators", "targets"));
  EXPECT_THAT(Cells(lines[1]),
              ElementsAre("finance-hosts",
                          "iqn.2024-01.org.example:finance-db1,iqn.2024-01.org.example:finance-db2",
                          "{\"finance\":\"iqn.2026-11.local.zel:finance\"}"));

  const json group = RunJson({"initiator-group", "get", "finance-hosts"});
  EXPECT_EQ(group["name"], "finance-hosts");
  EXPECT_EQ(group["initiators"], json::array({"iqn.2024-01.org.example:finance-db1",
                                              "iqn.2024-01.org.example:finance-db2"}));
  EXPECT_EQ(group["targets"], json({{"finance", "iqn.2026-11.local.zel:finance"}}));
  const json groups = RunJson({"initiator-group", "list"});
  ASSERT_EQ(groups.size(), 1u);
  EXPECT_EQ(groups[0], group);

  const ProcessResult shown = Run({"initiator-group", "get", "finance-hosts"});
  ASSERT_EQ(shown.exitCode, 0) << shown.err;
  EXPECT_EQ(Field(shown.out, "name"), "finance-hosts");
  EXPECT_EQ(Field(shown.out, "targets"), "{\"finance\":\"iqn.2026-11.local.zel:finance\"}");
}

TEST_F(ZelctlReadTest, RefusalPrintsTheServicesMessageAndExitsOne) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> refused = {
      {{"target", "get", "nosuch"}, "Target nosuch not found\n"},
      {{"lun", "get", "--target", "finance", "--id", "7"}, "LUN id 7 not found for target finance\n"},
      {{"lun", "list", "--target", "nosuch"}, "Target nosuch not found\n"},
      {{"initiator-group", "get", "nosuch"}, "Initiator group nosuch not found.\n"},
  };
  for (const auto& [args, message] : refused) {
    const ProcessResult result = Run(args);
    EXPECT_EQ(result.exitCode, 1) << args[0];
    EXPECT_EQ(result.out, "") << args[0];
    EXPECT_EQ(result.err, message);
  }

  home_.SetServiceEnabled(false);
  const ProcessResult disabled = Run({"--json", "target", "list"});
  EXPECT_EQ(disabled.exitCode, 1);
  EXPECT_EQ(disabled.out, "");
  EXPECT_EQ(disabled.err,
            "Orva iSCSI Target Service is not enabled or the enable task is in progress.\n");
}

}  // namespace
}  // namespace test
}  // namespace zel
