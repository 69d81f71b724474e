// The configuration layer's log: levels, the "ZELD: " lines, the 256-byte
// cut, and the fatal paths that throw instead of ending the process.
#include <errno.h>
#include <string.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "conf/conf.h"
#include "support/TestHost.h"
#include "zel/OrvaCtlException.h"

namespace zel {
namespace test {
namespace {

using platform::LogLevel;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ConfLog : public ::testing::Test {
 protected:
  ~ConfLog() override { log_init(5); }
  std::vector<std::string> Texts() { return host_.Log().Texts(); }
  ScopedTestHost host_;
};

std::string Thrown(const std::function<void()>& fn) {
  try {
    fn();
  } catch (const HostCtl::Lib::Orva::OrvaCtlException& e) {
    return e.GetMessage();
  }
  return "nothing thrown";
}

TEST_F(ConfLog, MessagesAboveTheLevelAreDropped) {
  log_init(0);
  log_warnx("dropped");
  log_init(3);
  log_warnx("w %d", 1);
  log_info("i %s", "x");
  log_debugx("d");
  std::vector<LogLine> lines = host_.Log().Lines();
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ(LogLevel::Warning, lines[0].level);
  EXPECT_EQ("ZELD: w 1", lines[0].text);
  EXPECT_EQ(LogLevel::Info, lines[1].level);
  host_.Log().Clear();
  log_init(5);
  log_debugx("d");
  log_debugx2("d2");
  EXPECT_THAT(Texts(), ElementsAre("ZELD: d", "ZELD: d2"));
}

TEST_F(ConfLog, WarnAppendsTheErrnoTextAndLinesAreCutTo255) {
  log_init(2);
  errno = ENOENT;
  log_warn("open %s", "/x");
  log_warnx("%s", std::string(400, 'a').c_str());
  EXPECT_THAT(Texts(), ElementsAre("ZELD: open /x: " + std::string(strerror(ENOENT)),
                                   "ZELD: " + std::string(255, 'a')));
}

TEST_F(ConfLog, ErrThrowsWithTheErrnoTextThatStillFits) {
  errno = EIO;
  EXPECT_EQ("calloc (" + std::string(strerror(EIO)) + ")", Thrown([] { log_err(1, "calloc"); }));
  std::string near_full(250, 'x');
  EXPECT_EQ(near_full + " (Inp", Thrown([&] { log_err(1, "%s", near_full.c_str()); }));
  std::string full(300, 'y');
  EXPECT_EQ(full.substr(0, 255), Thrown([&] { log_err(1, "%s", full.c_str()); }));
  EXPECT_EQ("bad 7", Thrown([] { log_errx(1, "bad %d", 7); }));
  EXPECT_THAT(Texts(), IsEmpty());
}

TEST_F(ConfLog, CleanupSaysGoodbyeOnlyOnce) {
  log_init(4);
  log_cleanup();
  log_cleanup();
  EXPECT_THAT(Texts(), ElementsAre("ZELD: log cleanup."));
}

TEST_F(ConfLog, ExitWithCleanupEndsTheProcessWithTheStatus) {
  EXPECT_EXIT(exit_with_cleanup(3), ::testing::ExitedWithCode(3), "");
}

}  // namespace
}  // namespace test
}  // namespace zel
