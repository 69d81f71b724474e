// The local disk library opens only on a datastore root that exists, is a
// directory and can be written by this process, and says why otherwise.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "platform/local/LocalDiskLibrary.h"
#include "support/Process.h"
#include "support/TestHost.h"

namespace zel {
namespace platform {
namespace {

using test::ChildControl;
using test::ChildProcess;

class LocalDatastoreAvailability : public ::testing::Test {
 protected:
  std::string Root() const { return testHost_.Home() + "/datastore"; }
  test::ScopedTestHost testHost_;
};

TEST_F(LocalDatastoreAvailability, WritableDirectoryIsUsable) {
  std::filesystem::create_directory(Root());
  LocalDiskLibrary disks(Root());
  EXPECT_EQ(NOK_OK, disks.Init());
  EXPECT_TRUE(testHost_.Log().Texts(LogLevel::Warning).empty());
}

TEST_F(LocalDatastoreAvailability, MissingRootIsNotFoundAndNamed) {
  LocalDiskLibrary disks(Root());
  EXPECT_EQ(NOK_NOT_FOUND, disks.Init());
  EXPECT_TRUE(testHost_.Log().Contains("DiskLibrary: Datastore root " + Root() +
                                       " cannot be used: No such file or directory"));
}

TEST_F(LocalDatastoreAvailability, RootThatIsAFileIsNotFound) {
  test::WriteFile(Root(), "");
  LocalDiskLibrary disks(Root());
  EXPECT_EQ(NOK_NOT_FOUND, disks.Init());
  EXPECT_TRUE(testHost_.Log().Contains("DiskLibrary: Datastore root " + Root() +
                                       " cannot be used: Not a directory"));
}

// Permission bits do not stop the superuser, so the check runs in a child
// that gives up its privileges first when it has them.
TEST_F(LocalDatastoreAvailability, RootThatCannotBeWrittenIsAnIoError) {
  constexpr int kCannotDropPrivileges = 77;
  // Beside it, a root anyone may write: the child must find that one usable,
  // so a refusal is down to the permission bits and not to the path.
  const std::string open = testHost_.Home() + "/open-datastore";
  std::filesystem::create_directory(Root());
  std::filesystem::create_directory(open);
  ASSERT_EQ(0, ::chmod(testHost_.Home().c_str(), 0755));
  ASSERT_EQ(0, ::chmod(Root().c_str(), 0555));
  ASSERT_EQ(0, ::chmod(open.c_str(), 0777));

  ChildProcess child([this, open](ChildControl&) {
    const uid_t nobody = 65534;
    if (::geteuid() == 0 && (::setgid(nobody) != 0 || ::setuid(nobody) != 0)) {
      return kCannotDropPrivileges;
    }
    if (LocalDiskLibrary(open).Init() != NOK_OK) return 1;
    return LocalDiskLibrary(Root()).Init() == NOK_IO_ERROR ? 0 : 2;
  });
  const int code = child.Join();
  ::chmod(Root().c_str(), 0755);
  if (code == kCannotDropPrivileges) GTEST_SKIP() << "cannot run as an unprivileged user";
  EXPECT_EQ(0, code);
}

}  // namespace
}  // namespace platform
}  // namespace zel
