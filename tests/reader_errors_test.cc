// Files the reader refuses: the error report with its line and the numbered
// dump, the semantic messages, and that a refused file leaves nothing
// behind.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "conf/reader_state.h"
#include "reader_fixture.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

const std::string kTarget = "target iqn.2024-01.org.example:t {\n";
const std::string kTargetName = "\"iqn.2024-01.org.example:t\"";
const std::string kLun0 = "\"iqn.2024-01.org.example:t,L,0x0000000000000000\"";

class ReaderErrorsTest : public zel::test::ReaderFixture {
 protected:
  // Reads `text`, which must be refused, and returns the error report's
  // first line and the dump that follows it.
  std::vector<std::string> ReportFor(const std::string& text) {
    EXPECT_EQ(nullptr, Read(text));
    std::vector<std::string> report;
    bool in_report = false;
    for (const std::string& line : Logged()) {
      if (line.rfind("error in configuration file", 0) == 0) in_report = true;
      if (line.rfind("Failed to parse config file", 0) == 0) in_report = false;
      if (in_report) report.push_back(line);
    }
    return report;
  }
};

TEST_F(ReaderErrorsTest, SyntaxErrorNamesLineAndTokenThenDumpsTheNumberedFile) {
  EXPECT_THAT(ReportFor(kTarget + "  bogus entry\n}\n"),
              ElementsAre("error in configuration file at line 2 near 'bogus': syntax error",
                          "Dumping zel.conf file...", "1: target iqn.2024-01.org.example:t {",
                          "2:   bogus entry", "3: }"));
  EXPECT_THAT(LoggedWith("Failed to parse config file"),
              ElementsAre(StartsWith("Failed to parse config file " + path_ + ": ")));
}

TEST_F(ReaderErrorsTest, DumpMasksCredentialSecretsButKeepsUserNames) {
  EXPECT_THAT(ReportFor("auth-group g {\n chap \"u1\" \"QWJjZGVmZ2gjMTIz\"\n"
                        " chap-mutual \"u2\" \"QUJD\" \"m2\" \"REVG\"\n}\n}\n"),
              ElementsAre("error in configuration file at line 5 near '}': syntax error",
                          "Dumping zel.conf file...", "1: auth-group g {",
                          "2:  chap \"u1\" \"****************\"",
                          "3:  chap-mutual \"u2\" \"****\" \"m2\" \"****\"", "4: }",
                          "5: }"));
}

TEST_F(ReaderErrorsTest, LinesAreCountedAcrossBlankLinesAndQuotedStrings) {
  EXPECT_THAT(ReportFor("\n\noption a \"b c\"\n\n}\n"),
              ElementsAre("error in configuration file at line 5 near '}': syntax error",
                          "Dumping zel.conf file...", "1: ", "2: ", "3: option a \"b c\"",
                          "4: ", "5: }"));
}

TEST_F(ReaderErrorsTest, OverlongLinesAreDumpedInPiecesUnderTheirOwnNumber) {
  std::vector<std::string> report =
      ReportFor("generation 1\noption x " + std::string(2500, 'a') + "\n{\n");
  // 2509 characters: pieces of 1023, 1023 and 463.
  ASSERT_THAT(report, SizeIs(7));
  EXPECT_EQ("error in configuration file at line 3 near '{': syntax error", report[0]);
  EXPECT_EQ("1: generation 1", report[2]);
  EXPECT_THAT(report[3], StartsWith("2: option x aaa"));
  EXPECT_THAT(report[4], StartsWith("2: aaa"));
  EXPECT_THAT(report[5], StartsWith("2: aaa"));
  EXPECT_EQ("3: {", report[6]);
}

TEST_F(ReaderErrorsTest, ScannerRefusesWhatIsNeitherWordNorQuotedString) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"generation 1\n$\n", "at line 2 near '$'"},
      {"option a \"unterminated\n", "at line 1 near '\"'"},
      {std::string("option a \"x\0y\"\n", 15), "at line 1 near '\"'"},
      {"option a b\r\n", "at line 1 near '\r'"},
      {"TARGET iqn.2024-01.org.example:t {\n}\n", "at line 1 near 'TARGET'"},
      {"; generation 1\n", "at line 1 near ';'"},
      {"auth-group ag { ; }\n", "at line 1 near ';'"},
  };
  for (const auto& [text, where] : cases) {
    host_.Log().Clear();
    std::vector<std::string> report = ReportFor(text);
    ASSERT_FALSE(report.empty()) << text;
    EXPECT_EQ("error in configuration file " + where + ": syntax error", report[0]);
  }
}

TEST_F(ReaderErrorsTest, EndOfFileInsideABlockIsASyntaxError) {
  std::vector<std::string> report = ReportFor(kTarget + " lun 0 {\n");
  ASSERT_FALSE(report.empty());
  EXPECT_THAT(report[0], StartsWith("error in configuration file at line 3 near '"));
  EXPECT_THAT(report[0], ::testing::EndsWith("': syntax error"));
}

TEST_F(ReaderErrorsTest, BadNumbersAreReportedWithTheirLine) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"generation x1\n", "at line 1 near 'x1'"},
      {"\ndebug 1x\n", "at line 2 near '1x'"},
      {"timeout 4294967296\n", "at line 1 near '4294967296'"},
      {"portal-group pg {\n tag 65536\n}\n", "at line 2 near '65536'"},
      {kTarget + " lun 256 shared\n}\n", "at line 2 near 'shared'"},
      {kTarget + " lun 0 {\n  path p\n  size 16e\n }\n}\n", "at line 4 near '16e'"},
      {kTarget + " lun 0 {\n  blocksize 2147483648\n }\n}\n", "at line 3 near '2147483648'"},
  };
  for (const auto& [text, where] : cases) {
    host_.Log().Clear();
    std::vector<std::string> report = ReportFor(text);
    ASSERT_FALSE(report.empty()) << text;
    EXPECT_EQ("error in configuration file " + where + ": invalid numeric value", report[0]);
    EXPECT_EQ("Dumping zel.conf file...", report[1]);
  }
}

TEST_F(ReaderErrorsTest, LunNumberBeyondTheTableIsABadNumber) {
  // The number is checked once the block opens, so the report names the
  // brace that follows it.
  std::vector<std::string> report = ReportFor(kTarget + " lun 256 {\n }\n}\n");
  ASSERT_FALSE(report.empty());
  EXPECT_EQ("error in configuration file at line 2 near '{': invalid numeric value", report[0]);
}

TEST_F(ReaderErrorsTest, UnknownDeviceTypeIsReportedWithItsLine) {
  for (const char* word : {"tape", "16", "-1", "\"\""}) {
    host_.Log().Clear();
    std::vector<std::string> report =
        ReportFor(kTarget + " lun 0 {\n  path p\n  device-type " + std::string(word) +
                  "\n }\n}\n");
    ASSERT_FALSE(report.empty()) << word;
    EXPECT_EQ("error in configuration file at line 4 near '" + std::string(word) +
                  "': invalid device-type value",
              report[0]);
  }
}

struct SemanticCase {
  const char* name;
  std::string text;
  std::string message;
};

class ReaderSemanticErrorsTest : public ReaderErrorsTest,
                                 public ::testing::WithParamInterface<SemanticCase> {};

TEST_P(ReaderSemanticErrorsTest, RefusesTheFileWithTheMessageAndWithoutDump) {
  // Some cases link targets to a port that an earlier conf lends.
  struct conf* old = conf_new();
  pport_new(old, "pp0", 3);
  zel::test::WriteFile(path_, GetParam().text);
  FileIODescriptor file;
  ASSERT_EQ(0, conf_file_open_share_lock(path_.c_str(), &file, 300000));
  conf_ = conf_new_from_file(&file, old);
  conf_close_file(&file);
  conf_delete(old);

  EXPECT_EQ(nullptr, conf_);
  EXPECT_TRUE(WasLogged(GetParam().message)) << ::testing::PrintToString(Logged());
  EXPECT_THAT(LoggedWith("Failed to parse config file " + path_), SizeIs(1));
  EXPECT_THAT(LoggedWith("Dumping"), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    ReaderMessages, ReaderSemanticErrorsTest,
    ::testing::Values(
        SemanticCase{"AliasTwice", kTarget + " alias a\n alias b\n}\n",
                     "alias for target " + kTargetName + " specified more than once"},
        SemanticCase{"AuthGroupTwice",
                     "auth-group ag {\n}\n" + kTarget + " auth-group ag\n auth-group ag\n}\n",
                     "auth-group for target " + kTargetName + " specified more than once"},
        SemanticCase{"AuthGroupAfterOwnAuthorisations",
                     kTarget + " auth-type none\n auth-group default\n}\n",
                     "cannot use both auth-group and explicit authorisations for target " +
                         kTargetName},
        SemanticCase{"UnknownAuthGroup", kTarget + " auth-group nope\n}\n",
                     "unknown auth-group \"nope\" for target " + kTargetName},
        SemanticCase{"AuthTypeAfterAuthGroup",
                     kTarget + " auth-group default\n auth-type none\n}\n",
                     "cannot use both auth-group and auth-type for target " + kTargetName},
        SemanticCase{"ChapAfterAuthGroup",
                     kTarget + " auth-group default\n chap u QWJjZGVmZ2gjMTIz\n}\n",
                     "cannot use both auth-group and chap for target " + kTargetName},
        SemanticCase{"ChapMutualAfterAuthGroup",
                     kTarget + " auth-group default\n chap-mutual u QWJjZGVmZ2gjMTIz v "
                               "QWJjZGVmZ2gjMTIz\n}\n",
                     "cannot use both auth-group and chap-mutual for target " + kTargetName},
        SemanticCase{"InitiatorNameAfterAuthGroup",
                     kTarget + " auth-group default\n initiator-name iqn.2024-01.org.x:i\n}\n",
                     "cannot use both auth-group and initiator-name for target " + kTargetName},
        SemanticCase{"InitiatorPortalAfterAuthGroup",
                     kTarget + " auth-group default\n initiator-portal 192.0.2.1\n}\n",
                     "cannot use both auth-group and initiator-portal for target " +
                         kTargetName},
        SemanticCase{"UnknownPortalGroup", kTarget + " portal-group nope\n}\n",
                     "unknown portal-group \"nope\" for target " + kTargetName},
        SemanticCase{"UnknownPortAuthGroup", kTarget + " portal-group default nope\n}\n",
                     "unknown auth-group \"nope\" for target " + kTargetName},
        SemanticCase{"PortalGroupLinkedTwice",
                     kTarget + " portal-group default\n portal-group default\n}\n",
                     "can't link portal-group \"default\" to target " + kTargetName},
        SemanticCase{"UnknownPort", kTarget + " port pp9\n}\n",
                     "unknown port \"pp9\" for target " + kTargetName},
        SemanticCase{"PortTakenByAnotherTarget",
                     kTarget + " port pp0\n}\ntarget iqn.2024-01.org.example:u {\n port pp0\n}\n",
                     "can't link port \"pp0\" to target \"iqn.2024-01.org.example:u\", port "
                     "already linked to some target"},
        SemanticCase{"PortNameTakenByPortalGroupLink",
                     "portal-group pp0 {\n}\n" + kTarget + " portal-group pp0\n port pp0\n}\n",
                     "can't link port \"pp0\" to target " + kTargetName},
        SemanticCase{"DiscoveryAuthGroupTwice",
                     "portal-group pg {\n discovery-auth-group default\n"
                     " discovery-auth-group default\n}\n",
                     "discovery-auth-group for portal-group \"pg\" specified more than once"},
        SemanticCase{"UnknownDiscoveryAuthGroup",
                     "portal-group pg {\n discovery-auth-group nope\n}\n",
                     "unknown discovery-auth-group \"nope\" for portal-group \"pg\""},
        SemanticCase{"InitiatorGroupDefinedAfterItsAuthGroup",
                     "auth-group ag {\n initiator-group ig\n}\ninitiator-group ig {\n}\n",
                     "Failed to add initiator-group ref \"ig\" to auth-group \"ag\". Please make "
                     "sure initiator group \"ig\" is in configuration file and it appears ahead "
                     "of auth-group \"ag\""},
        SemanticCase{"BackendTwice", kTarget + " lun 0 {\n backend block\n backend block\n}\n}\n",
                     "backend for lun " + kLun0 + " specified more than once"},
        SemanticCase{"BlocksizeTwice", kTarget + " lun 0 {\n blocksize 512\n blocksize 512\n}\n}\n",
                     "blocksize for lun " + kLun0 + " specified more than once"},
        SemanticCase{"DeviceIdTwice", kTarget + " lun 0 {\n device-id a\n device-id b\n}\n}\n",
                     "device_id for lun " + kLun0 + " specified more than once"},
        SemanticCase{"CtlLunTwice", kTarget + " lun 0 {\n ctl-lun 0\n ctl-lun 1\n}\n}\n",
                     "ctl_lun for lun " + kLun0 + " specified more than once"},
        SemanticCase{"PathTwice", kTarget + " lun 0 {\n path a\n path b\n}\n}\n",
                     "path for lun " + kLun0 + " specified more than once"},
        SemanticCase{"SerialTwice", kTarget + " lun 0 {\n serial a\n serial b\n}\n}\n",
                     "serial for lun " + kLun0 + " specified more than once"},
        SemanticCase{"SizeTwice", kTarget + " lun 0 {\n size 8\n size 8\n}\n}\n",
                     "size for lun " + kLun0 + " specified more than once"},
        SemanticCase{"LunNumberTwice",
                     "lun d {\n path p\n}\n" + kTarget + " lun 0 {\n path q\n }\n lun 0 d\n}\n",
                     "lun 0 for target " + kTargetName + " specified more than once"},
        SemanticCase{"UnknownLun", kTarget + " lun 1 nope\n}\n",
                     "unknown lun \"nope\" for target " + kTargetName},
        SemanticCase{"TargetTwice", kTarget + "}\ntarget IQN.2024-01.org.example:T {\n}\n",
                     "duplicated target \"IQN.2024-01.org.example:T\""},
        SemanticCase{"DefaultAuthGroupTwice", "auth-group default {\n}\nauth-group default {\n}\n",
                     "duplicated auth-group \"default\""},
        SemanticCase{"BuiltInAuthGroupRedefined", "auth-group no-access {\n}\n",
                     "duplicated auth-group \"no-access\""},
        SemanticCase{"DefaultPortalGroupTwice",
                     "portal-group default {\n}\nportal-group default {\n}\n",
                     "duplicated portal-group \"default\""},
        SemanticCase{"InvalidAuthType", "auth-group ag {\n auth-type bogus\n}\n",
                     "invalid auth-type \"bogus\" for auth-group \"ag\""},
        SemanticCase{"InvalidListenAddress", "portal-group pg {\n listen [::1\n}\n",
                     "invalid listen address [::1"},
        SemanticCase{"RedirectTwice", "portal-group pg {\n redirect a\n redirect b\n}\n",
                     "cannot set redirection to \"b\" for portal-group \"pg\"; already defined"},
        SemanticCase{"ConfOptionTwice", "option a 1\noption a 2\n",
                     "duplicated config option a "}),
    [](const ::testing::TestParamInfo<SemanticCase>& info) { return info.param.name; });

TEST_F(ReaderErrorsTest, FailedValidationRefusesTheFile) {
  EXPECT_EQ(nullptr, Read(kTarget + " lun 0 {\n backend block\n }\n}\n"));
  EXPECT_TRUE(WasLogged("missing path for lun " + kLun0));
  EXPECT_THAT(LoggedWith("failed to validate configuration"),
              ElementsAre(StartsWith("failed to validate configuration " + path_ + ": ")));
}

TEST_F(ReaderErrorsTest, RefusedFileIsNeverHalfLoaded) {
  const int descriptors = OpenDescriptors();
  EXPECT_EQ(nullptr, Read("portal-group pg {\n listen nok1\n}\n" + kTarget +
                          " portal-group pg\n chap-mutual a b c\n}\n"));
  EXPECT_EQ(nullptr, zeld_reader.conf);
  EXPECT_EQ(nullptr, zeld_reader.target);
  EXPECT_EQ(nullptr, zeldParser_in);
  EXPECT_EQ(descriptors, OpenDescriptors());

  // Nothing of the refused file leaks into the next read.
  ASSERT_NE(nullptr, Read("generation 5\n"));
  EXPECT_EQ(5u, conf_->conf_generation);
  EXPECT_EQ(nullptr, portal_group_find(conf_, "pg"));
  EXPECT_TRUE(TAILQ_EMPTY(&conf_->conf_targets));
}

}  // namespace
