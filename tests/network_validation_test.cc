// The listen interface and port of a target or of the defaults: the
// interface must be one of this host's, the port 3260 or, with an
// interface, 1024 < port <= 65535; without an interface only 3260.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "edit/NetworkValidation.h"
#include "platform/Host.h"
#include "support/FakeNetworkInterfaces.h"
#include "support/TestHost.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {
namespace {

using HostCtl::Lib::Orva::OrvaCtlException;
using zel::platform::LogLevel;

class NetworkValidationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto nics = std::make_unique<zel::test::FakeNetworkInterfaces>();
    nics_ = nics.get();
    // A state does not matter: a down interface may still be configured.
    nics_->Set("nok0", zel::platform::NOKNIC_UP);
    nics_->Set("nok1", zel::platform::NOKNIC_DOWN);
    zel::platform::CurrentHost().SetNics(std::move(nics));
  }

  // The message VerifyNetworkConfig throws, or "" when it accepts.
  static std::string Refusal(const std::string& networkInterface, int32_t port) {
    try {
      VerifyNetworkConfig(networkInterface, port);
      return "";
    } catch (const OrvaCtlException& e) {
      return e.GetMessage();
    }
  }

  zel::test::ScopedTestHost host_;
  zel::test::FakeNetworkInterfaces* nics_ = nullptr;
};

TEST_F(NetworkValidationTest, InterfaceMustBeOneOfThisHostsWhateverThePort) {
  EXPECT_EQ("", Refusal("nok1", 3260));
  EXPECT_EQ("Network interface nok9 is not available on this host", Refusal("nok9", 3260));
  EXPECT_EQ("Network interface nok9 is not available on this host", Refusal("nok9", 5000));
  // Names compare exactly.
  EXPECT_EQ("Network interface NOK0 is not available on this host", Refusal("NOK0", 3260));
  EXPECT_EQ("Network interface nok is not available on this host", Refusal("nok", 3260));
}

TEST_F(NetworkValidationTest, WithAnInterfaceThePortLiesAbove1024UpTo65535) {
  const std::string range = ", valid port range is 1024 < port <= 65535";
  EXPECT_EQ("Invalid port 1024 provided for interface nok0" + range, Refusal("nok0", 1024));
  EXPECT_EQ("", Refusal("nok0", 1025));
  EXPECT_EQ("", Refusal("nok0", 3260));
  EXPECT_EQ("", Refusal("nok0", 65535));
  EXPECT_EQ("Invalid port 65536 provided for interface nok0" + range, Refusal("nok0", 65536));
  EXPECT_EQ("Invalid port 0 provided for interface nok0" + range, Refusal("nok0", 0));
  EXPECT_EQ("Invalid port -3260 provided for interface nok0" + range, Refusal("nok0", -3260));
  EXPECT_FALSE(host_.Log().Contains("Util: Invalid port 1024 provided for interface nok0" + range));
}

TEST_F(NetworkValidationTest, WithoutAnInterfaceOnly3260PassesAndTheRefusalIsLogged) {
  EXPECT_EQ("", Refusal("", 3260));
  EXPECT_EQ("Network interface is not provided for port 3261", Refusal("", 3261));
  EXPECT_EQ("Network interface is not provided for port 1025", Refusal("", 1025));

  int errors = 0;
  for (const zel::test::LogLine& line : host_.Log().Lines()) {
    if (line.text == "Util: Network interface is not provided for port 3261") {
      EXPECT_EQ(LogLevel::Error, line.level);
      ++errors;
    }
  }
  EXPECT_EQ(1, errors);
}

TEST_F(NetworkValidationTest, WithoutAnInterfaceTheHostsInterfacesAreNotAsked) {
  nics_->FailListing("Failed to list the network interfaces of this host: Out of memory");

  EXPECT_EQ("", Refusal("", 3260));
  EXPECT_EQ("Failed to list the network interfaces of this host: Out of memory",
            Refusal("nok0", 3260));
}

}  // namespace
}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
