// The value syntaxes of the configuration: iSCSI names, numbers with unit
// suffixes, listen and iSNS addresses, discovery filters.
#include <errno.h>
#include <stdlib.h>

#include <string>

#include "conf_fixture.h"

namespace zel {
namespace test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using ConfIscsiName = ConfFixture;

TEST_F(ConfIscsiName, MalformedNamesAreAcceptedWithAWarning) {
  EXPECT_TRUE(valid_iscsi_name("iqn.2020-01.com.example:storage.disk-1"));
  EXPECT_TRUE(valid_iscsi_name("EUI.0123456789ABCDEF"));
  EXPECT_TRUE(valid_iscsi_name("naa.52004567BA64678D"));
  EXPECT_THAT(Logged(), IsEmpty());
  EXPECT_TRUE(valid_iscsi_name("iqn.2020-01.com.example:a_b c"));
  EXPECT_TRUE(valid_iscsi_name("eui.0123"));
  EXPECT_TRUE(valid_iscsi_name("eui.0123456789abcdeg"));
  EXPECT_TRUE(valid_iscsi_name(("naa." + std::string(33, 'a')).c_str()));
  EXPECT_TRUE(valid_iscsi_name("target0"));
  EXPECT_THAT(
      Logged(),
      ElementsAre("invalid character \"_\" in target name \"iqn.2020-01.com.example:a_b c\"; "
                  "allowed characters are letters, digits, '-', '.', and ':'",
                  "invalid target name \"eui.0123\"; the \"eui.\" should be followed by "
                  "exactly 16 hexadecimal digits",
                  "invalid character \"g\" in target name \"eui.0123456789abcdeg\"; allowed "
                  "characters are 1-9 and A-F",
                  "invalid target name \"naa." + std::string(33, 'a') +
                      "\"; the \"naa.\" should be followed by at most 32 hexadecimal digits",
                  "invalid target name \"target0\"; should start with either \"iqn.\", "
                  "\"eui.\", or \"naa.\""));
}

TEST_F(ConfIscsiName, NamesOf223CharactersOrMoreAreRefused) {
  std::string name = "iqn." + std::string(218, 'x');
  EXPECT_TRUE(valid_iscsi_name(name.c_str()));
  name += 'x';
  EXPECT_FALSE(valid_iscsi_name(name.c_str()));
  // The name pushes the message past the 255 characters a line keeps.
  std::string message = "overlong name for target \"" + name +
                        "\"; max length allowed by iSCSI specification is 223 characters";
  EXPECT_THAT(Logged(), ElementsAre(message.substr(0, 255)));
}

uint64_t Expand(const char* text) {
  uint64_t value = 0;
  EXPECT_EQ(0, expand_number(text, &value)) << text;
  return value;
}

int ExpandErrno(const char* text) {
  uint64_t value = 7;
  errno = 0;
  EXPECT_EQ(-1, expand_number(text, &value)) << text;
  EXPECT_EQ(7u, value) << text;
  return errno;
}

TEST(ConfExpandNumber, UnitSuffixesAreBinaryAndCaseInsensitive) {
  EXPECT_EQ(4096u, Expand("4k"));
  EXPECT_EQ(512u, Expand("512b"));
  EXPECT_EQ(2ull << 30, Expand("2G"));
  EXPECT_EQ(1ull << 50, Expand("1P"));
  EXPECT_EQ(15ull << 60, Expand("15e"));
  EXPECT_EQ(16u, Expand("0x10"));
  EXPECT_EQ(1024u, Expand("1kilo"));  // only the first suffix character counts
}

TEST(ConfExpandNumber, BadTextsFailWithErrnoAndSuccessRestoresIt) {
  EXPECT_EQ(EINVAL, ExpandErrno("1x"));
  EXPECT_EQ(EINVAL, ExpandErrno(""));
  EXPECT_EQ(EINVAL, ExpandErrno("-1"));
  EXPECT_EQ(ERANGE, ExpandErrno("16e"));
  EXPECT_EQ(ERANGE, ExpandErrno("18446744073709551616"));
  errno = ENOENT;
  EXPECT_EQ(UINT64_MAX, Expand("18446744073709551615"));
  EXPECT_EQ(ENOENT, errno);
}

// "host|port" of a successful split, or "error".
std::string Split(const char* text) {
  char* host = nullptr;
  char* port = nullptr;
  if (parse_addr_port(text, "3260", &host, &port) != 0)
    return "error";
  std::string out = std::string(host) + "|" + port;
  free(host);
  free(port);
  return out;
}

TEST(ConfAddress, HostAndPortSplitAtTheOnlyColonOrAfterBrackets) {
  EXPECT_EQ("10.0.0.1|3260", Split("10.0.0.1"));
  EXPECT_EQ("10.0.0.1|3261", Split("10.0.0.1:3261"));
  EXPECT_EQ("fe80::1:2|3260", Split("fe80::1:2"));
  EXPECT_EQ("fe80::1|3262", Split("[fe80::1]:3262"));
  EXPECT_EQ("::|3260", Split("[::]"));
  EXPECT_EQ("host.example|3260", Split("host.example:"));
  EXPECT_EQ("error", Split("[fe80::1"));
  EXPECT_EQ("error", Split("[fe80::1]3260"));
  EXPECT_EQ("error", Split("[fe80::1] :3260"));
}

using ConfListen = ConfFixture;

TEST_F(ConfListen, ListenAndIsnsAddressesTakeTheirDefaultPortsAndBadOnesAreDropped) {
  struct portal_group* pg = portal_group_new(conf_, "pg");
  EXPECT_EQ(0, portal_group_add_listen(pg, "[::1]", true));
  EXPECT_EQ(1, portal_group_add_listen(pg, "[::1", false));
  EXPECT_EQ(0, isns_new(conf_, "isns.example"));
  EXPECT_EQ(1, isns_new(conf_, "[fe80::1]x"));
  struct portal* portal = TAILQ_FIRST(&pg->pg_portals);
  EXPECT_EQ(nullptr, TAILQ_NEXT(portal, p_next));
  EXPECT_STREQ("[::1]", portal->p_listen);
  EXPECT_STREQ("::1", portal->p_host);
  EXPECT_STREQ("3260", portal->p_port);
  EXPECT_TRUE(portal->p_iser);
  struct isns* is = TAILQ_FIRST(&conf_->conf_isns);
  EXPECT_EQ(nullptr, TAILQ_NEXT(is, i_next));
  EXPECT_STREQ("isns.example", is->i_portal->p_host);
  EXPECT_STREQ("3205", is->i_portal->p_port);
  EXPECT_THAT(Logged(), ElementsAre("invalid listen address [::1",
                                    "invalid iSNS address [fe80::1]x"));
}

TEST_F(ConfListen, DiscoveryFilterIsSetOnceToAKnownValue) {
  struct portal_group* pg = portal_group_new(conf_, "pg");
  EXPECT_EQ(1, portal_group_set_filter(pg, "all"));
  EXPECT_EQ(0, portal_group_set_filter(pg, "portal-name-auth"));
  EXPECT_EQ(0, portal_group_set_filter(pg, "portal-name-auth"));
  EXPECT_EQ(1, portal_group_set_filter(pg, "none"));
  EXPECT_EQ(PG_FILTER_PORTAL_NAME_AUTH, pg->pg_discovery_filter);
  EXPECT_THAT(Logged(),
              ElementsAre("invalid discovery-filter \"all\" for portal-group \"pg\"; valid "
                          "values are \"none\", \"portal\", \"portal-name\", and "
                          "\"portal-name-auth\"",
                          "cannot set discovery-filter to \"none\" for portal-group \"pg\"; "
                          "already has a different value"));
}

}  // namespace
}  // namespace test
}  // namespace zel
