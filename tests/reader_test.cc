// Reading zel.conf: what each statement and entry reads into, the built-in
// groups, the scanner's spellings; refused files (report and numbered dump,
// semantic messages, exceptions) leave nothing behind; permissions and lock.
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "conf/conf.h"
#include "conf/reader.h"
#include "conf/reader_state.h"
#include "support/Messages.h"
#include "support/Process.h"
#include "support/TestHost.h"

namespace zel {
namespace test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

const std::string kTarget = "target iqn.2024-01.org.example:t {\n";
const std::string kTargetName = "\"iqn.2024-01.org.example:t\"";
const std::string kLun0 = "\"iqn.2024-01.org.example:t,L,0x0000000000000000\"";

// In a target block; in a lun block of that target; "<what> ... specified
// more than once" for the target or its lun 0.
std::string InTarget(const std::string& entries) { return kTarget + entries + "}\n"; }
std::string InLun(const std::string& entries) { return InTarget(" lun 0 {\n" + entries + "}\n"); }
std::string Twice(const std::string& what) {
  return what + " for target " + kTargetName + " specified more than once";
}
std::string TwiceInLun(const std::string& what) {
  return what + " for lun " + kLun0 + " specified more than once";
}
std::string Both(const std::string& what) {
  return "cannot use both auth-group and " + what + " for target " + kTargetName;
}

int OpenDescriptors() {
  int count = 0;
  DIR* dir = opendir("/proc/self/fd");
  while (readdir(dir) != nullptr) ++count;
  closedir(dir);
  return count;
}

// zel.conf written as a real file in a temporary home, opened under the
// shared lock and read the way ConfHandle reads it.
class ReaderTest : public ::testing::Test {
 protected:
  ReaderTest() : path_(host_.Home() + "/zel.conf") { log_init(5); }
  ~ReaderTest() override {
    if (conf_ != nullptr) conf_delete(conf_);
  }
  // Writes `text` with permission bits `mode` and reads it; null when the
  // reader refused it. An earlier conf `old` may lend its ports. An
  // exception is passed on after the reader state was cleaned as
  // ConfHandle cleans it.
  struct conf* Read(const std::string& text, int mode = 0600, struct conf* old = nullptr) {
    WriteFile(path_, text, mode);
    if (conf_ != nullptr) conf_delete(conf_);
    conf_ = nullptr;
    FileIODescriptor file;
    EXPECT_EQ(0, conf_file_open_share_lock(path_.c_str(), &file, 300000));
    try {
      conf_ = conf_new_from_file(&file, old);
    } catch (...) {
      ZeldCleanConf();
      conf_close_file(&file);
      throw;
    }
    conf_close_file(&file);
    return conf_;
  }
  // The configuration layer's lines, without their "ZELD: " prefix, that
  // mention `part`.
  std::vector<std::string> LoggedWith(const std::string& part = "") {
    std::vector<std::string> lines;
    for (const std::string& line : host_.Log().Texts()) {
      if (line.rfind("ZELD: ", 0) == 0 && line.find(part) != std::string::npos)
        lines.push_back(line.substr(6));
    }
    return lines;
  }
  bool WasLogged(const std::string& text) { return host_.Log().Contains("ZELD: " + text); }
  static std::vector<std::string> Listens(const struct portal_group* pg) {
    std::vector<std::string> listens;
    const struct portal* portal;
    TAILQ_FOREACH(portal, &pg->pg_portals, p_next) {
      listens.push_back(std::string(portal->p_host) + ":" + portal->p_port +
                        (portal->p_iser ? " iser" : ""));
    }
    return listens;
  }
  // The one lun of a single-lun file.
  struct lun* OnlyLun(const std::string& entries) {
    EXPECT_NE(nullptr, Read(kTarget + " lun 0 {\n" + entries + "\n }\n}\n"));
    return conf_ == nullptr ? nullptr : TAILQ_FIRST(&conf_->conf_luns);
  }
  // Reads `text`, which must be refused, and returns the error report's
  // first line and the dump that follows it.
  std::vector<std::string> ReportFor(const std::string& text) {
    host_.Log().Clear();
    EXPECT_EQ(nullptr, Read(text));
    std::vector<std::string> report;
    bool in_report = false;
    for (const std::string& line : LoggedWith()) {
      if (line.rfind("error in configuration file", 0) == 0) in_report = true;
      if (line.rfind("Failed to parse config file", 0) == 0) in_report = false;
      if (in_report) report.push_back(line);
    }
    return report;
  }
  // Reads `path` and returns the message of the exception the reader
  // throws, checking what it leaves for ZeldCleanConf and what that removes.
  std::string ThrownReading(const std::string& path) {
    const int descriptors = OpenDescriptors();
    FileIODescriptor file;
    EXPECT_EQ(0, conf_file_open_share_lock(path.c_str(), &file, 300000));
    std::string message = "(nothing thrown)";
    try {
      conf_delete(conf_new_from_file(&file, nullptr));
    } catch (const HostCtl::Lib::Orva::OrvaCtlException& e) {
      message = e.GetMessage();
      EXPECT_NE(nullptr, zeld_reader.conf) << "the partial conf is ZeldCleanConf's to delete";
      EXPECT_EQ(nullptr, zeld_reader.source) << "the stream is closed before the rethrow";
      ZeldCleanConf();
    }
    EXPECT_EQ(nullptr, zeld_reader.conf);
    EXPECT_EQ(nullptr, zeld_reader.auth_group);
    EXPECT_EQ(nullptr, zeld_reader.target);
    conf_close_file(&file);
    EXPECT_EQ(descriptors, OpenDescriptors());
    return message;
  }
  bool OtherProcessCanLock(int operation) {
    ChildProcess child([&](ChildControl&) {
      int fd = open(path_.c_str(), O_RDONLY);
      return fd >= 0 && flock(fd, operation | LOCK_NB) == 0 ? 0 : 1;
    });
    return child.Join() == 0;
  }
  ScopedTestHost host_;
  std::string path_;
  struct conf* conf_ = nullptr;
};

// ---- what a file reads into ------------------------------------------------------

TEST_F(ReaderTest, TopLevelStatementsFillTheConf) {
  ASSERT_NE(nullptr, Read("generation 0x10\ndebug 3\ntimeout 30\nmaxproc 8\n"
                          "isns-server 192.0.2.7\nisns-period 1k\nisns-timeout 9\n"
                          "option first-name one\n"));
  EXPECT_EQ(16u, conf_->conf_generation);
  EXPECT_EQ(3u, conf_->conf_debug);
  EXPECT_EQ(30u, conf_->conf_timeout);
  EXPECT_EQ(8u, conf_->conf_maxproc);
  EXPECT_EQ(1024u, conf_->conf_isns_period);
  EXPECT_EQ(9u, conf_->conf_isns_timeout);
  ASSERT_FALSE(TAILQ_EMPTY(&conf_->conf_isns));
  EXPECT_STREQ("192.0.2.7", TAILQ_FIRST(&conf_->conf_isns)->i_addr);
  EXPECT_STREQ("one", conf_option_find(conf_, "first-name")->co_value);
  EXPECT_EQ(1, conf_->conf_read_from_file);
  EXPECT_TRUE(WasLogged("obtaining configuration from " + path_));
}

TEST_F(ReaderTest, UndefinedDefaultGroupsDenyEveryoneAndListenOnTheServiceInterface) {
  ASSERT_NE(nullptr, Read(""));
  EXPECT_EQ(AG_TYPE_DENY, auth_group_find(conf_, "default")->ag_type);
  EXPECT_EQ(AG_TYPE_NO_AUTHENTICATION, auth_group_find(conf_, "no-authentication")->ag_type);
  EXPECT_EQ(AG_TYPE_DENY, auth_group_find(conf_, "no-access")->ag_type);
  EXPECT_THAT(Listens(portal_group_find(conf_, "default")), ElementsAre("nok0:3260"));
  EXPECT_FALSE(conf_->conf_default_ag_defined);
  EXPECT_FALSE(conf_->conf_default_pg_defined);
  EXPECT_TRUE(WasLogged("auth-group \"default\" not defined; going with defaults"));
  EXPECT_TRUE(WasLogged("portal-group \"default\" not defined; going with defaults"));
}

TEST_F(ReaderTest, FileDefinitionsOfDefaultFillTheBuiltInGroups) {
  ASSERT_NE(nullptr, Read("auth-group default {\n auth-type none\n}\n"
                          "portal-group default {\n listen nok1:3261\n}\n"));
  EXPECT_EQ(AG_TYPE_NO_AUTHENTICATION, auth_group_find(conf_, "default")->ag_type);
  EXPECT_THAT(Listens(portal_group_find(conf_, "default")), ElementsAre("nok1:3261"));
  int defaults = 0;
  const struct auth_group* ag;
  TAILQ_FOREACH(ag, &conf_->conf_auth_groups, ag_next) {
    if (ag->ag_name != nullptr && std::string(ag->ag_name) == "default") ++defaults;
  }
  EXPECT_EQ(1, defaults);
  EXPECT_TRUE(conf_->conf_default_ag_defined);
  EXPECT_TRUE(conf_->conf_default_pg_defined);
  EXPECT_THAT(LoggedWith("going with defaults"), IsEmpty());
}

TEST_F(ReaderTest, AuthAndInitiatorGroupEntriesDecodeSecretsAndParsePortals) {
  ASSERT_NE(nullptr, Read("initiator-group ig1 {\n initiator iqn.2024-01.org.example:one\n"
                          " initiator-name iqn.2024-01.org.example:two\n}\n"
                          "auth-group one {\n chap user@example \"QWJjZGVmZ2gjMTIz\"\n"
                          " initiator-portal [fe80::1]/64\n initiator-portal 192.0.2.0/24\n"
                          " initiator iqn.2024-01.org.example:three\n initiator-group ig1\n}\n"
                          "auth-group two {\n"
                          " chap-mutual u1 QWJjZGVmZ2gjMTIzNA== u2 \"UXJzdHV2d3gjNDU2\"\n}\n"));
  std::vector<std::string> members;
  const struct initiator* ini;
  TAILQ_FOREACH(ini, &initiator_group_find(conf_, "ig1")->ig_initiators, i_next)
  members.push_back(ini->i_name);
  EXPECT_THAT(members, ElementsAre("iqn.2024-01.org.example:one", "iqn.2024-01.org.example:two"));
  const struct auth_group* one = auth_group_find(conf_, "one");
  EXPECT_EQ(AG_TYPE_CHAP, one->ag_type);
  ASSERT_NE(nullptr, auth_find(one, "user@example"));
  EXPECT_STREQ("Abcdefgh#123", auth_find(one, "user@example")->a_secret);
  const struct auth_portal* v6 = TAILQ_FIRST(&one->ag_portals);
  EXPECT_EQ(AF_INET6, v6->ap_family);
  EXPECT_EQ(64, v6->ap_mask);
  EXPECT_EQ(24, TAILQ_NEXT(v6, ap_next)->ap_mask);
  EXPECT_NE(nullptr, auth_name_find(one, "iqn.2024-01.org.example:three"));
  EXPECT_NE(nullptr, auth_group_igroup_ref_find(one, "ig1"));
  const struct auth_group* two = auth_group_find(conf_, "two");
  EXPECT_EQ(AG_TYPE_CHAP_MUTUAL, two->ag_type);
  const struct auth* mutual = auth_find(two, "u1");
  ASSERT_NE(nullptr, mutual);
  EXPECT_STREQ("Abcdefgh#1234", mutual->a_secret);
  EXPECT_STREQ("u2", mutual->a_mutual_user);
  EXPECT_STREQ("Qrstuvwx#456", mutual->a_mutual_secret);
}

TEST_F(ReaderTest, PortalGroupEntriesSetTheGroup) {
  ASSERT_NE(nullptr, Read("auth-group disc {\n auth-type none\n}\n"
                          "portal-group pg {\n discovery-auth-group disc\n"
                          " discovery-filter portal-name\n foreign\n listen 192.0.2.1\n"
                          " listen-iser [2001:db8::1]:3261\n option ha on\n redirect 192.0.2.9\n"
                          " tag 0xffff\n}\n"));
  const struct portal_group* pg = portal_group_find(conf_, "pg");
  EXPECT_EQ(auth_group_find(conf_, "disc"), pg->pg_discovery_auth_group);
  EXPECT_EQ(PG_FILTER_PORTAL_NAME, pg->pg_discovery_filter);
  EXPECT_TRUE(pg->pg_foreign);
  EXPECT_THAT(Listens(pg), ElementsAre("192.0.2.1:3260", "2001:db8::1:3261 iser"));
  EXPECT_STREQ("on", option_find(&pg->pg_options, "ha")->o_value);
  EXPECT_STREQ("192.0.2.9", pg->pg_redirection);
  EXPECT_EQ(0xffff, pg->pg_tag);
}

// Alias, groups, options and LUN entries of a target also show in the
// writer's exact text (conf_file_test); what the writer cannot show is here.
TEST_F(ReaderTest, TargetEntriesLinkGroupsOptionsAndLuns) {
  ASSERT_NE(nullptr, Read("auth-group port-ag {\n auth-type none\n}\n"
                          "portal-group pg {\n listen nok1\n}\n"
                          "target IQN.2024-01.Org.Example:Mixed {\n"
                          " alias \"Mixed {case}; alias\"\n portal-group pg port-ag\n"
                          " lun 5 {\n  path 3fb2b402/disk.qdsk\n }\n}\n"));
  struct target* target = target_find(conf_, "iqn.2024-01.org.example:mixed");
  ASSERT_NE(nullptr, target);
  EXPECT_STREQ("Mixed {case}; alias", target->t_alias);
  const struct port* port = zeld_target_to_port(target);
  ASSERT_NE(nullptr, port);
  EXPECT_EQ(portal_group_find(conf_, "pg"), port->p_portal_group);
  EXPECT_EQ(auth_group_find(conf_, "port-ag"), port->p_auth_group);
  const struct lun* lun = target->t_luns[5];
  ASSERT_NE(nullptr, lun);
  EXPECT_STREQ("iqn.2024-01.org.example:mixed,L,0x0000000000000005", lun->l_name);
  EXPECT_EQ(5u, lun->l_zeld_lun);
  for (int slot = 0; slot < ZELD_MAX_LUNS; ++slot) {
    if (slot != 5) {
      EXPECT_EQ(nullptr, target->t_luns[slot]) << slot;
    }
  }
}

TEST_F(ReaderTest, TargetAuthorisationEntriesMakeItsOwnUnnamedGroup) {
  ASSERT_NE(nullptr, Read(kTarget + " chap-mutual u1 QWJjZGVmZ2gjMTIz u2 UXJzdHV2d3gjNDU2\n"
                                    " initiator-name iqn.2024-01.org.example:host\n"
                                    " initiator-portal 192.0.2.0/24\n}\n"));
  const struct target* target = TAILQ_FIRST(&conf_->conf_targets);
  const struct auth_group* own = target->t_auth_group;
  ASSERT_NE(nullptr, own);
  EXPECT_EQ(nullptr, own->ag_name);
  EXPECT_EQ(target, own->ag_target);
  EXPECT_EQ(AG_TYPE_CHAP_MUTUAL, own->ag_type);
  EXPECT_NE(nullptr, auth_name_find(own, "iqn.2024-01.org.example:host"));
  EXPECT_TRUE(auth_portal_defined(own));
}

TEST_F(ReaderTest, LunsMayBeDefinedOutsideAndPortsLentByTheOldConf) {
  struct conf* old = conf_new();
  pport_new(old, "pp0", 42);
  ASSERT_NE(nullptr, Read("lun shared-disk {\n path a/shared.qdsk\n}\n" + kTarget +
                              " lun 7 shared-disk\n port pp0\n}\n",
                          0600, old));
  conf_delete(old);
  const struct target* target = TAILQ_FIRST(&conf_->conf_targets);
  EXPECT_EQ(lun_find(conf_, "shared-disk"), target->t_luns[7]);
  const struct pport* pp = pport_find(conf_, "pp0");
  ASSERT_NE(nullptr, pp);
  EXPECT_EQ(42u, pp->pp_ctl_port);
  EXPECT_EQ(target, TAILQ_FIRST(&pp->pp_ports)->p_target);
}

TEST_F(ReaderTest, LunEntriesAreStoredAndSizesTakeUnitSuffixes) {
  struct lun* lun = OnlyLun("path p\ndevice-id \"dev 1\"\nserial SN0001\nctl-lun 12\n"
                            "blocksize 4096\nsize 4k");
  ASSERT_NE(nullptr, lun);
  EXPECT_STREQ("dev 1", lun->l_device_id);
  EXPECT_STREQ("SN0001", lun->l_serial);
  EXPECT_EQ(12u, lun->l_ctl_lun);
  EXPECT_EQ(4096, lun->l_blocksize);
  EXPECT_EQ(4096u, lun->l_size);
  ASSERT_NE(nullptr, OnlyLun("path p\nsize 1g"));
  EXPECT_EQ(1073741824u, TAILQ_FIRST(&conf_->conf_luns)->l_size);
}

TEST_F(ReaderTest, DeviceTypeTakesNamesInAnyCaseOrNumbersUpTo15) {
  const std::vector<std::pair<std::string, int>> cases = {
      {"disk", 0}, {"DIRECT", 0}, {"Processor", 3}, {"cd", 5},   {"cdrom", 5},
      {"dvd", 5},  {"DVDROM", 5}, {"7", 7},         {"0xf", 15}, {"0", 0}};
  for (const auto& [word, type] : cases) {
    struct lun* lun = OnlyLun("path p\ndevice-type " + word);
    ASSERT_NE(nullptr, lun) << word;
    EXPECT_EQ(type, lun->l_device_type) << word;
  }
}

TEST_F(ReaderTest, ScannerSpellings) {
  // Semicolons may end any statement or entry.
  ASSERT_NE(nullptr, Read("generation 7;\n"
                          "initiator-group ig { initiator iqn.2024-01.org.example:a; };\n"
                          "auth-group ag { auth-type none; initiator-group ig; };\n"
                          "portal-group pg { listen nok1; tag 2; };\n"
                          "target iqn.2024-01.org.example:t { portal-group pg; "
                          "auth-group ag; lun 0 { path p; size 8; }; };\n"));
  EXPECT_EQ(7u, conf_->conf_generation);
  EXPECT_NE(nullptr, TAILQ_FIRST(&conf_->conf_targets)->t_luns[0]);
  // Keywords are lower case only; quoting makes any text a word.
  ASSERT_NE(nullptr, Read("option ALIAS \"target {x}\"\n"));
  EXPECT_STREQ("target {x}", conf_option_find(conf_, "ALIAS")->co_value);
  ASSERT_NE(nullptr, Read("option \"lun\" \"\"\n"));
  EXPECT_STREQ("", conf_option_find(conf_, "lun")->co_value);
  // LUN names with commas are words.
  ASSERT_NE(nullptr, Read("lun iqn.2024-01.org.example:x,L,0x0000000000000001 {\n path p\n}\n" +
                          kTarget + " lun 1 iqn.2024-01.org.example:x,L,0x0000000000000001\n}\n"));
  EXPECT_NE(nullptr, TAILQ_FIRST(&conf_->conf_targets)->t_luns[1]);
}

TEST_F(ReaderTest, WriterLayoutReadsBack) {
  // The writer's exact spacing, including the type line that it leaves
  // without a line end.
  ASSERT_NE(nullptr, Read("initiator-group ig1 {\n\t initiator iqn.2024-01.org.example:one \n}\n"
                          "auth-group g {\n\t auth-type none\t initiator-group ig1\n"
                          "\t initiator-name iqn.2024-01.org.example:two\n}\n" +
                          kTarget + "\talias \"Disk target\"\n\tauth-group g\n"
                                    "\tlun 0 {\n\t\tbackend qdsk\n\t\tpath u/disk.qdsk\n"
                                    "\t\tsize 2048\n\t\toption status \"offline\"\n\t}\n}\n"));
  const struct target* target = TAILQ_FIRST(&conf_->conf_targets);
  EXPECT_STREQ("Disk target", target->t_alias);
  EXPECT_TRUE(lun_is_offline(target->t_luns[0]));
  EXPECT_NE(nullptr, auth_group_igroup_ref_find(target->t_auth_group, "ig1"));
  EXPECT_NE(nullptr, auth_name_find(target->t_auth_group, "iqn.2024-01.org.example:two"));
}

// ---- refused files: the report and its dump -------------------------------------

TEST_F(ReaderTest, SyntaxErrorNamesLineAndTokenThenDumpsTheNumberedFile) {
  EXPECT_THAT(ReportFor(kTarget + "  bogus entry\n}\n"),
              ElementsAre("error in configuration file at line 2 near 'bogus': syntax error",
                          "Dumping zel.conf file...", "1: target iqn.2024-01.org.example:t {",
                          "2:   bogus entry", "3: }"));
  EXPECT_THAT(LoggedWith("Failed to parse config file"),
              ElementsAre(StartsWith("Failed to parse config file " + path_ + ": ")));
  // Secrets are masked, user names kept; lines count across blank lines.
  EXPECT_THAT(ReportFor("auth-group g {\n chap \"u1\" \"QWJjZGVmZ2gjMTIz\"\n"
                        " chap-mutual \"u2\" \"QUJD\" \"m2\" \"REVG\"\n}\n\n}\n"),
              ElementsAre("error in configuration file at line 6 near '}': syntax error",
                          "Dumping zel.conf file...", "1: auth-group g {",
                          "2:  chap \"u1\" \"****************\"",
                          "3:  chap-mutual \"u2\" \"****\" \"m2\" \"****\"", "4: }", "5: ",
                          "6: }"));
  EXPECT_THAT(ReportFor("\n\noption a \"b c\"\n\n}\n"),
              ElementsAre("error in configuration file at line 5 near '}': syntax error",
                          "Dumping zel.conf file...", "1: ", "2: ", "3: option a \"b c\"",
                          "4: ", "5: }"));
  // Overlong lines are dumped in pieces under their own number: 2509
  // characters make pieces of 1023, 1023 and 463.
  std::vector<std::string> report =
      ReportFor("generation 1\noption x " + std::string(2500, 'a') + "\n{\n");
  ASSERT_THAT(report, SizeIs(7));
  EXPECT_EQ("error in configuration file at line 3 near '{': syntax error", report[0]);
  EXPECT_EQ("1: generation 1", report[2]);
  EXPECT_THAT(report[3], StartsWith("2: option x aaa"));
  EXPECT_THAT(report[4], StartsWith("2: aaa"));
  EXPECT_THAT(report[5], StartsWith("2: aaa"));
  EXPECT_EQ("3: {", report[6]);
  // End of file inside a block.
  report = ReportFor(kTarget + " lun 0 {\n");
  ASSERT_FALSE(report.empty());
  EXPECT_THAT(report[0], StartsWith("error in configuration file at line 3 near '"));
  EXPECT_THAT(report[0], ::testing::EndsWith("': syntax error"));
}

TEST_F(ReaderTest, ScannerAndNumberErrorsAreReportedWithTheirLineAndToken) {
  const std::string lun0 = kTarget + " lun 0 {\n  path p\n  device-type ";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"generation 1\n$\n", "at line 2 near '$': syntax error"},
      {"option a \"unterminated\n", "at line 1 near '\"': syntax error"},
      {std::string("option a \"x\0y\"\n", 15), "at line 1 near '\"': syntax error"},
      {"option a b\r\n", "at line 1 near '\r': syntax error"},
      {"TARGET iqn.2024-01.org.example:t {\n}\n", "at line 1 near 'TARGET': syntax error"},
      {"; generation 1\n", "at line 1 near ';': syntax error"},
      {"auth-group ag { ; }\n", "at line 1 near ';': syntax error"},
      {"generation x1\n", "at line 1 near 'x1': invalid numeric value"},
      {"\ndebug 1x\n", "at line 2 near '1x': invalid numeric value"},
      {"timeout 4294967296\n", "at line 1 near '4294967296': invalid numeric value"},
      {"portal-group pg {\n tag 65536\n}\n", "at line 2 near '65536': invalid numeric value"},
      {kTarget + " lun 256 shared\n}\n", "at line 2 near 'shared': invalid numeric value"},
      // Checked once the block opens, so the report names the brace.
      {kTarget + " lun 256 {\n }\n}\n", "at line 2 near '{': invalid numeric value"},
      {kTarget + " lun 0 {\n  path p\n  size 16e\n }\n}\n",
       "at line 4 near '16e': invalid numeric value"},
      {kTarget + " lun 0 {\n  blocksize 2147483648\n }\n}\n",
       "at line 3 near '2147483648': invalid numeric value"},
      {lun0 + "tape\n }\n}\n", "at line 4 near 'tape': invalid device-type value"},
      {lun0 + "16\n }\n}\n", "at line 4 near '16': invalid device-type value"},
      {lun0 + "-1\n }\n}\n", "at line 4 near '-1': invalid device-type value"},
      {lun0 + "\"\"\n }\n}\n", "at line 4 near '\"\"': invalid device-type value"},
  };
  for (const auto& [text, where] : cases) {
    std::vector<std::string> report = ReportFor(text);
    ASSERT_THAT(report, SizeIs(::testing::Ge(2u))) << text;
    EXPECT_EQ("error in configuration file " + where, report[0]);
    EXPECT_EQ("Dumping zel.conf file...", report[1]);
  }
}

// ---- refused files: semantic messages without dump ------------------------------

TEST_F(ReaderTest, SemanticErrorsRefuseTheFileWithTheirMessageAndWithoutDump) {
  const std::string afterGroup = " auth-group default\n ";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {InTarget(" alias a\n alias b\n"), Twice("alias")},
      {"auth-group ag {\n}\n" + InTarget(" auth-group ag\n auth-group ag\n"), Twice("auth-group")},
      {InTarget(" auth-type none\n auth-group default\n"), Both("explicit authorisations")},
      {InTarget(" auth-group nope\n"), "unknown auth-group \"nope\" for target " + kTargetName},
      {InTarget(afterGroup + "auth-type none\n"), Both("auth-type")},
      {InTarget(afterGroup + "chap u QWJjZGVmZ2gjMTIz\n"), Both("chap")},
      {InTarget(afterGroup + "chap-mutual u QWJjZGVmZ2gjMTIz v QWJjZGVmZ2gjMTIz\n"),
       Both("chap-mutual")},
      {InTarget(afterGroup + "initiator-name iqn.2024-01.org.x:i\n"), Both("initiator-name")},
      {InTarget(afterGroup + "initiator-portal 192.0.2.1\n"), Both("initiator-portal")},
      {InTarget(" portal-group nope\n"), "unknown portal-group \"nope\" for target " + kTargetName},
      {InTarget(" portal-group default nope\n"),
       "unknown auth-group \"nope\" for target " + kTargetName},
      {InTarget(" portal-group default\n portal-group default\n"),
       "can't link portal-group \"default\" to target " + kTargetName},
      {InTarget(" port pp9\n"), "unknown port \"pp9\" for target " + kTargetName},
      {InTarget(" port pp0\n") + "target iqn.2024-01.org.example:u {\n port pp0\n}\n",
       "can't link port \"pp0\" to target \"iqn.2024-01.org.example:u\", port already linked to "
       "some target"},
      {"portal-group pp0 {\n}\n" + InTarget(" portal-group pp0\n port pp0\n"),
       "can't link port \"pp0\" to target " + kTargetName},
      {"portal-group pg {\n discovery-auth-group default\n discovery-auth-group default\n}\n",
       "discovery-auth-group for portal-group \"pg\" specified more than once"},
      {"portal-group pg {\n discovery-auth-group nope\n}\n",
       "unknown discovery-auth-group \"nope\" for portal-group \"pg\""},
      {"auth-group ag {\n initiator-group ig\n}\ninitiator-group ig {\n}\n",
       "Failed to add initiator-group ref \"ig\" to auth-group \"ag\". Please make sure initiator "
       "group \"ig\" is in configuration file and it appears ahead of auth-group \"ag\""},
      {InLun(" backend block\n backend block\n"), TwiceInLun("backend")},
      {InLun(" blocksize 512\n blocksize 512\n"), TwiceInLun("blocksize")},
      {InLun(" device-id a\n device-id b\n"), TwiceInLun("device_id")},
      {InLun(" ctl-lun 0\n ctl-lun 1\n"), TwiceInLun("ctl_lun")},
      {InLun(" path a\n path b\n"), TwiceInLun("path")},
      {InLun(" serial a\n serial b\n"), TwiceInLun("serial")},
      {InLun(" size 8\n size 8\n"), TwiceInLun("size")},
      {"lun d {\n path p\n}\n" + InTarget(" lun 0 {\n path q\n }\n lun 0 d\n"), Twice("lun 0")},
      {InTarget(" lun 1 nope\n"), "unknown lun \"nope\" for target " + kTargetName},
      {InTarget("") + "target IQN.2024-01.org.example:T {\n}\n",
       "duplicated target \"IQN.2024-01.org.example:T\""},
      {"auth-group default {\n}\nauth-group default {\n}\n", "duplicated auth-group \"default\""},
      {"auth-group no-access {\n}\n", "duplicated auth-group \"no-access\""},
      {"portal-group default {\n}\nportal-group default {\n}\n",
       "duplicated portal-group \"default\""},
      {"auth-group ag {\n auth-type bogus\n}\n",
       "invalid auth-type \"bogus\" for auth-group \"ag\""},
      {"portal-group pg {\n listen [::1\n}\n", "invalid listen address [::1"},
      {"portal-group pg {\n redirect a\n redirect b\n}\n",
       "cannot set redirection to \"b\" for portal-group \"pg\"; already defined"},
      {"option a 1\noption a 2\n", "duplicated config option a "}};
  for (const auto& [text, message] : cases) {
    SCOPED_TRACE(text);
    host_.Log().Clear();
    // Some cases link targets to a port that an earlier conf lends.
    struct conf* old = conf_new();
    pport_new(old, "pp0", 3);
    EXPECT_EQ(nullptr, Read(text, 0600, old));
    conf_delete(old);
    EXPECT_TRUE(WasLogged(message)) << ::testing::PrintToString(LoggedWith());
    EXPECT_THAT(LoggedWith("Failed to parse config file " + path_), SizeIs(1));
    EXPECT_THAT(LoggedWith("Dumping"), IsEmpty());
  }
}

TEST_F(ReaderTest, FailedValidationRefusesTheFile) {
  EXPECT_EQ(nullptr, Read(kTarget + " lun 0 {\n backend block\n }\n}\n"));
  EXPECT_TRUE(WasLogged("missing path for lun " + kLun0));
  EXPECT_THAT(LoggedWith("failed to validate configuration"),
              ElementsAre(StartsWith("failed to validate configuration " + path_ + ": ")));
}

// ---- refused files leave nothing behind; exceptions ------------------------------

TEST_F(ReaderTest, RefusedFileIsNeverHalfLoaded) {
  const int descriptors = OpenDescriptors();
  EXPECT_EQ(nullptr, Read("portal-group pg {\n listen nok1\n}\n" + kTarget +
                          " portal-group pg\n chap-mutual a b c\n}\n"));
  EXPECT_EQ(nullptr, zeld_reader.conf);
  EXPECT_EQ(nullptr, zeld_reader.target);
  EXPECT_EQ(nullptr, zeld_reader.source);
  EXPECT_EQ(descriptors, OpenDescriptors());
  ASSERT_NE(nullptr, Read("generation 5\n"));
  EXPECT_EQ(5u, conf_->conf_generation);
  EXPECT_EQ(nullptr, portal_group_find(conf_, "pg"));
  EXPECT_TRUE(TAILQ_EMPTY(&conf_->conf_targets));
}

// The exception reaches the caller with the model's message, the stream is
// closed, and ZeldCleanConf removes the partly built conf.
TEST_F(ReaderTest, ModelExceptionsReachTheCallerAndTheNextParseStartsClean) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"initiator-group ig {\n initiator iqn.2024-01.org.example:a\n}\n"
       "auth-group ag {\n initiator-group ig\n initiator-portal 10.0.0.1/33\n}\n" +
           kTarget + "}\n",
       "Incorrect initiator portal '10.0.0.1/33'"},
      {kTarget + " initiator-name iqn.2024-01.org.example:host\n"
                 " initiator-portal [fe80::1]/129\n lun 0 {\n  path p\n }\n}\n",
       "Incorrect initiator portal '[fe80::1]/129'"},
      {"auth-group ag {\n chap user \"!!not base64!!\"\n}\n", "Base64_Decode"},
      // Decoded, the secret would not fit the secret buffer.
      {"auth-group ag {\n chap-mutual u QWJjZGVmZ2gjMTIz v \"" + std::string(60, 'Q') + "\"\n}\n",
       "Base64_Decode"},
  };
  for (const auto& [text, message] : cases) {
    WriteFile(path_, "generation 9\n" + text);
    EXPECT_THAT(ThrownReading(path_), StartsWith(message)) << text;
  }
  host_.Log().Clear();
  EXPECT_EQ(nullptr, Read("generation 3\nbogus\n"));
  EXPECT_TRUE(WasLogged("error in configuration file at line 2 near 'bogus': syntax error"));
  ASSERT_NE(nullptr, Read("generation 3\nauth-group ag {\n}\n"));
  EXPECT_EQ(3u, conf_->conf_generation);
  EXPECT_NE(nullptr, auth_group_find(conf_, "ag"));
}

TEST_F(ReaderTest, ScannerFailureThrowsInsteadOfEndingTheProcess) {
  // A directory opens and locks like a file but cannot be read.
  const std::string directory = host_.Home() + "/zel.conf.d";
  ASSERT_EQ(0, mkdir(directory.c_str(), 0700));
  EXPECT_EQ("input in flex scanner failed", ThrownReading(directory));
}

// ---- the file under the reader ---------------------------------------------------

TEST_F(ReaderTest, FilesOpenToTheWorldAreReadWithOneWarning) {
  const std::vector<std::pair<int, std::string>> cases = {
      {0644, " is world-readable"}, {0666, " is world-writable"},
      {0661, " is world-executable"}, {0660, ""}};
  for (const auto& [mode, warning] : cases) {
    host_.Log().Clear();
    EXPECT_NE(nullptr, Read("generation 2\n", mode)) << mode;
    const std::vector<std::string> warnings = LoggedWith(" is world-");
    if (warning.empty()) {
      EXPECT_THAT(warnings, IsEmpty());
    } else {
      EXPECT_THAT(warnings, ElementsAre(path_ + warning));
    }
  }
}

TEST_F(ReaderTest, ReadingKeepsTheDescriptorOpenAndItsLockHeld) {
  WriteFile(path_, "generation 2\n");
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

}  // namespace
}  // namespace test
}  // namespace zel
