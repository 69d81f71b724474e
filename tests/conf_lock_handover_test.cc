// A try at zel.conf's lock while another process holds it, under a clock that
// runs in real time: the try ends when the holder lets the lock go, without
// a pause through the clock, and on the file that is at the path by then.
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "conf/reader.h"
#include "support/Process.h"
#include "support/TestHost.h"

namespace {

using zel::test::ChildControl;
using zel::test::ChildProcess;
using zel::test::FileOp;

TEST(ConfLockHandover, TryEndsWhenTheHolderLetsTheLockGo) {
  // The holder closes the file; or it first swaps a new file into place,
  // as a saving writer does, and the wait must end on that one.
  for (const bool swap : {false, true}) {
    zel::test::TempHome home;
    const std::string path = home.Path() + "/zel.conf";
    zel::test::WriteFile(path, "generation 1\n");
    auto clock = std::make_unique<zel::test::CountingSystemClock>();
    auto files = std::make_unique<zel::test::FaultyFileSystem>(zel::platform::NewPosixFileSystem());
    zel::test::CountingSystemClock& pauses = *clock;
    zel::test::FaultyFileSystem& opens = *files;
    zel::test::HostSelection selection(
        std::make_unique<zel::platform::Host>(zel::platform::EmbeddedHostConfig(home.Path()),
                                              std::move(clock),
                                              std::make_unique<zel::test::RecordingLogSink>(),
                                              std::move(files)));

    ChildProcess holder([&](ChildControl& control) {
      const int fd = open(path.c_str(), O_RDWR);
      if (fd < 0 || flock(fd, LOCK_EX) != 0) return 1;
      control.Ready();
      control.AwaitRelease();
      if (swap) {
        zel::test::WriteFile(path + ".new", "generation 2\n");
        if (rename((path + ".new").c_str(), path.c_str()) != 0) return 1;
      }
      return 0;  // exiting closes the file, which lets the lock go
    });
    ASSERT_TRUE(holder.AwaitReady());
    FileIODescriptor file;
    int result = -1;
    std::thread opener(
        [&] { result = conf_file_open_exclusive_lock(path.c_str(), &file, 300000); });
    // Let go only once the opener is at the lock (a release before would
    // prove nothing, but fail nothing either).
    while (opens.Calls(FileOp::Open) == 0) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    holder.Release();
    opener.join();

    EXPECT_EQ(0, holder.Join()) << swap;
    EXPECT_EQ(0, result) << swap;
    EXPECT_EQ(0, pauses.pauses) << swap;
    struct stat opened, current;
    ASSERT_EQ(0, fstat(file.fd, &opened));
    ASSERT_EQ(0, stat(path.c_str(), &current));
    EXPECT_EQ(current.st_ino, opened.st_ino) << swap;
    conf_close_file(&file);
  }
}

}  // namespace
