// The control thread and the cluster events on the prepared home, under the
// test clock (a pass's pause is recorded, not slept): starting once, a
// failing pass repeated without advancing, targets moved off a broken
// interface and off a host entering maintenance, the stop interrupting the
// pause; the cluster leave stopping this host's service.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <thread>

#include "directory/HostLookup.h"
#include "platform/Events.h"
#include "service/OrvaIscsiTargetImpl.h"
#include "support/Messages.h"
#include "support/ServiceHome.h"

namespace zel {
namespace test {
namespace {

using NokCtl::Orva::IscsiTarget::OrvaIscsiTargetImpl;
namespace Util = NokCtl::Orva::IscsiTarget::Util;

bool Eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

class ControlThreadTest : public ::testing::Test {
 protected:
  ControlThreadTest() {
    WriteFile(home_.Path() + "/options.json", R"({"ORVA-iSCSI": {"zelNokNicCtlEnable": 1}})");
    home_.SetHostSetting("controlTickSeconds", 1);
    services_ = home_.InstallTestHost();
    nics_ = InstallFakeNetworkInterfaces();
    nics_->Set("nok0", platform::NOKNIC_UP, "127.0.0.1");
    nics_->Set("nok1", platform::NOKNIC_UP, "127.0.0.1");
  }
  ~ControlThreadTest() override {
    OrvaIscsiTargetImpl::ZelDeinit();
    // It holds library handles of this test's host.
    OrvaIscsiTargetImpl::DropSingleton();
  }

  int Count(const std::string& text) {
    int count = 0;
    for (const std::string& line : services_.log->Texts()) {
      if (line.find(text) != std::string::npos) ++count;
    }
    return count;
  }
  std::string FinanceOwner() { return Util::GetTargetOwnerHostUuid(kFinanceUuid); }

  ServiceHome home_;
  TestServices services_;
  FakeNetworkInterfaces* nics_ = nullptr;
};

TEST_F(ControlThreadTest, OneThreadWhoseFailingPassIsRepeatedAndWhoseStopEndsThePause) {
  // The interface list fails: every pass fails after its consistency
  // check, which belongs to pass 0 and so runs again each time.
  nics_->FailListing("listing refused");
  OrvaIscsiTargetImpl::ZelInit();
  OrvaIscsiTargetImpl::ZelStartControlThread();
  EXPECT_EQ(Count("Already exists a ZelControlThread"), 1);
  const std::string check = "Consistency check: target lab";
  ASSERT_TRUE(Eventually([&] { return Count(check) >= 3; }));
  // Each failing pass was pass 0 again: its check ran before every failure.
  const int failures = Count("ZelControlThreadWorker failed with OrvaCtlException listing refused");
  EXPECT_GE(failures, 2);
  EXPECT_GE(Count(check), failures);
  OrvaIscsiTargetImpl::ZelDeinit();
  EXPECT_EQ(Count("ZelControlThreadWorker receive interrupt, quit"), 1);
  EXPECT_EQ(Count("Terminate ZelControlThread successfully"), 1);
}

TEST_F(ControlThreadTest, TargetsLeaveABrokenInterfaceAndAHostEnteringMaintenance) {
  ASSERT_EQ(FinanceOwner(), home_.HostUuid());
  nics_->SetState("nok0", platform::NOKNIC_DOWN);
  OrvaIscsiTargetImpl::ZelStartControlThread();
  EXPECT_TRUE(Eventually([&] { return FinanceOwner() == kPeerHostUuid; }));
  EXPECT_EQ(Count("nok NIC is broken, transferring targets: finance"), 1);
  OrvaIscsiTargetImpl::ZelStopControlThread();

  // Back here, then away again when this host enters maintenance; a one-node
  // cluster has nowhere to go.
  home_.AnnounceObject(kFinanceUuid, home_.HostUuid(), "finance-policy");
  platform::Events().FireHostEnterMaintenanceMode(1);
  EXPECT_EQ(Count("Skip target transfer since there is only one node."), 1);
  ASSERT_EQ(platform::CurrentHost().Cluster().SetMaintenance(true), NOK_OK);
  platform::Events().FireHostEnterMaintenanceMode(2);
  EXPECT_EQ(FinanceOwner(), kPeerHostUuid);
  EXPECT_EQ(Count("Succeed transfering all targets"), 2);
}

TEST_F(ControlThreadTest, ARefreshReachesTheNextPassAndANicChangeWhileDisabledDoesNothing) {
  home_.SetServiceEnabled(false);
  platform::Events().FireNokNicChange();
  EXPECT_EQ(Count("Handling nok nic change event"), 0);
  platform::Events().FireOrvaSystemRefresh();
  EXPECT_EQ(Count("Calling ZelOnOrvaSystemRefresh()"), 1);
  OrvaIscsiTargetImpl::ZelStartControlThread();
  EXPECT_TRUE(Eventually([&] { return Count("reload orva configs") == 1; }));
}

// Leaving the cluster stops this host's service (zeld stopped, the store saying disabled) and
// hands no target over: the owner of what this host served is the cluster's placement's to
// change. A store that refuses the change leaves the service enabled, and says why in the log.
TEST(ClusterLeaveTest, StopsTheServiceButKeepsTheTargetsAndLogsARefusedStore) {
  for (const bool storeRefuses : {false, true}) {
    SCOPED_TRACE(storeRefuses);
    ServiceHome home;
    const TestServices services = home.InstallTestHost();
    const FakeHostControl fakes = InstallFakeHostControl();
    InstallFakeNetworkInterfaces()->Set("nok0", platform::NOKNIC_UP, "127.0.0.1");
    if (storeRefuses) services.store->FailNext("SetOrvaIscsiServiceEnabled", "store is read-only");
    platform::Events().FireClusterLeave();
    EXPECT_EQ(Util::GetTargetOwnerHostUuid(kFinanceUuid), home.HostUuid());
    EXPECT_THAT(fakes.commands->CommandLines(),
                ::testing::Contains("/etc/init.d/zeld ++group=host/kap/tmp io_stop"));
    bool enabled = !storeRefuses;
    services.store->Target().GetOrvaIscsiServiceEnabled(&enabled);
    EXPECT_EQ(enabled, storeRefuses);
    EXPECT_EQ(services.log->Contains("OrvaIscsiTargetImpl: Failed to disable iSCSI target service "
                                     "(store is read-only)"),
              storeRefuses);
    OrvaIscsiTargetImpl::DropSingleton();
  }
}

}  // namespace
}  // namespace test
}  // namespace zel
