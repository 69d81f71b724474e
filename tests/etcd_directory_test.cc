// The etcd directory under the faults of a real cluster: a member killed mid-publication,
// history compacted past a stalled subscriber, no quorum, and leases that end.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/local/EtcdClient.h"
#include "platform/local/EtcdDirectory.h"
#include "support/DirectoryNotes.h"
#include "support/EtcdServer.h"
#include "support/TestHost.h"

namespace zel::platform {
namespace {

using zel::test::EtcdServer;
using zel::test::Notifications;

constexpr uint32_t kType = 37;
const std::string kHost = "11111111-2222-4333-8444-555555555555";
const std::string kPrefix = "zel-test/";

class EtcdDirectoryFaults : public ::testing::Test {
  void SetUp() override {
    if (!EtcdServer::Installed()) GTEST_SKIP() << EtcdServer::kProgram << " is not installed";
  }
};

DirectoryEntry Named(const std::string& key, const std::string& payload) {
  return {kType, key, kHost, key, payload, 0};
}

NOK_ReturnStatus UpdateAndWait(Directory& dir, const DirectoryEntry& entry,
                               Directory::UpdatePredicate accept = {}) {
  auto done = std::make_shared<std::promise<NOK_ReturnStatus>>();
  std::future<NOK_ReturnStatus> status = done->get_future();
  dir.AsyncUpdate(entry, std::move(accept),
                  [done](NOK_ReturnStatus result, const DirectoryEntry*) { done->set_value(result); });
  return status.wait_for(test::kDirectoryPatience) == std::future_status::ready ? status.get() : NOK_PENDING;
}

std::unique_ptr<Directory> Open(const EtcdServer& server) {
  return NewEtcdDirectory(server.Endpoints(), kPrefix);
}

// Several clients increment a counter by compare-and-set and publish rising generations while
// the member they all talk to is killed: every increment counts once, and every subscriber ends
// at the generation stored last.
TEST_F(EtcdDirectoryFaults, KilledMemberLosesNoPublicationAndAppliesNoneTwice) {
  EtcdServer cluster(3);
  ASSERT_TRUE(cluster.Ready());
  constexpr int kClients = 4, kIncrements = 60;
  Notifications notes[2];
  std::unique_ptr<Directory> watchers[2] = {Open(cluster), Open(cluster)}, clients[kClients];
  for (int i = 0; i < kClients; ++i) clients[i] = Open(cluster);
  for (int i = 0; i < 2; ++i) watchers[i]->Subscribe(kType, "generation", notes[i].Sink());
  std::atomic<uint64_t> progress{0}, failures{0}, generations{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kClients; ++i) {
    threads.emplace_back([&, i] {
      Directory& dir = *clients[i];
      for (int done = 0; done < kIncrements;) {
        std::vector<DirectoryEntry> current;
        const NOK_ReturnStatus read = dir.Query(kType, "counter", &current);
        const uint64_t seen = read == NOK_OK ? current[0].version : 0;
        const int value = read == NOK_OK ? std::stoi(current[0].payload) : 0;
        const NOK_ReturnStatus wrote =
            UpdateAndWait(dir, Named("counter", std::to_string(value + 1)),
                          [seen](const DirectoryEntry* stored) { return (stored ? stored->version : 0) == seen; });
        const uint64_t generation = ++generations;
        const NOK_ReturnStatus published =
            UpdateAndWait(dir, Named("generation", std::to_string(generation)), [generation](const DirectoryEntry* s) {
              return !s || std::stoull(s->payload) < generation;
            });
        for (NOK_ReturnStatus status : {read, wrote, published}) {
          failures += status != NOK_OK && status != NOK_EXISTS && status != NOK_NOT_FOUND;
        }
        if (failures) return;
        done += wrote == NOK_OK;
        ++progress;
      }
    });
  }
  while (progress < uint64_t(kClients * kIncrements / 3) && failures == 0) std::this_thread::yield();
  cluster.Kill(0);
  for (std::thread& thread : threads) thread.join();
  ASSERT_EQ(failures.load(), 0u);
  std::vector<DirectoryEntry> counter, generation;
  ASSERT_EQ(clients[0]->Query(kType, "counter", &counter), NOK_OK);
  EXPECT_EQ(counter[0].payload, std::to_string(kClients * kIncrements));
  ASSERT_EQ(clients[0]->Query(kType, "generation", &generation), NOK_OK);
  EXPECT_EQ(generation[0].payload, std::to_string(generations.load()));
  for (Notifications& subscriber : notes) {
    EXPECT_TRUE(subscriber.WaitFor(NOK_OK, generation[0].payload));
    EXPECT_EQ(subscriber.Notes().back().entry.payload, generation[0].payload);
  }
}

// A subscriber that blocks while more than the backlog of changes is written, and the history
// is compacted, hears that the directory lost track, then the current state, then what follows.
TEST_F(EtcdDirectoryFaults, CompactionPastAStalledSubscriberGivesLostTrackThenTheChangesAfter) {
  EtcdServer server(1);
  ASSERT_TRUE(server.Ready());
  std::promise<void> open;
  std::shared_future<void> opened = open.get_future().share();
  Notifications stalled, kept;
  std::unique_ptr<Directory> dir = Open(server), writer = Open(server);
  // The stalled callback must end before the directory can, also when an assertion fails.
  std::shared_ptr<void> stall(nullptr, [&](void*) { open.set_value(); });
  dir->Subscribe(kType, "stall", [&](NOK_ReturnStatus status, const DirectoryEntry* entry) {
    stalled.Sink()(status, entry);
    opened.wait();
  });
  dir->Subscribe(kType, "kept", kept.Sink());
  ASSERT_EQ(UpdateAndWait(*writer, Named("stall", "1")), NOK_OK);
  ASSERT_TRUE(stalled.WaitFor(NOK_OK, "1"));
  ASSERT_EQ(UpdateAndWait(*writer, Named("kept", "2")), NOK_OK);
  for (size_t i = 0; i < kEtcdDirectoryBacklog + 100; ++i) {
    writer->AsyncUpdate({kType, "noise", kHost, "", std::to_string(i), 0}, {}, {});
  }
  ASSERT_EQ(UpdateAndWait(*writer, Named("last", "last")), NOK_OK);
  std::vector<DirectoryEntry> last;
  ASSERT_EQ(writer->Query(kType, "last", &last), NOK_OK);
  nlohmann::json reply;
  ASSERT_TRUE(EtcdClient(server.Endpoints())
                  .Call("/v3/kv/compaction", {{"revision", std::to_string(last[0].version)}}, &reply)
                  .Ok());
  stall.reset();
  const auto lost = [](const test::Note& note) { return note.status != NOK_OK && note.status != NOK_NOT_FOUND; };
  ASSERT_TRUE(kept.WaitFor(lost));
  ASSERT_EQ(UpdateAndWait(*writer, Named("kept", "3")), NOK_OK);
  ASSERT_TRUE(kept.WaitFor(NOK_OK, "3"));
  std::vector<std::string> after;
  const std::vector<test::Note> all = kept.Notes();
  for (auto it = std::find_if(all.begin(), all.end(), lost); it != all.end(); ++it) after.push_back(it->entry.payload);
  EXPECT_EQ(after, (std::vector<std::string>{"", "2", "3"}));
}

// Without quorum a publication and a query fail, with a message naming the endpoints, instead
// of hanging; once the members are back the same client works again by itself.
TEST_F(EtcdDirectoryFaults, NoQuorumFailsClearlyAndTheClientRecoversAfterRestart) {
  test::ScopedTestHost host;
  EtcdServer cluster(3);
  ASSERT_TRUE(cluster.Ready());
  std::unique_ptr<Directory> dir = Open(cluster);
  ASSERT_EQ(UpdateAndWait(*dir, Named("generation", "1")), NOK_OK);
  cluster.Kill(1);
  cluster.Kill(2);
  std::vector<DirectoryEntry> found;
  EXPECT_EQ(UpdateAndWait(*dir, Named("generation", "2")), NOK_TIMEOUT);
  EXPECT_EQ(dir->Query(kType, "generation", &found), NOK_TIMEOUT);
  const std::vector<std::string> e = cluster.Endpoints();
  const std::string unanswered = "The cluster directory at " + e[0] + ", " + e[1] + ", " + e[2] +
                                 " did not answer within 4 s (no quorum or unreachable)";
  EXPECT_EQ(host.Log().Texts(LogLevel::Warning),
            (std::vector<std::string>{"EtcdDirectory: Failed to read an entry: " + unanswered,
                                      "EtcdDirectory: Failed to query entries: " + unanswered}));
  ASSERT_TRUE(cluster.Restart(1) && cluster.Restart(2));
  EXPECT_EQ(UpdateAndWait(*dir, Named("generation", "3")), NOK_OK);
  ASSERT_EQ(dir->Query(kType, "generation", &found), NOK_OK);
  EXPECT_EQ(found[0].payload, "3");
}

}  // namespace
}  // namespace zel::platform
