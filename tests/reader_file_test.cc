// The file under the reader: permission warnings, and that reading leaves
// the caller's descriptor and its lock as they were.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <string>

#include "reader_fixture.h"
#include "support/Process.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using zel::test::ChildControl;
using zel::test::ChildProcess;

class ReaderFileTest : public zel::test::ReaderFixture {
 protected:
  std::vector<std::string> PermissionWarnings() { return LoggedWith(" is world-"); }

  // Whether another process could take the file's lock with `operation`
  // right now.
  bool OtherProcessCanLock(int operation) {
    ChildProcess child([&](ChildControl&) {
      int fd = open(path_.c_str(), O_RDONLY);
      return fd >= 0 && flock(fd, operation | LOCK_NB) == 0 ? 0 : 1;
    });
    return child.Join() == 0;
  }
};

TEST_F(ReaderFileTest, WorldReadableFileIsReadWithAWarning) {
  EXPECT_NE(nullptr, Read("generation 2\n", 0644));
  EXPECT_THAT(PermissionWarnings(), ElementsAre(path_ + " is world-readable"));
}

TEST_F(ReaderFileTest, WorldWritableFileGetsOnlyTheWritableWarning) {
  EXPECT_NE(nullptr, Read("generation 2\n", 0666));
  EXPECT_THAT(PermissionWarnings(), ElementsAre(path_ + " is world-writable"));
}

TEST_F(ReaderFileTest, WorldExecutableFileIsWarnedAbout) {
  EXPECT_NE(nullptr, Read("generation 2\n", 0661));
  EXPECT_THAT(PermissionWarnings(), ElementsAre(path_ + " is world-executable"));
}

TEST_F(ReaderFileTest, PrivateFileGetsNoWarning) {
  EXPECT_NE(nullptr, Read("generation 2\n", 0660));
  EXPECT_THAT(PermissionWarnings(), IsEmpty());
}

TEST_F(ReaderFileTest, ReadingKeepsTheDescriptorOpenAndItsLockHeld) {
  zel::test::WriteFile(path_, "generation 2\n");
  FileIODescriptor file;
  ASSERT_EQ(0, conf_file_open_exclusive_lock(path_.c_str(), &file, 300000));
  const int descriptors = OpenDescriptors();

  conf_ = conf_new_from_file(&file, nullptr);
  ASSERT_NE(nullptr, conf_);
  EXPECT_EQ(descriptors, OpenDescriptors());
  EXPECT_NE(-1, fcntl(file.fd, F_GETFD));
  EXPECT_FALSE(OtherProcessCanLock(LOCK_SH));

  // A second read through the same descriptor starts from the top again.
  conf_delete(conf_);
  conf_ = conf_new_from_file(&file, nullptr);
  ASSERT_NE(nullptr, conf_);
  EXPECT_EQ(2u, conf_->conf_generation);

  conf_close_file(&file);
  EXPECT_TRUE(OtherProcessCanLock(LOCK_EX));
}

TEST_F(ReaderFileTest, ReadIsLoggedWithThePath) {
  ASSERT_NE(nullptr, Read("generation 2\n"));
  EXPECT_TRUE(WasLogged("obtaining configuration from " + path_));
}

}  // namespace
