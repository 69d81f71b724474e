// zelctl's commands that change targets and initiator groups, run as an
// operator runs them on a host with the service enabled: what lands in
// zel.conf and shows up in the read commands afterwards, secrets taken from
// standard input and never printed, and refusals and usage errors that
// leave zel.conf byte for byte as it was.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/local/LocalNetworkInterfaces.h"
#include "support/Process.h"
#include "support/ServiceHome.h"

namespace zel {
namespace test {
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

std::string LastLine(const std::string& text) {
  const std::string::size_type end = text.rfind('\n', text.size() >= 2 ? text.size() - 2 : 0);
  return end == std::string::npos ? text : text.substr(end + 1);
}

class ZelctlEditTest : public ::testing::Test {
 protected:
  ProcessResult Run(std::vector<std::string> args, const std::string& input = "") {
    args.insert(args.begin(), {ZELCTL_PATH, "--home", home_.Path()});
    ProcessResult result = RunProgram(args, input);
    for (const std::string secret : {kWebSecret, kWebSecretBase64, kOutSecret, kOutSecretBase64,
                                     kInSecret, kInSecretBase64, kFinanceSecret}) {
      EXPECT_EQ(result.out.find(secret), std::string::npos) << "stdout shows a secret";
      EXPECT_EQ(result.err.find(secret), std::string::npos) << "stderr shows a secret";
    }
    return result;
  }
  json RunJson(std::vector<std::string> args, const std::string& input = "") {
    args.insert(args.begin(), "--json");
    const ProcessResult result = Run(args, input);
    EXPECT_EQ(result.exitCode, 0) << result.err;
    return result.exitCode == 0 ? json::parse(result.out) : json();
  }
  json AddWebTarget() {
    return RunJson({"target", "add", "--alias", "web", "--auth-type", "CHAP", "--userid", "webuser",
                    "--secret", "-", "--initiator", kWebIqn1, "--initiator", "finance-hosts"},
                   std::string(kWebSecret) + "\n");
  }
  std::string Conf() { return ReadFile(home_.ConfPath()); }

  ServiceHome home_;
};

TEST_F(ZelctlEditTest, TargetAddTakesTheSecretFromStdinAndShowsTheNewTarget) {
  const json created = AddWebTarget();
  std::vector<std::string> keys;
  for (const auto& item : created.items()) keys.push_back(item.key());
  EXPECT_THAT(keys, ElementsAre("alias", "iqn", "uuid"));
  EXPECT_EQ(created["alias"], "web");
  EXPECT_THAT(created["iqn"].get<std::string>(), StartsWith("iqn."));

  const json shown = RunJson({"target", "get", "web"});
  EXPECT_EQ(shown["iqn"], created["iqn"]);
  EXPECT_EQ(shown["uuid"], created["uuid"]);
  EXPECT_EQ(shown["authType"], "CHAP");
  EXPECT_EQ(shown["userid"], "webuser");
  EXPECT_EQ(shown["initiators"], json::array({kWebIqn1}));
  EXPECT_EQ(shown["initiatorGroups"], json::array({"finance-hosts"}));
  EXPECT_EQ(shown["ownerHostUuid"], home_.HostUuid());
  // The line read from stdin is the secret, not the "-" that asked for it.
  EXPECT_THAT(Conf(), HasSubstr(std::string("\"webuser\" \"") + kWebSecretBase64 + "\""));

  const ProcessResult human = Run({"target", "add", "--alias", "plain"});
  ASSERT_EQ(human.exitCode, 0) << human.err;
  EXPECT_THAT(human.out, StartsWith("alias: plain\niqn:   iqn."));
  EXPECT_THAT(human.out, HasSubstr("\nuuid:  "));
}

TEST_F(ZelctlEditTest, TargetUpdateRenamesChangesInitiatorsAndKeepsWhatIsNotGiven) {
  AddWebTarget();
  const ProcessResult renamed =
      Run({"target", "update", "web", "--new-alias", "shop", "--add-initiator", kWebIqn2,
           "--remove-initiator", kWebIqn1, "--remove-initiator", "finance-hosts"});
  ASSERT_EQ(renamed.exitCode, 0) << renamed.err;
  EXPECT_EQ(renamed.out, "");
  json shop = RunJson({"target", "get", "shop"});
  EXPECT_EQ(shop["initiators"], json::array({kWebIqn2}));
  EXPECT_EQ(shop["initiatorGroups"], json::array());
  EXPECT_EQ(shop["networkInterface"], "nok0");
  EXPECT_EQ(shop["port"], 3260);
  EXPECT_EQ(shop["authType"], "CHAP");
  EXPECT_EQ(Run({"target", "get", "web"}).err, "Target web not found\n");

  // Both secrets from stdin: two lines, the outgoing one first.
  const ProcessResult mutual =
      Run({"target", "update", "shop", "--auth-type", "CHAP-Mutual", "--userid", "shopuser",
           "--secret", "-", "--mutual-userid", "shoptarget", "--mutual-secret", "-"},
          std::string(kOutSecret) + "\n" + kInSecret + "\n");
  ASSERT_EQ(mutual.exitCode, 0) << mutual.err;
  shop = RunJson({"target", "get", "shop"});
  EXPECT_EQ(shop["networkInterface"], "nok0");
  EXPECT_EQ(shop["authType"], "CHAP-Mutual");
  EXPECT_EQ(shop["mutualUserid"], "shoptarget");
  EXPECT_THAT(Conf(), HasSubstr(std::string("\"shopuser\" \"") + kOutSecretBase64 +
                                "\" \"shoptarget\" \"" + kInSecretBase64 + "\""));
}

TEST_F(ZelctlEditTest, TargetUpdateMovesTheTargetToAnInterfaceAndPort) {
  // The service accepts only interfaces this host really has.
  const std::vector<std::string> names =
      platform::NewLocalNetworkInterfaces()->GetNokKernelNicNames();
  if (names.empty()) GTEST_SKIP() << "this host has no network interface besides loopback";
  AddWebTarget();
  const ProcessResult moved =
      Run({"target", "update", "web", "--interface", names[0], "--port", "3261"});
  ASSERT_EQ(moved.exitCode, 0) << moved.err;
  const json web = RunJson({"target", "get", "web"});
  EXPECT_EQ(web["networkInterface"], names[0]);
  EXPECT_EQ(web["port"], 3261);
  EXPECT_EQ(web["authType"], "CHAP");
}

TEST_F(ZelctlEditTest, TargetRemoveDropsTheTarget) {
  AddWebTarget();
  const ProcessResult removed = Run({"target", "remove", "web"});
  ASSERT_EQ(removed.exitCode, 0) << removed.err;
  EXPECT_EQ(removed.out, "");
  const json targets = RunJson({"target", "list"});
  ASSERT_EQ(targets.size(), 2u);
  EXPECT_EQ(targets[0]["alias"], "finance");
  EXPECT_EQ(targets[1]["alias"], "lab");
}

TEST_F(ZelctlEditTest, InitiatorGroupIsMadeFilledAndForcedAway) {
  ASSERT_EQ(Run({"initiator-group", "add", "web-hosts"}).exitCode, 0);
  ASSERT_EQ(Run({"initiator-group", "add-initiators", "web-hosts", kWebIqn1, kWebIqn2}).exitCode,
            0);
  EXPECT_EQ(RunJson({"initiator-group", "get", "web-hosts"})["initiators"],
            json::array({kWebIqn1, kWebIqn2}));

  ASSERT_EQ(Run({"initiator-group", "remove-initiators", "web-hosts", kWebIqn1}).exitCode, 0);
  EXPECT_EQ(RunJson({"initiator-group", "get", "web-hosts"})["initiators"],
            json::array({kWebIqn2}));

  const ProcessResult forced = Run({"initiator-group", "remove", "web-hosts", "--force"});
  ASSERT_EQ(forced.exitCode, 0) << forced.err;
  const json groups = RunJson({"initiator-group", "list"});
  ASSERT_EQ(groups.size(), 1u);
  EXPECT_EQ(groups[0]["name"], "finance-hosts");
}

TEST_F(ZelctlEditTest, RefusalPrintsTheServicesMessageAndLeavesZelConfAsItWas) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> refused = {
      {{"target", "remove", "finance"}, "Target finance is not empty.\n"},
      {{"initiator-group", "remove", "finance-hosts"},
       "Failed to remove initiator group finance-hosts with error Initiator group finance-hosts "
       "is not empty. Use '--force' option to delete.\n"},
      {{"target", "update", "lab", "--new-alias", "finance"},
       "Can't change target alias to finance, because target alias finance already exists\n"},
      {{"target", "add", "--alias", "web", "--port", "3261"},
       "Network interface is not provided for port 3261\n"},
  };
  const std::string before = Conf();
  for (const auto& [args, message] : refused) {
    const ProcessResult result = Run(args);
    EXPECT_EQ(result.exitCode, 1) << args[1];
    EXPECT_EQ(result.out, "") << args[1];
    // The service's own error log lines may come first; its message ends it.
    EXPECT_EQ(LastLine(result.err), message);
    EXPECT_EQ(Conf(), before) << args[1];
  }
}

TEST_F(ZelctlEditTest, UsageErrorExitsTwoAndChangesNothing) {
  const std::string before = Conf();
  const std::vector<std::vector<std::string>> misused = {
      {"target", "add", "--secret", "-"},  // no alias
      {"target", "update", "--new-alias", "x"},
      {"target", "add", "--alias", "web", "--frobnicate"},
      {"initiator-group", "add-initiators", "finance-hosts"},
  };
  for (const std::vector<std::string>& args : misused) {
    const ProcessResult result = Run(args, std::string(kWebSecret) + "\n");
    EXPECT_EQ(result.exitCode, 2) << args[1];
    EXPECT_EQ(result.out, "") << args[1];
  }
  EXPECT_EQ(Conf(), before);
}

}  // namespace
}  // namespace test
}  // namespace zel
