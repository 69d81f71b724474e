// Shared fixture of the reader tests: zel.conf written as a real file in a
// temporary home, opened under the shared lock and read the way ConfHandle
// reads it, with the configuration log at its most verbose.
#pragma once

#include <dirent.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "conf/conf.h"
#include "conf/reader.h"
#include "support/TestHost.h"

namespace zel {
namespace test {

class ReaderFixture : public ::testing::Test {
 protected:
  ReaderFixture() : path_(host_.Home() + "/zel.conf") { log_init(5); }
  ~ReaderFixture() override {
    if (conf_ != nullptr) conf_delete(conf_);
  }

  // Writes `text` as the file with permission bits `mode` and reads it; null
  // when the reader refused it. An exception is passed on after the reader
  // state was cleaned as ConfHandle cleans it.
  struct conf* Read(const std::string& text, int mode = 0600) {
    WriteFile(path_, text, mode);
    return ReadAgain();
  }

  // Reads the file as it is now.
  struct conf* ReadAgain() {
    if (conf_ != nullptr) conf_delete(conf_);
    conf_ = nullptr;
    FileIODescriptor file;
    EXPECT_EQ(0, conf_file_open_share_lock(path_.c_str(), &file, 300000));
    try {
      conf_ = conf_new_from_file(&file, nullptr);
    } catch (...) {
      ZeldCleanConf();
      conf_close_file(&file);
      throw;
    }
    conf_close_file(&file);
    return conf_;
  }

  // The configuration layer's lines, without their "ZELD: " prefix.
  std::vector<std::string> Logged() {
    std::vector<std::string> lines;
    for (const std::string& line : host_.Log().Texts()) {
      if (line.rfind("ZELD: ", 0) == 0) lines.push_back(line.substr(6));
    }
    return lines;
  }
  bool WasLogged(const std::string& text) { return host_.Log().Contains("ZELD: " + text); }

  // Every line that mentions `part`.
  std::vector<std::string> LoggedWith(const std::string& part) {
    std::vector<std::string> found;
    for (const std::string& line : Logged()) {
      if (line.find(part) != std::string::npos) found.push_back(line);
    }
    return found;
  }

  static int OpenDescriptors() {
    int count = 0;
    DIR* dir = opendir("/proc/self/fd");
    while (readdir(dir) != nullptr) ++count;
    closedir(dir);
    return count;
  }

  ScopedTestHost host_;
  std::string path_;
  struct conf* conf_ = nullptr;
};

}  // namespace test
}  // namespace zel
