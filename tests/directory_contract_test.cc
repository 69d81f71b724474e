// What every cluster directory backend owes its callers (queries, compare-and-set, identities,
// deletes, subscriptions; each contract test runs against every backend), and what the
// embedded backend adds: processes sharing it and subscribers behind the change history.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include "platform/Directory.h"
#include "platform/local/EtcdDirectory.h"
#include "platform/local/SqliteDirectory.h"
#include "support/DirectoryNotes.h"
#include "support/EtcdServer.h"
#include "support/Process.h"
#include "support/TestHost.h"

namespace zel::platform {
namespace {

using zel::test::Note;
using zel::test::Notifications;

constexpr auto kPatience = zel::test::kDirectoryPatience;
constexpr uint32_t kConfigType = 37;
constexpr uint32_t kInterfaceType = 38;
const std::string kNamespace = "8f3b6c1e-52d4-4a0b-9c7e-1d2f3a4b5c6d";
const std::string kOtherNamespace = "0a1b2c3d-4e5f-4061-8293-a4b5c6d7e8f9";
const std::string kHostA = "11111111-2222-4333-8444-555555555555";
const std::string kHostB = "66666666-7777-4888-9999-aaaaaaaaaaaa";

DirectoryEntry Entry(uint32_t type, const std::string& key, const std::string& owner,
                     const std::string& entryId, const std::string& payload) {
  return {type, key, owner, entryId, payload, 0};
}
DirectoryEntry Generation(const std::string& key, const std::string& payload,
                          const std::string& owner = kHostA) {
  return Entry(kConfigType, key, owner, "generation", payload);
}

// "type:key/entryId=payload@owner" of an entry, or of each entry in order.
std::string Text(const DirectoryEntry& e) {
  return std::to_string(e.type) + ":" + e.key + "/" + e.entryId + "=" + e.payload + "@" + e.ownerHost;
}
std::vector<std::string> Texts(const std::vector<DirectoryEntry>& entries) {
  std::vector<std::string> texts;
  for (const DirectoryEntry& entry : entries) texts.push_back(Text(entry));
  return texts;
}

struct Outcome {
  NOK_ReturnStatus status;
  std::optional<DirectoryEntry> entry;  // what the completion was given
};

Outcome UpdateAndWait(Directory& directory, const DirectoryEntry& entry,
                      Directory::UpdatePredicate accept = {}) {
  auto promise = std::make_shared<std::promise<Outcome>>();
  std::future<Outcome> outcome = promise->get_future();
  directory.AsyncUpdate(entry, std::move(accept),
                        [promise](NOK_ReturnStatus status, const DirectoryEntry* stored) {
                          promise->set_value({status, stored ? std::optional<DirectoryEntry>(*stored)
                                                             : std::nullopt});
                        });
  if (outcome.wait_for(kPatience) != std::future_status::ready) return {NOK_TIMEOUT, std::nullopt};
  return outcome.get();
}
NOK_ReturnStatus Put(Directory& directory, const DirectoryEntry& entry) {
  return UpdateAndWait(directory, entry).status;
}

// The publishers' rule: a generation is written only over an older one.
Directory::UpdatePredicate OnlyOverOlder(uint64_t generation) {
  return [generation](const DirectoryEntry* stored) {
    return !stored || std::stoull(stored->payload) < generation;
  };
}

// The optimistic counter: read, write under a predicate on the version read, retry on
// refusal. False when the directory failed.
bool IncrementWithCas(Directory& dir, int times) {
  for (int done = 0; done < times;) {
    std::vector<DirectoryEntry> current;
    NOK_ReturnStatus queried = dir.Query(kConfigType, "counter", &current);
    if (queried != NOK_OK && queried != NOK_NOT_FOUND) return false;
    uint64_t seen = queried == NOK_OK ? current[0].version : 0;
    int value = queried == NOK_OK ? std::stoi(current[0].payload) : 0;
    NOK_ReturnStatus status =
        UpdateAndWait(dir, Entry(kConfigType, "counter", kHostA, "counter", std::to_string(value + 1)),
                      [seen](const DirectoryEntry* stored) { return (stored ? stored->version : 0) == seen; })
            .status;
    if (status != NOK_OK && status != NOK_EXISTS) return false;
    done += status == NOK_OK;
  }
  return true;
}

// Holds callbacks, as a slow subscriber would, until the test opens it.
struct Gate {
  std::promise<void> held, open;
  std::shared_future<void> opened = open.get_future().share();
  std::atomic<bool> holding{false};
  void Hold() {
    if (!holding.exchange(true)) held.set_value();
    opened.wait();
  }
  bool AwaitHeld() { return held.get_future().wait_for(kPatience) == std::future_status::ready; }
  void Open() { open.set_value(); }
};

// A fresh, empty store; every Open is another client of it, as another process or host is.
class DirectoryStore {
 public:
  virtual ~DirectoryStore() = default;
  virtual std::unique_ptr<Directory> Open() = 0;
};

class SqliteStore final : public DirectoryStore {
  test::TempHome dir_;

 public:
  std::unique_ptr<Directory> Open() override { return NewSqliteDirectory(dir_.Path() + "/directory.db"); }
};

// One member; every client works under the same random prefix, as the hosts of one cluster do.
class EtcdStore final : public DirectoryStore {
  test::EtcdServer server_;
  const std::string prefix_ = "zel-test/" + boost::uuids::to_string(boost::uuids::random_generator()());

 public:
  std::unique_ptr<Directory> Open() override {
    return server_.Ready() ? NewEtcdDirectory(server_.Endpoints(), prefix_) : nullptr;
  }
};

struct Backend {
  std::string name;
  std::function<std::unique_ptr<DirectoryStore>()> newStore;
  std::function<bool()> installed = [] { return true; };
};

void PrintTo(const Backend& backend, std::ostream* out) { *out << backend.name; }

class DirectoryContract : public ::testing::TestWithParam<Backend> {
 protected:
  void SetUp() override {
    if (!GetParam().installed()) GTEST_SKIP() << GetParam().name << " is not installed on this machine";
    store_ = GetParam().newStore();
    directory_ = store_->Open();
    ASSERT_NE(directory_, nullptr);
  }
  std::unique_ptr<Directory> OpenAnother() {
    std::unique_ptr<Directory> other = store_->Open();
    EXPECT_NE(other, nullptr);
    return other;
  }
  std::unique_ptr<DirectoryStore> store_;
  std::unique_ptr<Directory> directory_;
};

// Queries by key give that type and key ordered by identity, by host what it owns now ordered
// by key; nothing found is NOT_FOUND with the output emptied.
TEST_P(DirectoryContract, QueriesByKeyAndByHostAndDeletesTouchOnlyWhatTheyName) {
  Directory& dir = *directory_;
  ASSERT_EQ(Put(dir, Entry(kInterfaceType, kHostA, kHostA, "vmk2", "10.0.0.2")), NOK_OK);
  ASSERT_EQ(Put(dir, Entry(kInterfaceType, kHostA, kHostA, "vmk1", "10.0.0.1")), NOK_OK);
  ASSERT_EQ(Put(dir, Entry(kInterfaceType, kHostB, kHostB, "vmk1", "10.0.0.9")), NOK_OK);
  ASSERT_EQ(Put(dir, Entry(kConfigType, kHostA, kHostA, "vmk1", "7")), NOK_OK);
  std::vector<DirectoryEntry> found;
  ASSERT_EQ(dir.Query(kInterfaceType, kHostA, &found), NOK_OK);
  const std::string vmk1 = "38:" + kHostA + "/vmk1=10.0.0.1@" + kHostA;
  const std::string vmk2 = "38:" + kHostA + "/vmk2=10.0.0.2@" + kHostA;
  EXPECT_EQ(Texts(found), (std::vector<std::string>{vmk1, vmk2}));
  ASSERT_EQ(Put(dir, Entry(kInterfaceType, "key-b", kHostA, "e1", "b")), NOK_OK);
  ASSERT_EQ(Put(dir, Entry(kInterfaceType, "key-a", kHostA, "e1", "a")), NOK_OK);
  ASSERT_EQ(dir.QueryByHost(kInterfaceType, kHostA, &found), NOK_OK);
  const std::string keyA = "38:key-a/e1=a@" + kHostA, keyB = "38:key-b/e1=b@" + kHostA;
  EXPECT_EQ(Texts(found), (std::vector<std::string>{vmk1, vmk2, keyA, keyB}));
  ASSERT_EQ(Put(dir, Entry(kInterfaceType, "key-a", kHostB, "e1", "a")), NOK_OK);
  ASSERT_EQ(dir.QueryByHost(kInterfaceType, kHostA, &found), NOK_OK);
  EXPECT_EQ(Texts(found), (std::vector<std::string>{vmk1, vmk2, keyB}));
  ASSERT_EQ(dir.QueryByHost(kInterfaceType, kHostB, &found), NOK_OK);
  EXPECT_EQ(found.size(), 2u);
  for (const auto& [byHost, type, key] :
       {std::make_tuple(false, kConfigType, kOtherNamespace),
        std::make_tuple(false, kConfigType, std::string("key-a")),
        std::make_tuple(true, kConfigType, kHostB)}) {
    found.assign(1, Entry(1, "stale", "stale", "stale", "stale"));
    EXPECT_EQ(byHost ? dir.QueryByHost(type, key, &found) : dir.Query(type, key, &found),
              NOK_NOT_FOUND) << key;
    EXPECT_TRUE(found.empty()) << key;
  }
  EXPECT_EQ(dir.Delete(kInterfaceType, kHostA, "vmk1"), NOK_OK);
  ASSERT_EQ(dir.Query(kInterfaceType, kHostA, &found), NOK_OK);
  EXPECT_EQ(Texts(found), (std::vector<std::string>{vmk2}));
  EXPECT_EQ(dir.Delete(kInterfaceType, kHostA, "vmk1"), NOK_NOT_FOUND);
  EXPECT_EQ(dir.Delete(kConfigType, kHostA, "vmk2"), NOK_NOT_FOUND);
  EXPECT_EQ(dir.Delete(kInterfaceType, kHostA, "vmk2"), NOK_OK);
  EXPECT_EQ(dir.Query(kInterfaceType, kHostA, &found), NOK_NOT_FOUND);
  EXPECT_EQ(dir.Query(kConfigType, kHostA, &found), NOK_OK);
}

// An empty identity makes a fresh UUID, a given one is used as it is; an
// update of an identity replaces that entry with a later version.
TEST_P(DirectoryContract, IdentitiesAreFreshUuidsOrGivenNamesAndKeptAcrossUpdates) {
  Directory& dir = *directory_;
  int sawNothing = 0;
  const auto firstTime = [&sawNothing](const DirectoryEntry* stored) {
    sawNothing += stored == nullptr;
    return true;
  };
  const Outcome fresh = UpdateAndWait(dir, Entry(kConfigType, kNamespace, kHostA, "", "1"), firstTime);
  const Outcome another = UpdateAndWait(dir, Entry(kConfigType, kNamespace, kHostA, "", "2"));
  const Outcome named = UpdateAndWait(dir, Generation(kNamespace, "3"), firstTime);
  ASSERT_TRUE(fresh.entry && another.entry && named.entry);
  EXPECT_EQ(sawNothing, 2);
  static const std::regex uuid("[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}");
  EXPECT_TRUE(std::regex_match(fresh.entry->entryId, uuid)) << fresh.entry->entryId;
  EXPECT_NE(fresh.entry->entryId, another.entry->entryId);
  EXPECT_EQ(named.entry->entryId, "generation");
  DirectoryEntry change = *fresh.entry;
  change.payload = "7";
  const Outcome replaced = UpdateAndWait(dir, change);
  ASSERT_TRUE(replaced.status == NOK_OK && replaced.entry);
  EXPECT_EQ(replaced.entry->entryId, fresh.entry->entryId);
  EXPECT_GT(replaced.entry->version, named.entry->version);
  std::vector<DirectoryEntry> found;
  ASSERT_EQ(dir.Query(kConfigType, kNamespace, &found), NOK_OK);
  ASSERT_EQ(found.size(), 3u);
  EXPECT_EQ(1, std::count_if(found.begin(), found.end(), [&](const DirectoryEntry& entry) {
              return Text(entry) == Text(change) && entry.version == replaced.entry->version;
            }));
}

TEST_P(DirectoryContract, RefusedPublicationKeepsTheStoredEntryOrCreatesNothing) {
  Directory& dir = *directory_;
  const auto never = [](const DirectoryEntry*) { return false; };
  Outcome refused = UpdateAndWait(dir, Generation(kNamespace, "1"), never);
  EXPECT_TRUE(refused.status == NOK_EXISTS && !refused.entry);
  std::vector<DirectoryEntry> found;
  EXPECT_EQ(dir.Query(kConfigType, kNamespace, &found), NOK_NOT_FOUND);
  ASSERT_EQ(Put(dir, Generation(kNamespace, "5")), NOK_OK);
  std::vector<DirectoryEntry> before;
  ASSERT_EQ(dir.Query(kConfigType, kNamespace, &before), NOK_OK);
  // A refusal leaves the stored entry, as it was, to the completion.
  for (uint64_t stale : {4u, 5u}) {
    refused = UpdateAndWait(dir, Generation(kNamespace, std::to_string(stale), kHostB),
                            OnlyOverOlder(stale));
    EXPECT_EQ(refused.status, NOK_EXISTS) << "generation " << stale;
    ASSERT_TRUE(refused.entry);
    EXPECT_EQ(refused.entry->payload, "5");
  }
  ASSERT_EQ(dir.Query(kConfigType, kNamespace, &found), NOK_OK);
  EXPECT_EQ(Texts(found), Texts(before));
  EXPECT_EQ(found[0].version, before[0].version);
  EXPECT_EQ(UpdateAndWait(dir, Generation(kNamespace, "6", kHostB), OnlyOverOlder(6)).status, NOK_OK);
}

TEST_P(DirectoryContract, ConcurrentClientsHaveOneFirstPublisherAndLoseNoIncrement) {
  constexpr int kClients = 6;
  constexpr int kIncrements = 40;
  std::vector<std::unique_ptr<Directory>> clients;
  for (int i = 0; i < kClients; ++i) clients.push_back(OpenAnother());
  std::vector<NOK_ReturnStatus> results(kClients, NOK_PENDING);
  std::vector<int> counted(kClients, 0);
  std::vector<std::thread> threads;
  for (int i = 0; i < kClients; ++i) {
    threads.emplace_back([&, i] {
      results[i] = UpdateAndWait(*clients[i], Generation(kNamespace, std::to_string(i)),
                                 [](const DirectoryEntry* stored) { return stored == nullptr; })
                       .status;
      counted[i] = IncrementWithCas(*clients[i], kIncrements);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(std::count(counted.begin(), counted.end(), 1), kClients);
  EXPECT_EQ(std::count(results.begin(), results.end(), NOK_OK), 1);
  EXPECT_EQ(std::count(results.begin(), results.end(), NOK_EXISTS), kClients - 1);
  std::vector<DirectoryEntry> found;
  ASSERT_EQ(directory_->Query(kConfigType, kNamespace, &found), NOK_OK);
  EXPECT_EQ(found.size(), 1u);
  ASSERT_EQ(directory_->Query(kConfigType, "counter", &found), NOK_OK);
  EXPECT_EQ(Texts(found), (std::vector<std::string>{"37:counter/counter=" +
                                                    std::to_string(kClients * kIncrements) + "@" + kHostA}));
}

TEST_P(DirectoryContract, EveryIssuedUpdateCompletesBeforeTheDirectoryIsGone) {
  constexpr int kUpdates = 50;
  std::atomic<int> succeeded{0};
  for (int i = 0; i < kUpdates; ++i) {
    directory_->AsyncUpdate(Entry(kInterfaceType, kHostA, kHostA, "", std::to_string(i)), {},
                            [&succeeded](NOK_ReturnStatus status, const DirectoryEntry*) {
                              if (status == NOK_OK) ++succeeded;
                            });
  }
  directory_.reset();
  EXPECT_EQ(succeeded.load(), kUpdates);
  std::vector<DirectoryEntry> found;
  ASSERT_EQ(OpenAnother()->Query(kInterfaceType, kHostA, &found), NOK_OK);
  EXPECT_EQ(found.size(), size_t(kUpdates));
}

// Changes of other keys and types stay away; changes through any client come in order,
// ending at the latest; a deletion comes as NOT_FOUND with the identity.
TEST_P(DirectoryContract, SubscriberSeesEveryChangeOfItsKeyInOrderAndNoOther) {
  Notifications notes;
  std::unique_ptr<Directory> writer = OpenAnother();
  directory_->Subscribe(kConfigType, kNamespace, notes.Sink());
  ASSERT_EQ(Put(*writer, Generation(kOtherNamespace, "other", kHostB)), NOK_OK);
  ASSERT_EQ(Put(*writer, Entry(kInterfaceType, kNamespace, kHostB, "generation", "type")), NOK_OK);
  constexpr int kChanges = 30;
  for (int generation = 1; generation <= kChanges; ++generation) {
    writer->AsyncUpdate(Generation(kNamespace, std::to_string(generation), kHostB), {}, {});
  }
  ASSERT_TRUE(notes.WaitFor(NOK_OK, std::to_string(kChanges)));
  EXPECT_EQ(notes.Notes().back().entry.ownerHost, kHostB);
  ASSERT_EQ(Put(*directory_, Generation(kNamespace, "1000")), NOK_OK);
  ASSERT_TRUE(notes.WaitFor(NOK_OK, "1000"));
  ASSERT_EQ(writer->Delete(kConfigType, kNamespace, "generation"), NOK_OK);
  ASSERT_TRUE(notes.WaitFor([](const Note& note) { return note.status == NOK_NOT_FOUND; }));
  const std::vector<Note> all = notes.Notes();
  int previous = 0;
  for (size_t i = 0; i + 1 < all.size(); ++i) {
    ASSERT_EQ(all[i].status, NOK_OK);
    EXPECT_EQ(std::to_string(all[i].entry.type) + ":" + all[i].entry.key, "37:" + kNamespace);
    EXPECT_GT(std::stoi(all[i].entry.payload), previous);
    previous = std::stoi(all[i].entry.payload);
  }
  EXPECT_EQ(all.back().status, NOK_NOT_FOUND);
  EXPECT_EQ(Text(all.back().entry), "37:" + kNamespace + "/generation=@" + all.back().entry.ownerHost);
}

// Unsubscribe ends a subscription at once (twice is harmless), also from a callback of its
// own or of another subscription, even for the change in progress.
TEST_P(DirectoryContract, NoCallbackAfterUnsubscribeWhoeverCallsIt) {
  Notifications dropped, victimNotes, sentinel;
  std::atomic<int> selfCalls{0};
  std::atomic<Directory::SubscriptionHandle> self{0}, victim{0};
  Directory::SubscriptionHandle handle = directory_->Subscribe(kConfigType, kNamespace, dropped.Sink());
  directory_->Unsubscribe(handle);
  directory_->Unsubscribe(handle);
  self = directory_->Subscribe(kConfigType, kNamespace, [&](NOK_ReturnStatus, const DirectoryEntry*) {
    ++selfCalls;
    directory_->Unsubscribe(self);
  });
  directory_->Subscribe(kConfigType, kNamespace, [&](NOK_ReturnStatus, const DirectoryEntry*) {
    directory_->Unsubscribe(victim);
  });
  victim = directory_->Subscribe(kConfigType, kNamespace, victimNotes.Sink());
  directory_->Subscribe(kConfigType, kNamespace, sentinel.Sink());
  ASSERT_EQ(Put(*directory_, Generation(kNamespace, "1")), NOK_OK);
  ASSERT_TRUE(sentinel.WaitFor(NOK_OK, "1"));
  ASSERT_EQ(Put(*directory_, Generation(kNamespace, "2")), NOK_OK);
  ASSERT_TRUE(sentinel.WaitFor(NOK_OK, "2"));
  EXPECT_EQ(selfCalls.load(), 1);
  EXPECT_TRUE(dropped.Notes().empty() && victimNotes.Notes().empty());
}

TEST_P(DirectoryContract, UnsubscribeWaitsForTheRunningCallback) {
  Gate gate;
  std::atomic<bool> callbackFinished{false}, finishedWhenUnsubscribed{false};
  Directory::SubscriptionHandle handle = directory_->Subscribe(
      kConfigType, kNamespace, [&](NOK_ReturnStatus, const DirectoryEntry*) {
        gate.Hold();
        callbackFinished = true;
      });
  directory_->AsyncUpdate(Generation(kNamespace, "1"), {}, {});
  ASSERT_TRUE(gate.AwaitHeld());
  std::thread unsubscriber([&] {
    directory_->Unsubscribe(handle);
    finishedWhenUnsubscribed = callbackFinished.load();
  });
  // Gives an Unsubscribe that does not wait the chance to return early; no timing assertion.
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  gate.Open();
  unsubscriber.join();
  EXPECT_TRUE(finishedWhenUnsubscribed.load());
}

// A lease holds its entries while renewed: a writer without it keeps the entry bound, a revoked
// lease takes its entries at once and one left to expire takes them within its time to live,
// each deletion seen by subscribers; a lease that is gone binds nothing new.
TEST_P(DirectoryContract, LeasedEntriesGoWithTheirLeaseAndOtherWritersKeepThemBound) {
  std::unique_ptr<Directory> other = OpenAnother();
  Directory::LeaseId revoked = 0, expiring = 0;
  ASSERT_EQ(directory_->GrantLease(60, &revoked), NOK_OK);
  ASSERT_EQ(directory_->GrantLease(1, &expiring), NOK_OK);
  ASSERT_NE(revoked, expiring);
  Notifications notes;
  other->Subscribe(kInterfaceType, kHostA, notes.Sink());
  DirectoryEntry bound = Entry(kInterfaceType, kHostA, kHostA, "vmk1", "10.0.0.1");
  bound.lease = revoked;
  Outcome written = UpdateAndWait(*directory_, bound);
  ASSERT_EQ(written.status, NOK_OK);
  EXPECT_EQ(written.entry->lease, revoked);
  ASSERT_EQ(Put(*other, Entry(kInterfaceType, kHostA, kHostB, "vmk1", "10.0.0.7")), NOK_OK);
  DirectoryEntry expires = Entry(kInterfaceType, kHostA, kHostA, "vmk2", "10.0.0.2");
  expires.lease = expiring;
  ASSERT_EQ(Put(*directory_, expires), NOK_OK);
  std::vector<DirectoryEntry> found;
  ASSERT_EQ(other->Query(kInterfaceType, kHostA, &found), NOK_OK);
  ASSERT_EQ(found.size(), 2u);
  EXPECT_EQ(found[0].lease, revoked);
  EXPECT_EQ(found[0].payload, "10.0.0.7");

  ASSERT_EQ(other->RevokeLease(revoked), NOK_OK);
  ASSERT_TRUE(notes.WaitFor([](const Note& n) { return n.status == NOK_NOT_FOUND && n.entry.entryId == "vmk1"; }));
  EXPECT_EQ(directory_->RenewLease(revoked), NOK_NOT_FOUND);
  EXPECT_EQ(directory_->RevokeLease(revoked), NOK_NOT_FOUND);
  bound.entryId = "vmk3";
  EXPECT_EQ(Put(*directory_, bound), NOK_NOT_FOUND);
  ASSERT_TRUE(notes.WaitFor([](const Note& n) { return n.status == NOK_NOT_FOUND && n.entry.entryId == "vmk2"; }));
  EXPECT_EQ(directory_->RenewLease(expiring), NOK_NOT_FOUND);
  EXPECT_EQ(other->Query(kInterfaceType, kHostA, &found), NOK_NOT_FOUND);
  EXPECT_EQ(other->QueryByHost(kInterfaceType, kHostB, &found), NOK_NOT_FOUND);
}

INSTANTIATE_TEST_SUITE_P(, DirectoryContract,
                         ::testing::Values(Backend{"Sqlite", [] { return std::make_unique<SqliteStore>(); }},
                                           Backend{"Etcd", [] { return std::make_unique<EtcdStore>(); },
                                                   test::EtcdServer::Installed}),
                         [](const ::testing::TestParamInfo<Backend>& info) { return info.param.name; });

// Other processes' changes reach this one's subscribers and compare-and-set holds between
// processes. Children are forked before this process opens the database (SQLite forbids it).
TEST(DirectoryAcrossProcesses, OtherProcessesChangesReachSubscribersAndCompareAndSetHolds) {
  constexpr int kChildren = 4;
  constexpr int kIncrements = 50;
  test::TempHome home;
  const std::string db = home.Path() + "/directory.db";
  std::vector<std::unique_ptr<test::ChildProcess>> children;
  for (int i = 0; i <= kChildren; ++i) {
    children.push_back(std::make_unique<test::ChildProcess>([&, i](test::ChildControl& control) {
      control.AwaitRelease();
      std::unique_ptr<Directory> dir = NewSqliteDirectory(db);
      if (!dir) return 10;
      if (i > 0) return IncrementWithCas(*dir, kIncrements) ? 0 : 11;
      if (Put(*dir, Generation(kNamespace, "gen 7")) != NOK_OK) return 12;
      return dir->Delete(kConfigType, kNamespace, "stale") == NOK_OK ? 0 : 13;
    }));
  }
  Notifications notes;
  std::unique_ptr<Directory> dir = NewSqliteDirectory(db);
  ASSERT_NE(dir, nullptr);
  ASSERT_EQ(Put(*dir, Entry(kConfigType, kNamespace, kHostA, "stale", "old")), NOK_OK);
  dir->Subscribe(kConfigType, kNamespace, notes.Sink());
  for (auto& child : children) child->Release();
  EXPECT_TRUE(IncrementWithCas(*dir, kIncrements));
  for (auto& child : children) EXPECT_EQ(child->Join(), 0);
  ASSERT_TRUE(notes.WaitFor(NOK_OK, "gen 7") && notes.WaitFor(NOK_NOT_FOUND, ""));
  EXPECT_EQ(notes.Notes().back().entry.entryId, "stale");
  std::vector<DirectoryEntry> found;
  ASSERT_EQ(dir->Query(kConfigType, kNamespace, &found), NOK_OK);
  EXPECT_EQ(Texts(found), (std::vector<std::string>{"37:" + kNamespace + "/generation=gen 7@" + kHostA}));
  ASSERT_EQ(dir->Query(kConfigType, "counter", &found), NOK_OK);
  EXPECT_EQ(found[0].payload, std::to_string((kChildren + 1) * kIncrements));
}

TEST(DirectorySqlite, SubscriberThatFellBehindTheHistoryGetsTheCurrentStateOfItsKeys) {
  test::TempHome home;
  Gate gate;
  Notifications kept, removed;
  std::unique_ptr<Directory> dir = NewSqliteDirectory(home.Path() + "/directory.db");
  std::unique_ptr<Directory> writer = NewSqliteDirectory(home.Path() + "/directory.db");
  ASSERT_TRUE(dir && writer);
  ASSERT_EQ(Put(*writer, Generation("removed", "1")), NOK_OK);
  dir->Subscribe(kConfigType, "stall", [&](NOK_ReturnStatus, const DirectoryEntry*) { gate.Hold(); });
  dir->Subscribe(kConfigType, "kept", kept.Sink());
  dir->Subscribe(kConfigType, "removed", removed.Sink());
  ASSERT_EQ(Put(*writer, Generation("stall", "1")), NOK_OK);
  ASSERT_TRUE(gate.AwaitHeld());
  // Meanwhile the changes to the subscribed keys drop out of the history.
  ASSERT_EQ(Put(*writer, Generation("kept", "2")), NOK_OK);
  ASSERT_EQ(writer->Delete(kConfigType, "removed", "generation"), NOK_OK);
  for (int i = 0; i < 2 * kSqliteDirectoryChangeHistory; ++i) {
    writer->AsyncUpdate(Generation("noise", std::to_string(i)), {}, {});
  }
  ASSERT_EQ(Put(*writer, Generation("noise", "last")), NOK_OK);
  gate.Open();
  EXPECT_TRUE(kept.WaitFor(NOK_OK, "2"));
  ASSERT_TRUE(removed.WaitFor(NOK_NOT_FOUND, ""));
  EXPECT_EQ(removed.Notes().back().entry.key + "/" + removed.Notes().back().entry.entryId, "removed/");
}

TEST(DirectorySqlite, NoDirectoryWhenTheDatabaseCannotBeOpened) {
  test::TempHome home;
  test::WriteFile(home.Path() + "/directory.db", std::string(4096, 'x'));
  for (const std::string db : {"/missing/directory.db", "/directory.db"}) {
    EXPECT_EQ(NewSqliteDirectory(home.Path() + db), nullptr) << db;
  }
}

}  // namespace
}  // namespace zel::platform
