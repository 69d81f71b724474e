// The helpers beside the file handle: the cluster-wide initiator limit,
// secret encoding, authentication texts, CHAP rewrites and the empty file.
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "edit/Parser.h"
#include "storage/DatastoreLayout.h"
#include "support/TestHost.h"
#include "zel/OrvaCtlException.h"

namespace {

using HostCtl::Lib::Orva::OrvaCtlException;
using NokCtl::Orva::IscsiTarget::AuthInfo;
using NokCtl::Orva::IscsiTarget::AuthTypeToStr;
namespace Parser = NokCtl::Orva::IscsiTarget::Parser;
using zel::test::ScopedTestHost;

class ParserHelpersTest : public ::testing::Test {
 protected:
  void SetUp() override {
    log_init(4);
    conf_ = conf_new();
  }
  void TearDown() override { conf_delete(conf_); }

  // `count` members spread over groups, as a full cluster would hold them.
  void AddGroupMembers(int count) {
    struct initiator_group* ig = nullptr;
    for (int i = 0; i < count; ++i) {
      if (i % 1000 == 0) {
        ig = initiator_group_new(conf_, ("g" + std::to_string(i)).c_str());
      }
      initiator_new(ig, ("iqn.2024-01.org.example:h" + std::to_string(i)).c_str());
    }
  }

  std::string LimitMessage(int newCount) {
    try {
      Parser::checkInitiatorCount(conf_, newCount);
    } catch (const OrvaCtlException& e) {
      return e.GetMessage();
    }
    return "";
  }

  ScopedTestHost host_;
  struct conf* conf_;
};

TEST_F(ParserHelpersTest, InitiatorLimitCountsGroupsAndTargetsUpTo8192) {
  AddGroupMembers(8189);
  struct target* t = target_new(conf_, "iqn.2026-11.local.zel:t");
  t->t_auth_group = auth_group_new(conf_, "tg");
  auth_name_new(t->t_auth_group, "iqn.2024-01.org.example:direct");
  // An entry naming a group is not an initiator of its own.
  auth_name_new(t->t_auth_group, "g0");

  EXPECT_EQ(LimitMessage(2), "");
  EXPECT_EQ(LimitMessage(3),
            "the maximum initiators allowed per cluster is: 8192. Current initiator count: "
            "8190. New initiators count: 3.");
  EXPECT_EQ(LimitMessage(0), "");
}

TEST_F(ParserHelpersTest, EncodingMustLeaveRoomForTheTerminator) {
  char out[32];
  Parser::Base64EncodeWrapper(reinterpret_cast<const unsigned char*>("Abcdefgh#123"), 12, out,
                              sizeof out);
  EXPECT_STREQ(out, "QWJjZGVmZ2gjMTIz");

  const std::string secret(23, 'x');
  try {
    Parser::Base64EncodeWrapper(reinterpret_cast<const unsigned char*>(secret.data()),
                                secret.size(), out, sizeof out);
    FAIL() << "a 32-character encoding fitted a 32-byte buffer";
  } catch (const OrvaCtlException& e) {
    EXPECT_EQ(e.GetMessage(), "Base64_Encode failed: Unexpected encoding size");
  }
}

TEST_F(ParserHelpersTest, AuthTextsAndCredentialsByGroupType) {
  std::string type;
  EXPECT_EQ(Parser::GetAuthInfo(nullptr, type), nullptr);
  EXPECT_EQ(type, "No-Authentication");

  struct auth_group* deny = auth_group_new(conf_, "deny");
  auth_group_set_type(deny, "deny");
  EXPECT_EQ(Parser::GetAuthInfo(deny, type), nullptr);
  EXPECT_EQ(type, "None");

  struct auth_group* chap = auth_group_new(conf_, "chap");
  auth_new_chap(chap, "first", "Abcdefgh#123", false);
  auth_new_chap(chap, "second", "Abcdefgh#123", false);
  const struct auth* credential = Parser::GetAuthInfo(chap, type);
  ASSERT_NE(credential, nullptr);
  EXPECT_STREQ(credential->a_user, "first");
  EXPECT_EQ(type, "CHAP");
  EXPECT_STREQ(AuthTypeToStr(AG_TYPE_CHAP_MUTUAL), "CHAP-Mutual");
}

TEST_F(ParserHelpersTest, TargetAuthGroupIsNamedAfterItsUuidAndRewritten) {
  struct target* t = target_new(conf_, "iqn.2026-11.local.zel:t");
  target_option_new(t, "uuid", "3fb2b402-cfcb-4738-9622-3a566bb58dbf");

  Parser::UpdateTargetAuthGroup(t, AuthInfo("CHAP", "user", "Abcdefgh#123", "", ""));
  struct auth_group* ag = auth_group_find(conf_, "3fb2b402-cfcb-4738-9622-3a566bb58dbf");
  ASSERT_NE(ag, nullptr);
  EXPECT_EQ(t->t_auth_group, ag);
  EXPECT_EQ(ag->ag_type, AG_TYPE_CHAP);
  EXPECT_TRUE(host_.Log().Contains("Parser: Updating auth type 'CHAP' for target " +
                                   std::string(t->t_name)));

  Parser::UpdateTargetAuthGroup(
      t, AuthInfo("chap-MUTUAL", "out", "Abcdefgh#123", "in", "Zyxwvuts#987"));
  EXPECT_EQ(ag->ag_type, AG_TYPE_CHAP_MUTUAL);
  ASSERT_NE(TAILQ_FIRST(&ag->ag_auths), nullptr);
  EXPECT_EQ(TAILQ_NEXT(TAILQ_FIRST(&ag->ag_auths), a_next), nullptr);
  EXPECT_STREQ(TAILQ_FIRST(&ag->ag_auths)->a_mutual_user, "in");

  Parser::UpdateTargetAuthGroup(t, AuthInfo("No-Authentication", "", "", "", ""));
  EXPECT_EQ(ag->ag_type, AG_TYPE_NO_AUTHENTICATION);
  EXPECT_TRUE(TAILQ_EMPTY(&ag->ag_auths));
}

TEST_F(ParserHelpersTest, InitConfCreatesAnEmptyFileAndKeepsAnExistingOne) {
  const std::string path = NokCtl::Orva::IscsiTarget::Util::GetConfFilePath();
  zel::test::WriteFile(NokCtl::Orva::IscsiTarget::Util::GetConfDirPath() + "keep", "");
  Parser::InitConf();
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 0);
  EXPECT_EQ(st.st_mode & 0777, 0660u);

  zel::test::WriteFile(path, "generation 3\n", 0600);
  Parser::InitConf();
  EXPECT_EQ(zel::test::ReadFile(path), "generation 3\n");
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0660u);
}

}  // namespace
