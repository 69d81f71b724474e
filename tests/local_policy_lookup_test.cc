// Storage policies on a local host: an object's policy is found through its
// directory entry, whoever announced it; compliance is reported as unknown;
// compliance sessions open only while the directory answers.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "local_directory_support.h"
#include "platform/local/LocalPolicyService.h"
#include "platform/local/SqliteDirectory.h"
#include "support/Process.h"
#include "support/TestHost.h"
#include "zel/OrvaCtlException.h"

namespace zel {
namespace platform {
namespace {

using HostCtl::Lib::Orva::OrvaCtlException;
using test::ChildControl;
using test::ChildProcess;

const std::string kHostA = "11111111-2222-4333-8444-555555555555";
const std::string kNamespace = "8f3b6c1e-52d4-4a0b-9c7e-1d2f3a4b5c6d";

DirectoryEntry StorageObject(const std::string& uuid, const std::string& payload) {
  DirectoryEntry entry;
  entry.type = kStorageObjectEntryType;
  entry.key = uuid;
  entry.ownerHost = kHostA;
  entry.entryId = uuid;
  entry.payload = payload;
  return entry;
}

std::string LookupError(PolicyService& service, const std::string& uuid) {
  try {
    service.GetObjectPolicyStatus(uuid);
  } catch (const OrvaCtlException& e) {
    return e.GetMessage();
  }
  return "";
}

class LocalPolicyLookup : public ::testing::Test {
 protected:
  std::string DbPath() const { return testHost_.Home() + "/directory.db"; }
  std::unique_ptr<Directory> Open() const { return NewSqliteDirectory(DbPath()); }

  test::ScopedTestHost testHost_;
};

TEST_F(LocalPolicyLookup, ObjectAnnouncedByAnotherProcessGivesItsPolicyWithUnknownCompliance) {
  ChildProcess announcer([this](ChildControl&) {
    std::unique_ptr<Directory> directory = Open();
    return test::PublishAndWait(
               *directory,
               StorageObject(kNamespace, R"({"type": "BrixStorageObject", "ownerHost": ")" +
                                             kHostA + R"(", "policy": "failuresToTolerate=1"})")) ==
                   NOK_OK
               ? 0
               : 1;
  });
  ASSERT_EQ(0, announcer.Join());

  std::unique_ptr<Directory> directory = Open();
  LocalPolicyService service(*directory, kHostA);
  const PolicyStatus status = service.GetObjectPolicyStatus(kNamespace);
  EXPECT_EQ("failuresToTolerate=1", status.policy);
  EXPECT_EQ(Compliance::Unknown, status.compliance);
}

TEST_F(LocalPolicyLookup, ObjectWithoutAnEntryIsNotFound) {
  std::unique_ptr<Directory> directory = Open();
  LocalPolicyService service(*directory, kHostA);
  EXPECT_EQ("Storage object " + kNamespace + " not found", LookupError(service, kNamespace));
}

TEST_F(LocalPolicyLookup, EntryWithoutOwnerOrPolicyIsReportedAsMalformed) {
  std::unique_ptr<Directory> directory = Open();
  LocalPolicyService service(*directory, kHostA);
  const std::string message = "Storage object " + kNamespace +
                              " has a malformed directory entry: it needs the texts 'ownerHost' "
                              "and 'policy'";

  ASSERT_EQ(NOK_OK,
            test::PublishAndWait(*directory, StorageObject(kNamespace, "{\"policy\": \"\"}")));
  EXPECT_EQ(message, LookupError(service, kNamespace));
  ASSERT_EQ(NOK_OK, test::PublishAndWait(*directory,
                                         StorageObject(kNamespace, R"({"ownerHost": ")" + kHostA +
                                                                       R"(", "policy": 1})")));
  EXPECT_EQ(message, LookupError(service, kNamespace));
  ASSERT_EQ(NOK_OK, test::PublishAndWait(*directory, StorageObject(kNamespace, "not json")));
  EXPECT_EQ(message, LookupError(service, kNamespace));
}

TEST_F(LocalPolicyLookup, DirectoryFailureDuringALookupIsReportedWithItsStatus) {
  test::UnreachableDirectory directory(NOK_TIMEOUT);
  LocalPolicyService service(directory, kHostA);
  EXPECT_EQ("Failed to look up storage object " + kNamespace + ": Timeout",
            LookupError(service, kNamespace));
}

TEST_F(LocalPolicyLookup, SessionsOpenWhileTheDirectoryAnswersAndCloseInPairs) {
  std::unique_ptr<Directory> directory = Open();
  LocalPolicyService service(*directory, kHostA);
  ASSERT_EQ(NOK_OK, service.Init());
  ASSERT_EQ(NOK_OK, service.Init());
  service.Deinit();
  service.Deinit();
  EXPECT_TRUE(testHost_.Log().Texts(LogLevel::Warning).empty());

  service.Deinit();
  EXPECT_TRUE(
      testHost_.Log().Contains("PolicyService: Compliance session closed while none is open"));
}

TEST_F(LocalPolicyLookup, SessionDoesNotOpenWhenTheDirectoryCannotBeQueried) {
  test::UnreachableDirectory directory(NOK_IO_ERROR);
  LocalPolicyService service(directory, kHostA);
  EXPECT_EQ(NOK_NO_CONNECTION, service.Init());
  EXPECT_TRUE(testHost_.Log().Contains(
      "PolicyService: Cannot open a compliance session, the directory failed: I/O error"));

  // The failed Init opened nothing for a Deinit to close.
  testHost_.Log().Clear();
  service.Deinit();
  EXPECT_TRUE(
      testHost_.Log().Contains("PolicyService: Compliance session closed while none is open"));
}

}  // namespace
}  // namespace platform
}  // namespace zel
