// The writer's templates, order and spacing, and what survives a round trip.
#include <algorithm>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "conf/ConfHandle.h"
#include "storage/DatastoreLayout.h"
#include "support/ConfText.h"
#include "support/TestHost.h"
#include "zel/OrvaCtlException.h"

namespace {

using HostCtl::Lib::Orva::OrvaCtlException;
using NokCtl::Orva::IscsiTarget::ConfHandle;
using zel::test::InstallConf;
using zel::test::ScopedTestHost;
using zel::test::WrittenText;

class WriterTest : public ::testing::Test {
 protected:
  void SetUp() override { log_init(4); }
  ScopedTestHost host_;
};

TEST_F(WriterTest, WritesEverySectionInFixedOrderAndSpacing) {
  InstallConf(
      "option zeld-flag on\n"
      "generation 41\n"
      "portal-group pg-a {\n"
      "  discovery-auth-group default\n"
      "  listen nok1:3261\n"
      "  listen nok2:3262\n"
      "}\n"
      "initiator-group ig1 {\n"
      "  initiator-name iqn.2024-01.org.example:one\n"
      "  initiator iqn.2024-01.org.example:two\n"
      "}\n"
      "auth-group default {\n  auth-type none\n}\n"
      "auth-group grp {\n"
      "  chap \"u1\" \"QWJjZGVmZ2gjMTIz\"\n"
      "  initiator-group ig1\n"
      "  initiator-name iqn.2024-01.org.example:three\n"
      "}\n"
      "target IQN.2026-11.Local.Zel:Mixed {\n"
      "  alias \"Mixed Case\"\n"
      "  portal-group pg-a\n"
      "  auth-group grp\n"
      "  option uuid 3fb2b402-cfcb-4738-9622-3a566bb58dbf\n"
      "  lun 5 {\n    backend block\n    path a/b.qdsk\n    size 16\n"
      "    option lun-alias \"x y\"\n  }\n"
      "  lun 1 {\n    path a/c.qdsk\n    size 8\n  }\n"
      "}\n");
  ConfHandle handle(ConfHandle::kShareMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());

  EXPECT_EQ(WrittenText(handle),
            "generation 41\n"
            "option zeld-flag on\n"
            "initiator-group ig1 {\n"
            "\t initiator iqn.2024-01.org.example:one \n"
            "\t initiator iqn.2024-01.org.example:two \n"
            "}\n"
            "auth-group default {\n"
            "\t auth-type none\n"
            "}\n"
            "auth-group grp {\n"
            "\t chap \"u1\" \"QWJjZGVmZ2gjMTIz\" \n"
            "\t initiator-group ig1\n"
            "\t initiator-name iqn.2024-01.org.example:three\n"
            "}\n"
            "portal-group default {\n"
            "\t discovery-auth-group default\n"
            "\t listen nok0:3260\n"
            "}\n"
            "portal-group pg-a {\n"
            "\t discovery-auth-group default\n"
            "\t listen nok1:3261\n"
            "}\n"
            "target iqn.2026-11.local.zel:mixed {\n"
            "\talias \"Mixed Case\"\n"
            "\tportal-group pg-a\n"
            "\tauth-group grp\n"
            "\toption uuid 3fb2b402-cfcb-4738-9622-3a566bb58dbf\n"
            "\tlun 1 {\n"
            "\t\tbackend block\n"
            "\t\tpath a/c.qdsk\n"
            "\t\tsize 8\n"
            "\t}\n"
            "\tlun 5 {\n"
            "\t\tbackend block\n"
            "\t\tpath a/b.qdsk\n"
            "\t\tsize 16\n"
            "\t\toption lun-alias \"x y\"\n"
            "\t}\n"
            "}\n");
}

TEST_F(WriterTest, SkipsBuiltInGroupsWithAnInfoLine) {
  InstallConf("generation 1\n");
  ConfHandle handle(ConfHandle::kShareMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
  host_.Log().Clear();
  const std::string text = WrittenText(handle);

  EXPECT_THAT(text, ::testing::Not(::testing::HasSubstr("no-authentication")));
  EXPECT_THAT(text, ::testing::Not(::testing::HasSubstr("no-access")));
  // The unconfigured default group denies, yet has no credential to write.
  EXPECT_THAT(text, ::testing::HasSubstr("auth-group default {\n\t auth-type none\n}\n"));
  const std::vector<std::string> lines = host_.Log().Texts();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "ConfHandle: Skipping default auth group"), 2);
}

TEST_F(WriterTest, NoneGroupHoldingACredentialHasNoLineEnd) {
  InstallConf("generation 1\nauth-group g {\n chap \"u\" \"QWJjZGVmZ2gjMTIz\"\n}\n");
  ConfHandle handle(ConfHandle::kShareMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
  auth_group_find(handle.conf, "g")->ag_type = AG_TYPE_NO_AUTHENTICATION;

  EXPECT_THAT(WrittenText(handle), ::testing::HasSubstr("auth-group g {\n\t auth-type none}\n"));
}

TEST_F(WriterTest, WritesOnlyTheFirstListenThatHasAHost) {
  InstallConf("generation 1\n");
  ConfHandle handle(ConfHandle::kShareMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
  struct portal_group* pg = portal_group_new(handle.conf, "pg-three");
  portal_new(pg);  // an address-less portal comes first
  ASSERT_EQ(portal_group_add_listen(pg, "nok3:3300", false), 0);
  ASSERT_EQ(portal_group_add_listen(pg, "nok4:3301", false), 0);

  EXPECT_THAT(WrittenText(handle),
              ::testing::HasSubstr("portal-group pg-three {\n\t listen nok3:3300\n}\n"));
}

TEST_F(WriterTest, MutualChapIsWrittenWithBothSecretsEncoded) {
  InstallConf("generation 1\n");
  ConfHandle handle(ConfHandle::kShareMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
  struct auth_group* ag = auth_group_new(handle.conf, "m");
  auth_new_chap_mutual(ag, "out", "Abcdefgh#123", "in", "Zyxwvuts#987", false);

  EXPECT_THAT(WrittenText(handle),
              ::testing::HasSubstr(
                  "\t chap-mutual \"out\" \"QWJjZGVmZ2gjMTIz\" \"in\" \"Wnl4d3Z1dHMjOTg3\"\n"));
}

TEST_F(WriterTest, SecretWhoseEncodingNeedsMoreThan31CharactersCannotBeWritten) {
  InstallConf("generation 1\n");
  ConfHandle handle(ConfHandle::kShareMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
  auth_new_chap(auth_group_new(handle.conf, "ok"), "u", std::string(21, 'a').c_str(), false);
  EXPECT_NO_THROW(WrittenText(handle));

  auth_new_chap(auth_group_new(handle.conf, "long"), "u", std::string(22, 'a').c_str(), false);
  try {
    WrittenText(handle);
    FAIL() << "a 22-byte secret was written";
  } catch (const OrvaCtlException& e) {
    EXPECT_EQ(e.GetMessage(), "Base64_Encode failed: Unexpected encoding size");
  }
}

TEST_F(WriterTest, TargetWithPrivateCredentialsIsRefusedNotWrittenWrong) {
  InstallConf("generation 1\ntarget iqn.2026-11.local.zel:t {\n auth-type none\n}\n");
  ConfHandle handle(ConfHandle::kShareMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
  EXPECT_THROW(WrittenText(handle), OrvaCtlException);
}

TEST_F(WriterTest, ReadWriteReadWriteGivesIdenticalText) {
  InstallConf(zel::test::ReadFile(std::string(ZEL_SAMPLES_DIR) + "/zel.conf"));
  std::string first;
  {
    ConfHandle handle(ConfHandle::kShareMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
    first = WrittenText(handle);
  }
  InstallConf(first);
  ConfHandle again(ConfHandle::kShareMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
  EXPECT_EQ(WrittenText(again), first);
  // The sample is kept in the writer's own shape.
  EXPECT_EQ(first, zel::test::ReadFile(std::string(ZEL_SAMPLES_DIR) + "/zel.conf"));
}

}  // namespace
