// The local service host: each service lands at the place its host
// configuration names, and a configuration it cannot honour is refused
// before anything is touched.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "platform/Host.h"
#include "support/TestHost.h"
#include "zel/OrvaCtlException.h"

namespace zel {
namespace platform {
namespace {

using HostCtl::Lib::Orva::OrvaCtlException;
using test::TempHome;

std::string BuildError(const HostConfig& config) {
  try {
    NewLocalServiceHost(config, LogLevel::Error);
  } catch (const OrvaCtlException& e) {
    return e.GetMessage();
  }
  return "";
}

TEST(LocalServiceHost, ServicesUseThePathsOfTheHostConfiguration) {
  test::ScopedTestHost testHost;
  TempHome temp;
  HostConfig config = LoadHostConfig(temp.Path());
  config.configStorePath = temp.Path() + "/elsewhere-store.json";
  config.directoryPath = temp.Path() + "/elsewhere.db";
  config.datastoreRoot = temp.Path() + "/shared";

  std::unique_ptr<Host> host = NewLocalServiceHost(config, LogLevel::Error);

  EXPECT_TRUE(std::filesystem::exists(config.directoryPath));
  host->Store().SetOrvaIscsiServiceEnabled(true);
  EXPECT_TRUE(std::filesystem::exists(config.configStorePath));
  // The embedded profile keeps its datastore inside the home and makes it.
  EXPECT_TRUE(std::filesystem::is_directory(config.datastoreRoot));
  EXPECT_EQ(NOK_OK, host->Disks().Init());
  EXPECT_EQ(NOK_OK, host->Policies().Init());
  EXPECT_EQ(config.hostUuid, host->Cluster().LocalHostUuid());
}

TEST(LocalServiceHost, ConfigurationWithoutIdentityIsRefused) {
  TempHome temp;
  EXPECT_EQ("The host configuration under " + temp.Path() + " has no host identity",
            BuildError(EmbeddedHostConfig(temp.Path())));
  EXPECT_FALSE(std::filesystem::exists(temp.Path() + "/directory.db"));
}

TEST(LocalServiceHost, UnknownDirectoryBackendIsRefused) {
  TempHome temp;
  HostConfig config = LoadHostConfig(temp.Path());
  config.directoryBackend = "carrier-pigeon";
  EXPECT_EQ("Unsupported directory backend 'carrier-pigeon' in the host configuration under " +
                temp.Path(),
            BuildError(config));
}

TEST(LocalServiceHost, DirectoryThatCannotBeOpenedIsRefused) {
  test::ScopedTestHost testHost;
  TempHome temp;
  HostConfig config = LoadHostConfig(temp.Path());
  config.directoryPath = temp.Path() + "/missing/directory.db";
  EXPECT_EQ("Failed to open the cluster directory " + config.directoryPath, BuildError(config));
}

}  // namespace
}  // namespace platform
}  // namespace zel
