// A fresh conf per test, the configuration log at its most verbose, and its lines.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "conf/conf.h"
#include "support/Messages.h"
#include "support/TestHost.h"

namespace zel {
namespace test {

class ConfFixture : public ::testing::Test {
 protected:
  ConfFixture() { log_init(5); }
  ~ConfFixture() override {
    conf_delete(conf_);
    log_init(5);
  }
  // The configuration layer's lines, without their "ZELD: " prefix.
  std::vector<std::string> Logged() {
    std::vector<std::string> lines;
    for (const std::string& line : host_.Log().Texts()) {
      EXPECT_EQ(0u, line.rfind("ZELD: ", 0)) << line;
      lines.push_back(line.substr(6));
    }
    return lines;
  }
  bool WasLogged(const std::string& text) { return host_.Log().Contains("ZELD: " + text); }
  ScopedTestHost host_;
  struct conf* conf_ = conf_new();
};

}  // namespace test
}  // namespace zel
