// The plug-in entry as the management process uses it: a separate program
// that knows only the public headers loads the library with dlopen, finds
// the entry by its symbol, calls the service through its interface, catches
// the service's exception by its public type and unloads the library.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/Process.h"
#include "support/ServiceHome.h"

namespace zel {
namespace test {
namespace {

using ::testing::ElementsAre;

// Runs the client against `home` through the environment, as a management
// process started with ZEL_HOME would.
ProcessResult Client(const ServiceHome& home, const std::vector<std::string>& args) {
  std::vector<std::string> argv = {"/usr/bin/env", "ZEL_HOME=" + home.Path(),
                                   ZEL_PLUGIN_CLIENT_PATH, ZEL_LIBRARY_PATH};
  argv.insert(argv.end(), args.begin(), args.end());
  return RunProgram(argv);
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

TEST(PluginDlopenTest, ClientListsThePreparedTargetsWithTheirOwners) {
  ServiceHome home;
  const ProcessResult listed = Client(home, {"targets"});
  EXPECT_EQ(listed.exitCode, 0) << listed.err;
  EXPECT_THAT(Lines(listed.out),
              ElementsAre("finance iqn.2026-11.local.zel:finance " + home.HostUuid(),
                          "lab iqn.2026-11.local.zel:lab " + std::string(kPeerHostUuid)));
}

TEST(PluginDlopenTest, ServiceMessageReachesTheClientAsOrvaCtlException) {
  ServiceHome home;
  const ProcessResult missing = Client(home, {"target", "nosuch"});
  EXPECT_EQ(missing.exitCode, 1);
  EXPECT_EQ(missing.out, "");
  EXPECT_EQ(missing.err, "Target nosuch not found\n");
}

}  // namespace
}  // namespace test
}  // namespace zel
