// zelctl against hostile input (control characters, CRLF secrets, empty names), its one-line
// reports, and the daemon state under concurrent restores and a pid file naming a stranger.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/Process.h"
#include "support/ServiceHome.h"

namespace zel {
namespace test {
namespace {

using nlohmann::json;
using ::testing::HasSubstr;
using ::testing::StartsWith;

ProcessResult Zelctl(const std::string& home, std::vector<std::string> args,
                     const std::string& input = "") {
  args.insert(args.begin(), {ZELCTL_PATH, "--home", home});
  return RunProgram(args, input);
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

class ZelctlHardeningTest : public ::testing::Test {
 protected:
  // JSON escapes by its own rules, which leave C1 characters as they are.
  ProcessResult Run(const std::vector<std::string>& args, const std::string& input = "") {
    ProcessResult result = Zelctl(home_.Path(), args, input);
    if (std::find(args.begin(), args.end(), "--json") == args.end()) {
      EXPECT_FALSE(HasControlCharacter(result.out)) << args[0] << " " << args[1];
    }
    EXPECT_FALSE(HasControlCharacter(result.err)) << args[0] << " " << args[1];
    return result;
  }
  std::string Conf() { return ReadFile(home_.ConfPath()); }

  ServiceHome home_;
};

TEST_F(ZelctlHardeningTest, ControlCharactersInNamesAreShownEscapedButKeptInJson) {
  const std::vector<std::pair<std::string, std::string>> aliases = {
      {"clear\x1b[2J", "clear\\e[2J"}, {"bell\a", "bell\\a"},    {"del\x7f", "del\\x7f"},
      {"csi\xc2\x9b", "csi\\u009b"},   {"back\\s", "back\\\\s"}, {"utf\xc3\xa9", "utf\xc3\xa9"}};
  for (const auto& [alias, shown] : aliases) {
    const ProcessResult added = Run({"target", "add", "--alias", alias});
    ASSERT_EQ(added.exitCode, 0) << shown << ": " << added.err;
    EXPECT_THAT(added.out, StartsWith("alias: " + shown + "\n"));
    EXPECT_THAT(Run({"target", "list"}).out, HasSubstr("\n" + shown + " "));
    EXPECT_EQ(json::parse(Run({"target", "get", alias, "--json"}).out)["alias"], alias);
    // A refusal and a usage error echo the name escaped as well.
    EXPECT_EQ(Run({"target", "add", "--alias", alias}).err,
              "Target alias " + shown + " already exists.\n");
    EXPECT_THAT(Run({"target", "get", "finance", alias}).err, HasSubstr(shown));
  }
}

TEST_F(ZelctlHardeningTest, SecretFromStdinLosesItsLineEndOnly) {
  const std::vector<std::string> inputs = {"Web#Secret1234\r\nIn#Secret12345\r\n",
                                           "Web#Secret1234\nIn#Secret12345\n",
                                           "Web#Secret1234\r\nIn#Secret12345"};
  for (size_t i = 0; i < inputs.size(); ++i) {
    const std::string user = "m" + std::to_string(i);
    const ProcessResult added =
        Run({"target", "add", "--alias", user, "--auth-type", "CHAP-Mutual", "--userid", "user",
             "--secret", "-", "--mutual-userid", user, "--mutual-secret", "-"},
            inputs[i]);
    ASSERT_EQ(added.exitCode, 0) << i << ": " << added.err;
    // "Web#Secret1234" and "In#Secret12345" as zel.conf keeps them.
    EXPECT_THAT(Conf(),
                HasSubstr("\"V2ViI1NlY3JldDEyMzQ=\" \"" + user + "\" \"SW4jU2VjcmV0MTIzNDU=\""));
  }
}

TEST_F(ZelctlHardeningTest, EachCommandPrintsOneLineOrExitsTwoWithoutSaving) {
  struct Case {
    std::vector<std::string> args;
    int exitCode;
    std::string out;  // exactly, or the start of stderr for a failure
  };
  const std::string missing = home_.Path() + "/missing.conf";
  const std::vector<Case> cases = {
      {{"initiator-group", "add", "web"}, 0, "Added initiator group web\n"},
      {{"initiator-group", "add-initiators", "web", "iqn.2024-01.org.example:w1",
        "iqn.2024-01.org.example:w2"},
       0,
       "Added 2 initiators to initiator group web\n"},
      {{"target", "update", "finance", "--add-initiator", "web"}, 0, "Updated target finance\n"},
      {{"target", "update", "lab", "--new-alias", "lab2"},
       0,
       "Updated target lab, now named lab2\n"},
      {{"initiator-group", "remove", "web", "--force"}, 0, "Removed initiator group web\n"},
      {{"target", "add", "--alias", "finance"}, 1, "Target alias finance already exists.\n"},
      {{"conf", "check", missing}, 1, "Cannot read " + missing + ": No such file or directory\n"},
      {{"target", "nosuch"}, 2, "Unknown command: target nosuch\n"},
      {{"target", "update", "finance"}, 2, "At least 1 option from [--new-alias,"},
      {{"target", "update", "finance", "--new-alias", ""}, 2, "--new-alias: must not be empty\n"},
      {{"initiator-group", "get", ""}, 2, "NAME: must not be empty\n"},
      {{"initiator-group", "add-initiators", "finance-hosts", ""}, 2, "IQN: must not be empty\n"},
      {{"target", "get", ""}, 2, "ALIAS: must not be empty\n"},
      {{"target", "remove", ""}, 2, "ALIAS: must not be empty\n"},
      {{"lun", "list", "--target", ""}, 2, "--target: must not be empty\n"},
  };
  for (const Case& c : cases) {
    const std::string before = Conf();
    const ProcessResult result = Run(c.args);
    EXPECT_EQ(result.exitCode, c.exitCode) << c.args[1] << ": " << result.err;
    if (c.exitCode == 0) {
      EXPECT_EQ(result.out, c.out);
      EXPECT_EQ(result.err, "");
    } else {
      EXPECT_EQ(result.out, "") << c.args[1];
      // A refusal is the service's message alone; a usage error adds a hint.
      EXPECT_EQ(c.exitCode == 1 ? result.err : result.err.substr(0, c.out.size()), c.out);
      EXPECT_EQ(Conf(), before) << c.args[1];
    }
  }
  // With --json after the command, a change prints the record it left.
  const json group = json::parse(Run({"initiator-group", "add", "db", "--json"}).out);
  EXPECT_EQ(group["name"], "db");
}

class ZelctlDaemonTest : public ZelctlHardeningTest {
 protected:
  ~ZelctlDaemonTest() override {
    RunProgram({"/usr/bin/env", "ZEL_HOME=" + home_.Path(), ZELD_INIT_PATH, "++group=host/kap/tmp",
                "io_stop"});
  }
  static bool DaemonRunning(const std::string& home) {
    const ProcessResult status = Zelctl(home, {"--json", "service", "status"});
    EXPECT_EQ(status.exitCode, 0) << status.err;
    return status.exitCode == 0 && json::parse(status.out)["daemonRunning"].get<bool>();
  }
};

TEST_F(ZelctlDaemonTest, ConcurrentRestoresAllSucceedAndOnlyTheHomesOwnDaemonCounts) {
  std::vector<std::unique_ptr<ChildProcess>> restorers;
  for (int i = 0; i < 6; ++i) {
    restorers.push_back(std::make_unique<ChildProcess>([this](ChildControl& control) {
      control.Ready();
      control.AwaitRelease();
      const ProcessResult restored = Zelctl(home_.Path(), {"service", "restore"});
      return restored.out == "Restored the service on this host\n" && restored.err.empty() ? 0 : 1;
    }));
  }
  for (auto& restorer : restorers) ASSERT_TRUE(restorer->AwaitReady());
  for (auto& restorer : restorers) restorer->Release();
  for (auto& restorer : restorers) EXPECT_EQ(restorer->Join(), 0);
  EXPECT_TRUE(DaemonRunning(home_.Path()));

  ServiceHome other;  // its pid file names another home's zeld, then a process that is no zeld
  std::filesystem::create_directories(other.Path() + "/run");
  for (const std::string& pid :
       {ReadFile(home_.Path() + "/run/zeld.pid"), std::to_string(::getpid())}) {
    WriteFile(other.Path() + "/run/zeld.pid", pid);
    EXPECT_FALSE(DaemonRunning(other.Path())) << pid;
  }
}

}  // namespace
}  // namespace test
}  // namespace zel
