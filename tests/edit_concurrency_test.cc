// Several operators editing one cluster at once: zelctl processes adding and
// removing targets and initiator groups in the same home at the same time.
// The file lock serialises their saves, so no change may be lost and the
// generation must rise by exactly one per save.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "directory/DirectoryEntries.h"
#include "support/Process.h"
#include "support/ServiceHome.h"

namespace zel {
namespace test {
namespace {

constexpr int kProcesses = 4;
constexpr int kTargetsEach = 5;

class EditConcurrencyTest : public ::testing::Test {
 protected:
  ProcessResult Zelctl(std::vector<std::string> args) {
    args.insert(args.begin(), {ZELCTL_PATH, "--home", home_.Path()});
    return RunProgram(args);
  }

  uint64_t FileGeneration() {
    const std::string conf = ReadFile(home_.ConfPath());
    return std::stoull(conf.substr(conf.find(' ') + 1));
  }

  ServiceHome home_;
};

TEST_F(EditConcurrencyTest, ParallelEditorsLoseNoChangeAndCountEverySave) {
  const uint64_t before = FileGeneration();
  // Each worker adds its targets and a group, fills the group, then removes
  // every other target: 5 + 1 + 1 + 2 = 9 saves per worker.
  std::vector<std::string> failures(kProcesses);
  std::vector<std::thread> workers;
  for (int w = 0; w < kProcesses; ++w) {
    workers.emplace_back([this, w, &failures] {
      const std::string id = std::to_string(w);
      auto run = [&](const std::vector<std::string>& args) {
        const ProcessResult result = Zelctl(args);
        if (result.exitCode != 0) failures[w] += args[0] + " " + args[1] + ": " + result.err;
      };
      for (int t = 0; t < kTargetsEach; ++t) {
        run({"target", "add", "--alias", "w" + id + "-t" + std::to_string(t)});
      }
      run({"initiator-group", "add", "group-" + id});
      run({"initiator-group", "add-initiators", "group-" + id,
           "iqn.2024-01.org.example:w" + id + "-a", "iqn.2024-01.org.example:w" + id + "-b"});
      for (int t = 1; t < kTargetsEach; t += 2) {
        run({"target", "remove", "w" + id + "-t" + std::to_string(t)});
      }
    });
  }
  for (std::thread& worker : workers) worker.join();
  for (const std::string& failure : failures) EXPECT_EQ(failure, "");

  const ProcessResult listed = Zelctl({"--json", "target", "list"});
  ASSERT_EQ(listed.exitCode, 0) << listed.err;
  std::set<std::string> aliases;
  for (const auto& target : nlohmann::json::parse(listed.out)) {
    aliases.insert(target["alias"].get<std::string>());
  }
  std::set<std::string> expected = {"finance", "lab"};
  for (int w = 0; w < kProcesses; ++w) {
    for (int t = 0; t < kTargetsEach; t += 2) {
      expected.insert("w" + std::to_string(w) + "-t" + std::to_string(t));
    }
  }
  EXPECT_EQ(aliases, expected);

  const ProcessResult groups = Zelctl({"--json", "initiator-group", "list"});
  ASSERT_EQ(groups.exitCode, 0) << groups.err;
  size_t members = 0;
  for (const auto& group : nlohmann::json::parse(groups.out)) {
    members += group["initiators"].size();
  }
  EXPECT_EQ(members, 2u + 2u * kProcesses);  // finance-hosts keeps its two

  EXPECT_EQ(FileGeneration(), before + 9u * kProcesses);
  // The directory announces the last save, never an earlier one that
  // arrived late.
  home_.InstallTestHost();
  uint64_t published = 0;
  ASSERT_EQ(ZeldGetConfigGenNumInBrix(&published), NOK_OK);
  EXPECT_EQ(published, FileGeneration());
}

}  // namespace
}  // namespace test
}  // namespace zel
