// zelctl conf as an operator runs it: exit codes, what goes to stdout and
// what to stderr.
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/Process.h"
#include "support/TestHost.h"

namespace {

using ::testing::HasSubstr;
using zel::test::ProcessResult;
using zel::test::RunProgram;

class ZelctlConfTest : public ::testing::Test {
 protected:
  ProcessResult Zelctl(std::vector<std::string> args) {
    args.insert(args.begin(), {ZELCTL_PATH, "--home", home_.Path()});
    return RunProgram(args);
  }
  std::string Conf(const std::string& name, const std::string& text) {
    const std::string path = home_.Path() + "/" + name;
    zel::test::WriteFile(path, text, 0600);
    return path;
  }

  zel::test::TempHome home_;
  const std::string sample_ = std::string(ZEL_SAMPLES_DIR) + "/zel.conf";
};

TEST_F(ZelctlConfTest, SampleChecksCleanAndFormatsToItself) {
  const std::string copy = Conf("sample.conf", zel::test::ReadFile(sample_));
  const ProcessResult check = Zelctl({"conf", "check", copy});
  EXPECT_EQ(check.exitCode, 0);
  EXPECT_EQ(check.err, "");

  const ProcessResult fmt = Zelctl({"conf", "fmt", copy});
  EXPECT_EQ(fmt.exitCode, 0);
  EXPECT_EQ(fmt.out, zel::test::ReadFile(sample_));
}

TEST_F(ZelctlConfTest, CheckPrintsTheReadersWarningsOnePerLine) {
  const std::string file = Conf("warn.conf", "generation 1\nauth-group unused {\n}\n");
  chmod(file.c_str(), 0644);
  const ProcessResult check = Zelctl({"conf", "check", file});
  EXPECT_EQ(check.exitCode, 0);
  EXPECT_EQ(check.err, "ZELD: " + file + " is world-readable\n" +
                           "ZELD: auth-group \"unused\" not assigned to any target\n");
}

TEST_F(ZelctlConfTest, CheckRefusesASyntaxErrorNamingLineAndToken) {
  const std::string file = Conf("bad.conf", "generation 1\ntarget {\n}\n");
  const ProcessResult check = Zelctl({"conf", "check", file});
  EXPECT_EQ(check.exitCode, 1);
  EXPECT_THAT(check.err, HasSubstr("error in configuration file at line 2 near '{': syntax error"));
  EXPECT_THAT(check.err, HasSubstr("Failed to read conf file: " + file));
}

TEST_F(ZelctlConfTest, FormatFailurePrintsNothingOnStdout) {
  // 24 secret bytes need 32 Base64 characters: one more than fits.
  const std::string file =
      Conf("long.conf", "generation 1\nauth-group g {\n chap \"u\" \"" +
                            std::string("c2VjcmV0c2VjcmV0c2VjcmV0c2VjcmV0") + "\"\n}\n");
  const ProcessResult fmt = Zelctl({"conf", "fmt", file});
  EXPECT_EQ(fmt.exitCode, 1);
  EXPECT_EQ(fmt.out, "");
  EXPECT_THAT(fmt.err, HasSubstr("Base64_Encode failed: Unexpected encoding size"));
}

TEST_F(ZelctlConfTest, VerboseShowsInfoAndDebugLines) {
  const std::string copy = Conf("sample.conf", zel::test::ReadFile(sample_));
  const ProcessResult check = Zelctl({"-v", "conf", "check", copy});
  EXPECT_EQ(check.exitCode, 0);
  EXPECT_THAT(check.err, HasSubstr("Parser: Initializing ZEL parser lib"));
  EXPECT_THAT(check.err, HasSubstr("ZELD: share lock succeeded for config file " + copy));
}

TEST_F(ZelctlConfTest, UsageErrorsExitTwoAndHelpExitsZero) {
  EXPECT_EQ(Zelctl({"conf", "check"}).exitCode, 2);
  EXPECT_EQ(Zelctl({"conf", "frobnicate"}).exitCode, 2);
  const ProcessResult help = Zelctl({"conf", "fmt", "--help"});
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_THAT(help.out, HasSubstr("FILE"));
}

}  // namespace
