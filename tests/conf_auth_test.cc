// Auth groups: type rules, CHAP secrets (length warnings and decoding),
// and the initiator names and addresses a group admits.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>

#include <functional>
#include <string>

#include "conf_fixture.h"
#include "zel/OrvaCtlException.h"

namespace zel {
namespace test {
namespace {

using ConfAuth = ConfFixture;
using HostCtl::Lib::Orva::OrvaCtlException;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string kIqn = "iqn.2020-01.com.example:t";

struct auth_group* TargetGroup(struct conf* conf) {
  struct auth_group* ag = auth_group_new(conf, nullptr);
  ag->ag_target = target_new(conf, kIqn.c_str());
  return ag;
}

struct sockaddr_storage Address(int family, const char* text) {
  struct sockaddr_storage ss;
  memset(&ss, 0, sizeof(ss));
  ss.ss_family = static_cast<sa_family_t>(family);
  void* addr = family == AF_INET6
                   ? static_cast<void*>(&reinterpret_cast<sockaddr_in6*>(&ss)->sin6_addr)
                   : static_cast<void*>(&reinterpret_cast<sockaddr_in*>(&ss)->sin_addr);
  EXPECT_EQ(1, inet_pton(family, text, addr)) << text;
  return ss;
}

int Check(struct auth_group* ag, int family, const char* text) {
  struct sockaddr_storage ss = Address(family, text);
  return auth_portal_check(ag, &ss);
}

std::string Thrown(const std::function<void()>& fn) {
  try {
    fn();
  } catch (const OrvaCtlException& e) {
    return e.GetMessage();
  }
  return "nothing thrown";
}

TEST_F(ConfAuth, TypeMayRepeatButNotChange) {
  struct auth_group* ag = auth_group_new(conf_, "ag");
  EXPECT_EQ(0, auth_group_set_type(ag, "deny"));
  EXPECT_EQ(0, auth_group_set_type(ag, "deny"));
  EXPECT_EQ(1, auth_group_set_type(ag, "chap"));
  EXPECT_EQ(1, auth_group_set_type(ag, "CHAP"));
  struct auth_group* own = TargetGroup(conf_);
  EXPECT_EQ(0, auth_group_set_type(own, "none"));
  EXPECT_EQ(1, auth_group_set_type(own, "chap-mutual"));
  EXPECT_EQ(1, auth_group_set_type(own, "bogus"));
  EXPECT_EQ(AG_TYPE_DENY, ag->ag_type);
  EXPECT_EQ(AG_TYPE_NO_AUTHENTICATION, own->ag_type);
  EXPECT_THAT(Logged(),
              ElementsAre("cannot set auth-type to \"chap\" for auth-group \"ag\"; already has "
                          "a different type",
                          "invalid auth-type \"CHAP\" for auth-group \"ag\"",
                          "cannot set auth-type to \"chap-mutual\" for target \"" + kIqn +
                              "\"; already has a different type",
                          "invalid auth-type \"bogus\" for target \"" + kIqn + "\""));
}

TEST_F(ConfAuth, SecretsOutside12To16CharactersWarnButAreKept) {
  struct auth_group* ag = auth_group_new(conf_, "ag");
  auth_new_chap(ag, "short", "12345678901", false);
  auth_new_chap(ag, "min", "123456789012", false);
  auth_new_chap(ag, "max", "1234567890123456", false);
  auth_new_chap(ag, "long", "12345678901234567", false);
  auth_new_chap_mutual(ag, "mutual", "123456789012", "m", "12345678901234567", false);
  EXPECT_NE(nullptr, auth_find(ag, "short"));
  EXPECT_THAT(Logged(),
              ElementsAre("secret for user \"short\", auth-group \"ag\", is too short; it "
                          "should be at least 12 characters long",
                          "secret for user \"long\", auth-group \"ag\", is too long; it should "
                          "be at most 16 characters long",
                          "mutual secret for user \"mutual\", auth-group \"ag\", is too long; "
                          "it should be at most 16 characters long"));
}

// The target variant of "too short" names 16 while the threshold stays 12.
TEST_F(ConfAuth, TargetSecretWarningsNameTheTargetAndSay16) {
  struct auth_group* ag = TargetGroup(conf_);
  auth_new_chap(ag, "u", "12345678901", false);
  auth_new_chap(ag, "ok", "123456789012", false);
  auth_new_chap_mutual(ag, "v", "12345678901234567", "m", "1", false);
  EXPECT_THAT(Logged(),
              ElementsAre("secret for user \"u\", target \"" + kIqn +
                              "\", is too short; it should be at least 16 characters long",
                          "secret for user \"v\", target \"" + kIqn +
                              "\", is too long; it should be at most 16 characters long",
                          "mutual secret for user \"v\", target \"" + kIqn +
                              "\", is too short; it should be at least 16 characters long"));
}

TEST_F(ConfAuth, EncodedSecretsAreDecodedButUserNamesAreNot) {
  const struct auth* auth = auth_new_chap_mutual(auth_group_new(conf_, "ag"), "YWJj",
                                                 "YWJjZGVmZ2hpamts", "bXV0", "MTIzNDU2Nzg5MDEy",
                                                 true);
  EXPECT_STREQ("YWJj", auth->a_user);
  EXPECT_STREQ("abcdefghijkl", auth->a_secret);
  EXPECT_STREQ("bXV0", auth->a_mutual_user);
  EXPECT_STREQ("123456789012", auth->a_mutual_secret);
  EXPECT_THAT(Logged(), IsEmpty());  // the length rule sees the decoded text
}

TEST_F(ConfAuth, UndecodableOrOverlongSecretsThrow) {
  struct auth_group* ag = auth_group_new(conf_, "ag");
  const std::string errno_text = std::string(" (") + strerror(EINVAL) + ")";
  // 31 decoded bytes still fit the buffer with their terminator; 32 do not.
  EXPECT_EQ("nothing thrown", Thrown([&] {
              auth_new_chap(ag, "u", "YWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYQ==", true);
            }));
  EXPECT_EQ("Base64_Decode (", Thrown([&] {
              auth_new_chap(ag, "v", "YWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWE=", true);
            }).substr(0, 15));
  EXPECT_EQ("Base64_Decode" + errno_text,
            Thrown([&] { auth_new_chap(ag, "w", "not base64!", true); }));
}

TEST_F(ConfAuth, PortalsTakeAFullPrefixUnlessGivenOne) {
  struct auth_group* ag = auth_group_new(conf_, "ag");
  EXPECT_EQ(32, auth_portal_new(ag, "10.1.2.3")->ap_mask);
  EXPECT_EQ(128, auth_portal_new(ag, "[fe80::1]")->ap_mask);
  EXPECT_EQ(32, auth_portal_new(ag, "[2001:db8::]/32")->ap_mask);
  EXPECT_EQ(16, auth_portal_new(ag, "10.0.0.0/0x10")->ap_mask);
}

TEST_F(ConfAuth, MalformedPortalsThrowAndLeaveTheGroupUnchanged) {
  struct auth_group* ag = auth_group_new(conf_, "ag");
  for (const char* bad : {"10.0.0.0/33", "2001:db8::/129", "10.0.0.0/8x", "10.0.0.0/",
                          "10.0.0.0/-1", "", "[", "/8", "10.0.0.256", "host.example"}) {
    EXPECT_EQ("Incorrect initiator portal '" + std::string(bad) + "'",
              Thrown([&] { auth_portal_new(ag, bad); }));
  }
  EXPECT_FALSE(auth_portal_defined(ag));
}

TEST_F(ConfAuth, PortalsMatchOnTheirPrefixBits) {
  struct auth_group* ag = auth_group_new(conf_, "ag");
  EXPECT_EQ(0, Check(ag, AF_INET, "8.8.8.8"));  // no portals: everyone
  auth_portal_new(ag, "172.16.0.0/12");
  auth_portal_new(ag, "[2001:db8::]/33");
  EXPECT_EQ(0, Check(ag, AF_INET, "172.16.5.1"));
  EXPECT_EQ(0, Check(ag, AF_INET, "172.31.255.255"));
  EXPECT_EQ(1, Check(ag, AF_INET, "172.32.0.0"));
  EXPECT_EQ(1, Check(ag, AF_INET6, "::ffff:172.16.5.1"));
  EXPECT_EQ(0, Check(ag, AF_INET6, "2001:db8:7fff::1"));
  EXPECT_EQ(1, Check(ag, AF_INET6, "2001:db8:8000::1"));
}

TEST_F(ConfAuth, InitiatorNamesAreCheckedOnlyWhenDefinedAndIgnoreCase) {
  struct auth_group* ag = auth_group_new(conf_, "ag");
  EXPECT_EQ(0, auth_name_check(ag, "iqn.1998-01.com.example:any"));
  auth_name_new(ag, "iqn.1998-01.com.example:Host1");
  EXPECT_EQ(0, auth_name_check(ag, "IQN.1998-01.com.example:host1"));
  EXPECT_EQ(1, auth_name_check(ag, "iqn.1998-01.com.example:host2"));
}

}  // namespace
}  // namespace test
}  // namespace zel
