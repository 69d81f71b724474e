// What every cluster directory backend owes its callers: queries, the
// compare-and-set of publishers, identities kept across updates, deletes and
// subscriptions. Each test runs against every backend.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/Directory.h"
#include "platform/local/SqliteDirectory.h"
#include "support/DirectoryNotes.h"

namespace zel {
namespace platform {
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
  DirectoryEntry entry;
  entry.type = type;
  entry.key = key;
  entry.ownerHost = owner;
  entry.entryId = entryId;
  entry.payload = payload;
  return entry;
}

// Lower-case 8-4-4-4-12 hex digits.
bool IsCanonicalUuid(const std::string& text) {
  if (text.size() != 36) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? text[i] != '-' : std::string("0123456789abcdef").find(text[i]) == std::string::npos) {
      return false;
    }
  }
  return true;
}

// A fresh, empty store. Every Open is another client of it, as another
// process or host would be.
class DirectoryStore {
 public:
  virtual ~DirectoryStore() = default;
  virtual std::unique_ptr<Directory> Open() = 0;
};

class SqliteStore final : public DirectoryStore {
 public:
  SqliteStore() {
    std::string pattern = (std::filesystem::temp_directory_path() / "zel-directory-XXXXXX").string();
    dir_ = mkdtemp(pattern.data()) ? pattern : std::string();
  }
  ~SqliteStore() override {
    if (!dir_.empty()) std::filesystem::remove_all(dir_);
  }
  std::unique_ptr<Directory> Open() override {
    return dir_.empty() ? nullptr : NewSqliteDirectory(dir_ + "/directory.db");
  }

 private:
  std::string dir_;
};

struct Backend {
  std::string name;
  std::function<std::unique_ptr<DirectoryStore>()> newStore;
};

void PrintTo(const Backend& backend, std::ostream* out) { *out << backend.name; }

struct Outcome {
  NOK_ReturnStatus status;
  std::optional<DirectoryEntry> entry;
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
  if (outcome.wait_for(kPatience) != std::future_status::ready) {
    ADD_FAILURE() << "the update of " << entry.key << " never completed";
    return {NOK_TIMEOUT, std::nullopt};
  }
  return outcome.get();
}

// The publishers' rule: a generation is written only over an older one.
Directory::UpdatePredicate OnlyOverOlder(uint64_t generation) {
  return [generation](const DirectoryEntry* stored) {
    return !stored || std::stoull(stored->payload) < generation;
  };
}


class DirectoryContract : public ::testing::TestWithParam<Backend> {
 protected:
  void SetUp() override {
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

TEST_P(DirectoryContract, QueryByKeyReturnsEveryEntryOfThatTypeAndKeyOnly) {
  Directory& dir = *directory_;
  ASSERT_EQ(UpdateAndWait(dir, Entry(kInterfaceType, kHostA, kHostA, "vmk2", "10.0.0.2")).status, NOK_OK);
  ASSERT_EQ(UpdateAndWait(dir, Entry(kInterfaceType, kHostA, kHostA, "vmk1", "10.0.0.1")).status, NOK_OK);
  ASSERT_EQ(UpdateAndWait(dir, Entry(kInterfaceType, kHostB, kHostB, "vmk1", "10.0.0.9")).status, NOK_OK);
  ASSERT_EQ(UpdateAndWait(dir, Entry(kConfigType, kHostA, kHostA, "vmk1", "7")).status, NOK_OK);

  std::vector<DirectoryEntry> found;
  ASSERT_EQ(dir.Query(kInterfaceType, kHostA, &found), NOK_OK);
  ASSERT_EQ(found.size(), 2u);
  EXPECT_EQ(found[0].entryId, "vmk1");
  EXPECT_EQ(found[0].payload, "10.0.0.1");
  EXPECT_EQ(found[0].ownerHost, kHostA);
  EXPECT_EQ(found[0].type, kInterfaceType);
  EXPECT_EQ(found[1].entryId, "vmk2");
  EXPECT_EQ(found[1].payload, "10.0.0.2");
}

TEST_P(DirectoryContract, QueryByHostReturnsTheEntriesThatHostOwnsNow) {
  Directory& dir = *directory_;
  ASSERT_EQ(UpdateAndWait(dir, Entry(kInterfaceType, "key-b", kHostA, "e1", "b")).status, NOK_OK);
  ASSERT_EQ(UpdateAndWait(dir, Entry(kInterfaceType, "key-a", kHostA, "e1", "a")).status, NOK_OK);
  ASSERT_EQ(UpdateAndWait(dir, Entry(kInterfaceType, "key-c", kHostB, "e1", "c")).status, NOK_OK);
  ASSERT_EQ(UpdateAndWait(dir, Entry(kConfigType, "key-d", kHostA, "e1", "d")).status, NOK_OK);

  std::vector<DirectoryEntry> owned;
  ASSERT_EQ(dir.QueryByHost(kInterfaceType, kHostA, &owned), NOK_OK);
  ASSERT_EQ(owned.size(), 2u);
  EXPECT_EQ(owned[0].key, "key-a");
  EXPECT_EQ(owned[1].key, "key-b");

  // A change of owner moves the entry between hosts.
  ASSERT_EQ(UpdateAndWait(dir, Entry(kInterfaceType, "key-a", kHostB, "e1", "a")).status, NOK_OK);
  ASSERT_EQ(dir.QueryByHost(kInterfaceType, kHostA, &owned), NOK_OK);
  ASSERT_EQ(owned.size(), 1u);
  EXPECT_EQ(owned[0].key, "key-b");
  ASSERT_EQ(dir.QueryByHost(kInterfaceType, kHostB, &owned), NOK_OK);
  EXPECT_EQ(owned.size(), 2u);
}

TEST_P(DirectoryContract, QueriesFindingNothingAreNotFoundAndEmpty) {
  Directory& dir = *directory_;
  ASSERT_EQ(UpdateAndWait(dir, Entry(kConfigType, kNamespace, kHostA, "generation", "1")).status, NOK_OK);

  std::vector<DirectoryEntry> found(1, Entry(1, "stale", "stale", "stale", "stale"));
  EXPECT_EQ(dir.Query(kConfigType, kOtherNamespace, &found), NOK_NOT_FOUND);
  EXPECT_TRUE(found.empty());
  found.resize(1);
  EXPECT_EQ(dir.Query(kInterfaceType, kNamespace, &found), NOK_NOT_FOUND);
  EXPECT_TRUE(found.empty());
  found.resize(1);
  EXPECT_EQ(dir.QueryByHost(kConfigType, kHostB, &found), NOK_NOT_FOUND);
  EXPECT_TRUE(found.empty());
}

TEST_P(DirectoryContract, EmptyIdentityCreatesANewEntryWithAFreshUuid) {
  Directory& dir = *directory_;
  bool sawNothing = false;
  Outcome first = UpdateAndWait(dir, Entry(kInterfaceType, kHostA, kHostA, "", "10.0.0.1"),
                                [&sawNothing](const DirectoryEntry* stored) {
                                  sawNothing = stored == nullptr;
                                  return true;
                                });
  ASSERT_EQ(first.status, NOK_OK);
  EXPECT_TRUE(sawNothing);
  Outcome second = UpdateAndWait(dir, Entry(kInterfaceType, kHostA, kHostA, "", "10.0.0.2"));
  ASSERT_EQ(second.status, NOK_OK);

  ASSERT_TRUE(first.entry && second.entry);
  EXPECT_TRUE(IsCanonicalUuid(first.entry->entryId)) << first.entry->entryId;
  EXPECT_NE(first.entry->entryId, second.entry->entryId);
  std::vector<DirectoryEntry> found;
  ASSERT_EQ(dir.Query(kInterfaceType, kHostA, &found), NOK_OK);
  EXPECT_EQ(found.size(), 2u);
}

TEST_P(DirectoryContract, UpdateOfAnIdentityReplacesItInPlace) {
  Directory& dir = *directory_;
  Outcome created = UpdateAndWait(dir, Entry(kInterfaceType, kHostA, kHostA, "", "10.0.0.1"));
  ASSERT_EQ(created.status, NOK_OK);
  ASSERT_TRUE(created.entry);
  DirectoryEntry change = *created.entry;
  change.payload = "10.0.0.7";
  Outcome replaced = UpdateAndWait(dir, change);
  ASSERT_EQ(replaced.status, NOK_OK);
  ASSERT_TRUE(replaced.entry);
  EXPECT_EQ(replaced.entry->entryId, created.entry->entryId);
  EXPECT_GT(replaced.entry->version, created.entry->version);

  std::vector<DirectoryEntry> found;
  ASSERT_EQ(dir.Query(kInterfaceType, kHostA, &found), NOK_OK);
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0].entryId, created.entry->entryId);
  EXPECT_EQ(found[0].payload, "10.0.0.7");
  EXPECT_EQ(found[0].version, replaced.entry->version);
}

TEST_P(DirectoryContract, NamedIdentityIsCreatedWhenAbsentAndThePredicateSeesNothing) {
  Directory& dir = *directory_;
  bool sawNothing = false;
  Outcome created = UpdateAndWait(dir, Entry(kConfigType, kNamespace, kHostA, "generation", "1"),
                                  [&sawNothing](const DirectoryEntry* stored) {
                                    sawNothing = stored == nullptr;
                                    return true;
                                  });
  ASSERT_EQ(created.status, NOK_OK);
  EXPECT_TRUE(sawNothing);
  std::vector<DirectoryEntry> found;
  ASSERT_EQ(dir.Query(kConfigType, kNamespace, &found), NOK_OK);
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0].entryId, "generation");
}

TEST_P(DirectoryContract, EqualOrNewerStoredGenerationRefusesThePublicationAndKeepsTheEntry) {
  Directory& dir = *directory_;
  ASSERT_EQ(UpdateAndWait(dir, Entry(kConfigType, kNamespace, kHostA, "generation", "5")).status, NOK_OK);
  std::vector<DirectoryEntry> before;
  ASSERT_EQ(dir.Query(kConfigType, kNamespace, &before), NOK_OK);

  for (uint64_t stale : {4u, 5u}) {
    Outcome refused = UpdateAndWait(
        dir, Entry(kConfigType, kNamespace, kHostB, "generation", std::to_string(stale)),
        OnlyOverOlder(stale));
    EXPECT_EQ(refused.status, NOK_EXISTS) << "generation " << stale;
    ASSERT_TRUE(refused.entry);
    EXPECT_EQ(refused.entry->payload, "5");
  }
  std::vector<DirectoryEntry> after;
  ASSERT_EQ(dir.Query(kConfigType, kNamespace, &after), NOK_OK);
  ASSERT_EQ(after.size(), 1u);
  EXPECT_EQ(after[0].payload, "5");
  EXPECT_EQ(after[0].ownerHost, kHostA);
  EXPECT_EQ(after[0].version, before[0].version);

  Outcome newer = UpdateAndWait(dir, Entry(kConfigType, kNamespace, kHostB, "generation", "6"),
                                OnlyOverOlder(6));
  EXPECT_EQ(newer.status, NOK_OK);
}

TEST_P(DirectoryContract, RefusalOfAnAbsentEntryCreatesNothing) {
  Directory& dir = *directory_;
  Outcome refused = UpdateAndWait(dir, Entry(kConfigType, kNamespace, kHostA, "generation", "1"),
                                  [](const DirectoryEntry*) { return false; });
  EXPECT_EQ(refused.status, NOK_EXISTS);
  EXPECT_FALSE(refused.entry);
  std::vector<DirectoryEntry> found;
  EXPECT_EQ(dir.Query(kConfigType, kNamespace, &found), NOK_NOT_FOUND);
}

TEST_P(DirectoryContract, ConcurrentFirstPublicationsOfOneIdentityHaveOneWinner) {
  constexpr int kClients = 6;
  std::vector<std::unique_ptr<Directory>> clients;
  for (int i = 0; i < kClients; ++i) clients.push_back(OpenAnother());
  std::vector<NOK_ReturnStatus> results(kClients, NOK_PENDING);
  std::vector<std::thread> threads;
  for (int i = 0; i < kClients; ++i) {
    threads.emplace_back([&, i] {
      results[i] = UpdateAndWait(*clients[i],
                                 Entry(kConfigType, kNamespace, kHostA, "generation", std::to_string(i)),
                                 [](const DirectoryEntry* stored) { return stored == nullptr; })
                       .status;
    });
  }
  for (std::thread& thread : threads) thread.join();

  int winners = 0;
  for (NOK_ReturnStatus status : results) {
    if (status == NOK_OK) {
      ++winners;
    } else {
      EXPECT_EQ(status, NOK_EXISTS);
    }
  }
  EXPECT_EQ(winners, 1);
  std::vector<DirectoryEntry> found;
  ASSERT_EQ(directory_->Query(kConfigType, kNamespace, &found), NOK_OK);
  EXPECT_EQ(found.size(), 1u);
}

// Read, then write under a predicate on the version read: the classic
// optimistic counter, retried on refusal.
void IncrementWithCas(Directory& dir, int times) {
  for (int done = 0; done < times;) {
    std::vector<DirectoryEntry> current;
    NOK_ReturnStatus queried = dir.Query(kConfigType, "counter", &current);
    ASSERT_TRUE(queried == NOK_OK || queried == NOK_NOT_FOUND);
    uint64_t seen = queried == NOK_OK ? current[0].version : 0;
    int value = queried == NOK_OK ? std::stoi(current[0].payload) : 0;
    NOK_ReturnStatus status =
        UpdateAndWait(dir, Entry(kConfigType, "counter", kHostA, "counter", std::to_string(value + 1)),
                      [seen](const DirectoryEntry* stored) {
                        return (stored ? stored->version : 0) == seen;
                      })
            .status;
    if (status == NOK_OK) {
      ++done;
    } else {
      ASSERT_EQ(status, NOK_EXISTS);
    }
  }
}

TEST_P(DirectoryContract, ConcurrentCompareAndSetIncrementsLoseNoUpdate) {
  constexpr int kClients = 6;
  constexpr int kIncrements = 40;
  std::vector<std::unique_ptr<Directory>> clients;
  for (int i = 0; i < kClients; ++i) clients.push_back(OpenAnother());
  std::vector<std::thread> threads;
  for (int i = 0; i < kClients; ++i) {
    threads.emplace_back([&, i] { IncrementWithCas(*clients[i], kIncrements); });
  }
  for (std::thread& thread : threads) thread.join();

  std::vector<DirectoryEntry> counter;
  ASSERT_EQ(directory_->Query(kConfigType, "counter", &counter), NOK_OK);
  ASSERT_EQ(counter.size(), 1u);
  EXPECT_EQ(counter[0].payload, std::to_string(kClients * kIncrements));
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

  std::unique_ptr<Directory> reopened = OpenAnother();
  std::vector<DirectoryEntry> found;
  ASSERT_EQ(reopened->Query(kInterfaceType, kHostA, &found), NOK_OK);
  EXPECT_EQ(found.size(), size_t(kUpdates));
}

TEST_P(DirectoryContract, DeleteRemovesOnlyTheNamedEntry) {
  Directory& dir = *directory_;
  ASSERT_EQ(UpdateAndWait(dir, Entry(kInterfaceType, kHostA, kHostA, "vmk1", "a")).status, NOK_OK);
  ASSERT_EQ(UpdateAndWait(dir, Entry(kInterfaceType, kHostA, kHostA, "vmk2", "b")).status, NOK_OK);

  EXPECT_EQ(dir.Delete(kInterfaceType, kHostA, "vmk1"), NOK_OK);
  std::vector<DirectoryEntry> found;
  ASSERT_EQ(dir.Query(kInterfaceType, kHostA, &found), NOK_OK);
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0].entryId, "vmk2");

  EXPECT_EQ(dir.Delete(kInterfaceType, kHostA, "vmk1"), NOK_NOT_FOUND);
  EXPECT_EQ(dir.Delete(kConfigType, kHostA, "vmk2"), NOK_NOT_FOUND);
  EXPECT_EQ(dir.Delete(kInterfaceType, kHostA, "vmk2"), NOK_OK);
  EXPECT_EQ(dir.Query(kInterfaceType, kHostA, &found), NOK_NOT_FOUND);
}

TEST_P(DirectoryContract, SubscriberSeesChangesOfItsKeyAndNoOther) {
  Notifications notes;
  std::unique_ptr<Directory> writer = OpenAnother();
  directory_->Subscribe(kConfigType, kNamespace, notes.Sink());

  ASSERT_EQ(UpdateAndWait(*writer, Entry(kConfigType, kOtherNamespace, kHostB, "generation", "other")).status, NOK_OK);
  ASSERT_EQ(UpdateAndWait(*writer, Entry(kInterfaceType, kNamespace, kHostB, "generation", "type")).status, NOK_OK);
  ASSERT_EQ(UpdateAndWait(*writer, Entry(kConfigType, kNamespace, kHostB, "generation", "9")).status, NOK_OK);

  ASSERT_TRUE(notes.WaitFor(NOK_OK, "9"));
  for (const Note& note : notes.Notes()) {
    EXPECT_EQ(note.entry.type, kConfigType);
    EXPECT_EQ(note.entry.key, kNamespace);
  }
  const Note last = notes.Notes().back();
  EXPECT_EQ(last.entry.entryId, "generation");
  EXPECT_EQ(last.entry.ownerHost, kHostB);
}

TEST_P(DirectoryContract, SubscriberSeesWritesThroughItsOwnDirectory) {
  Notifications notes;
  directory_->Subscribe(kConfigType, kNamespace, notes.Sink());
  ASSERT_EQ(UpdateAndWait(*directory_, Entry(kConfigType, kNamespace, kHostA, "generation", "3")).status, NOK_OK);
  EXPECT_TRUE(notes.WaitFor(NOK_OK, "3"));
}

TEST_P(DirectoryContract, SubscriberSeesDeletionAsNotFoundWithTheIdentity) {
  Notifications notes;
  std::unique_ptr<Directory> writer = OpenAnother();
  directory_->Subscribe(kInterfaceType, kHostB, notes.Sink());
  ASSERT_EQ(UpdateAndWait(*writer, Entry(kInterfaceType, kHostB, kHostB, "vmk1", "10.0.0.1")).status, NOK_OK);
  ASSERT_TRUE(notes.WaitFor(NOK_OK, "10.0.0.1"));

  ASSERT_EQ(writer->Delete(kInterfaceType, kHostB, "vmk1"), NOK_OK);
  ASSERT_TRUE(notes.WaitFor([](const Note& note) { return note.status == NOK_NOT_FOUND; }));
  const Note gone = notes.Notes().back();
  EXPECT_EQ(gone.status, NOK_NOT_FOUND);
  EXPECT_EQ(gone.entry.type, kInterfaceType);
  EXPECT_EQ(gone.entry.key, kHostB);
  EXPECT_EQ(gone.entry.entryId, "vmk1");
  EXPECT_TRUE(gone.entry.payload.empty());
}

TEST_P(DirectoryContract, NotificationsFollowTheOrderOfChangesAndEndAtTheLatest) {
  Notifications notes;
  std::unique_ptr<Directory> writer = OpenAnother();
  directory_->Subscribe(kConfigType, kNamespace, notes.Sink());
  constexpr int kChanges = 30;
  for (int generation = 1; generation <= kChanges; ++generation) {
    writer->AsyncUpdate(Entry(kConfigType, kNamespace, kHostB, "generation", std::to_string(generation)),
                        {}, {});
  }
  ASSERT_TRUE(notes.WaitFor(NOK_OK, std::to_string(kChanges)));
  int previous = 0;
  for (const Note& note : notes.Notes()) {
    ASSERT_EQ(note.status, NOK_OK);
    int generation = std::stoi(note.entry.payload);
    EXPECT_GT(generation, previous);
    previous = generation;
  }
}

TEST_P(DirectoryContract, NoCallbackAfterUnsubscribe) {
  Notifications dropped;
  Notifications kept;
  Directory::SubscriptionHandle handle =
      directory_->Subscribe(kConfigType, kNamespace, dropped.Sink());
  directory_->Subscribe(kConfigType, kNamespace, kept.Sink());
  directory_->Unsubscribe(handle);
  directory_->Unsubscribe(handle);  // a second time is harmless

  ASSERT_EQ(UpdateAndWait(*directory_, Entry(kConfigType, kNamespace, kHostA, "generation", "2")).status, NOK_OK);
  ASSERT_TRUE(kept.WaitFor(NOK_OK, "2"));
  EXPECT_TRUE(dropped.Notes().empty());
}

TEST_P(DirectoryContract, UnsubscribeWaitsForTheRunningCallback) {
  std::mutex mutex;
  std::condition_variable changed;
  bool inCallback = false, release = false, callbackFinished = false;
  Directory::SubscriptionHandle handle = directory_->Subscribe(
      kConfigType, kNamespace, [&](NOK_ReturnStatus, const DirectoryEntry*) {
        std::unique_lock<std::mutex> lock(mutex);
        inCallback = true;
        changed.notify_all();
        changed.wait(lock, [&] { return release; });
        callbackFinished = true;
      });
  directory_->AsyncUpdate(Entry(kConfigType, kNamespace, kHostA, "generation", "1"), {}, {});
  {
    std::unique_lock<std::mutex> lock(mutex);
    ASSERT_TRUE(changed.wait_for(lock, kPatience, [&] { return inCallback; }));
  }

  std::atomic<bool> finishedWhenUnsubscribed{false};
  std::thread unsubscriber([&] {
    directory_->Unsubscribe(handle);
    std::lock_guard<std::mutex> lock(mutex);
    finishedWhenUnsubscribed = callbackFinished;
  });
  // The pause only gives an Unsubscribe that does not wait the chance to
  // return early; a correct one passes whatever the timing.
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  {
    std::lock_guard<std::mutex> lock(mutex);
    release = true;
  }
  changed.notify_all();
  unsubscriber.join();
  EXPECT_TRUE(finishedWhenUnsubscribed.load());
}

TEST_P(DirectoryContract, CallbackMayUnsubscribeItself) {
  Notifications later;
  std::atomic<int> calls{0};
  std::atomic<Directory::SubscriptionHandle> self{0};
  self = directory_->Subscribe(kConfigType, kNamespace, [&](NOK_ReturnStatus, const DirectoryEntry*) {
    ++calls;
    directory_->Unsubscribe(self);
  });
  ASSERT_EQ(UpdateAndWait(*directory_, Entry(kConfigType, kNamespace, kHostA, "generation", "1")).status, NOK_OK);
  directory_->Subscribe(kConfigType, kNamespace, later.Sink());
  ASSERT_EQ(UpdateAndWait(*directory_, Entry(kConfigType, kNamespace, kHostA, "generation", "2")).status, NOK_OK);
  ASSERT_TRUE(later.WaitFor(NOK_OK, "2"));
  EXPECT_EQ(calls.load(), 1);
}

TEST_P(DirectoryContract, SubscriptionEndedByAnotherCallbackMissesTheChangeInProgress) {
  Notifications ended;
  Notifications sentinel;
  std::atomic<Directory::SubscriptionHandle> victim{0};
  directory_->Subscribe(kConfigType, kNamespace, [&](NOK_ReturnStatus, const DirectoryEntry*) {
    directory_->Unsubscribe(victim);
  });
  victim = directory_->Subscribe(kConfigType, kNamespace, ended.Sink());
  directory_->Subscribe(kConfigType, kNamespace, sentinel.Sink());

  ASSERT_EQ(UpdateAndWait(*directory_, Entry(kConfigType, kNamespace, kHostA, "generation", "1")).status, NOK_OK);
  ASSERT_TRUE(sentinel.WaitFor(NOK_OK, "1"));
  EXPECT_TRUE(ended.Notes().empty());
}

INSTANTIATE_TEST_SUITE_P(, DirectoryContract,
                         ::testing::Values(Backend{"Sqlite",
                                                   [] { return std::make_unique<SqliteStore>(); }}),
                         [](const ::testing::TestParamInfo<Backend>& info) { return info.param.name; });

}  // namespace
}  // namespace platform
}  // namespace zel
