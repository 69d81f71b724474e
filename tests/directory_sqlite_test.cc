// The embedded directory across the processes of one machine: a change made
// by another process reaches this one's subscribers, compare-and-set holds
// between processes, and a subscriber that fell behind the kept change
// history still learns the state of its key.
#include <gtest/gtest.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/local/SqliteDirectory.h"
#include "support/DirectoryNotes.h"

extern char** environ;

namespace zel {
namespace platform {
namespace {

using zel::test::Note;
using zel::test::Notifications;

constexpr auto kPatience = zel::test::kDirectoryPatience;
constexpr uint32_t kConfigType = 37;
const std::string kNamespace = "8f3b6c1e-52d4-4a0b-9c7e-1d2f3a4b5c6d";
const std::string kHost = "11111111-2222-4333-8444-555555555555";

DirectoryEntry Entry(const std::string& key, const std::string& entryId, const std::string& payload) {
  DirectoryEntry entry;
  entry.type = kConfigType;
  entry.key = key;
  entry.ownerHost = kHost;
  entry.entryId = entryId;
  entry.payload = payload;
  return entry;
}

NOK_ReturnStatus UpdateAndWait(Directory& directory, const DirectoryEntry& entry,
                               Directory::UpdatePredicate accept = {}) {
  auto promise = std::make_shared<std::promise<NOK_ReturnStatus>>();
  std::future<NOK_ReturnStatus> status = promise->get_future();
  directory.AsyncUpdate(entry, std::move(accept), [promise](NOK_ReturnStatus result, const DirectoryEntry*) {
    promise->set_value(result);
  });
  return status.wait_for(kPatience) == std::future_status::ready ? status.get() : NOK_TIMEOUT;
}

// Read, then write under a predicate on the version read, retried on
// refusal. False when the directory failed.
bool IncrementWithCas(Directory& dir, int times) {
  for (int done = 0; done < times;) {
    std::vector<DirectoryEntry> current;
    NOK_ReturnStatus queried = dir.Query(kConfigType, "counter", &current);
    if (queried != NOK_OK && queried != NOK_NOT_FOUND) return false;
    uint64_t seen = queried == NOK_OK ? current[0].version : 0;
    int value = queried == NOK_OK ? std::stoi(current[0].payload) : 0;
    NOK_ReturnStatus status = UpdateAndWait(dir, Entry("counter", "counter", std::to_string(value + 1)),
                                            [seen](const DirectoryEntry* stored) {
                                              return (stored ? stored->version : 0) == seen;
                                            });
    if (status == NOK_OK) {
      ++done;
    } else if (status != NOK_EXISTS) {
      return false;
    }
  }
  return true;
}

// The second process's part. Exit status 0 when it did what it was asked.
int RunChild(const std::string& role) {
  const char* db = getenv("ZEL_DIRECTORY_DB");
  std::unique_ptr<Directory> dir = db ? NewSqliteDirectory(db) : nullptr;
  if (!dir) return 10;
  if (role == "update") {
    const char* payload = getenv("ZEL_DIRECTORY_PAYLOAD");
    return UpdateAndWait(*dir, Entry(kNamespace, "generation", payload ? payload : "")) == NOK_OK ? 0 : 11;
  }
  if (role == "delete") return dir->Delete(kConfigType, kNamespace, "generation") == NOK_OK ? 0 : 12;
  if (role == "increment") {
    const char* times = getenv("ZEL_DIRECTORY_TIMES");
    return IncrementWithCas(*dir, times ? std::atoi(times) : 0) ? 0 : 13;
  }
  return 14;
}

// The test program doubles as the second process: started with
// ZEL_DIRECTORY_CHILD set, it plays that part and exits before any test
// runs. A fresh exec rather than a bare fork, because a forked copy of a
// process that has the database open must not use SQLite at all.
struct ChildEntry {
  ChildEntry() {
    if (const char* role = getenv("ZEL_DIRECTORY_CHILD")) _exit(RunChild(role));
  }
} const kChildEntry;

class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "zel-directory-XXXXXX").string();
    if (mkdtemp(pattern.data())) path_ = pattern;
  }
  ~TempDir() {
    if (!path_.empty()) std::filesystem::remove_all(path_);
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Starts this program as a second process in `role`; the result is its pid.
pid_t StartChild(const std::string& db, const std::string& role,
                 const std::map<std::string, std::string>& vars = {}) {
  std::vector<std::string> env;
  for (char** var = environ; *var; ++var) env.emplace_back(*var);
  env.push_back("ZEL_DIRECTORY_CHILD=" + role);
  env.push_back("ZEL_DIRECTORY_DB=" + db);
  env.push_back("ZEL_HOME=" + std::filesystem::path(db).parent_path().string());
  for (const auto& var : vars) env.push_back(var.first + "=" + var.second);
  std::vector<char*> envp;
  for (std::string& var : env) envp.push_back(var.data());
  envp.push_back(nullptr);
  std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
  char* argv[] = {self.data(), nullptr};
  pid_t pid = -1;
  return posix_spawn(&pid, self.c_str(), nullptr, nullptr, argv, envp.data()) == 0 ? pid : -1;
}

// The child's exit status, or -1 when it did not exit normally.
int WaitChild(pid_t pid) {
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}


TEST(DirectoryAcrossProcesses, SubscriberSeesAnotherProcesssUpdateAndDelete) {
  TempDir home;
  const std::string db = home.path() + "/directory.db";
  Notifications notes;
  std::unique_ptr<Directory> dir = NewSqliteDirectory(db);
  ASSERT_NE(dir, nullptr);
  dir->Subscribe(kConfigType, kNamespace, notes.Sink());

  ASSERT_EQ(WaitChild(StartChild(db, "update", {{"ZEL_DIRECTORY_PAYLOAD", "gen 7"}})), 0);
  ASSERT_TRUE(notes.WaitFor(NOK_OK, "gen 7"));
  EXPECT_EQ(notes.Notes().back().entry.entryId, "generation");
  std::vector<DirectoryEntry> found;
  ASSERT_EQ(dir->Query(kConfigType, kNamespace, &found), NOK_OK);
  EXPECT_EQ(found[0].payload, "gen 7");

  ASSERT_EQ(WaitChild(StartChild(db, "delete")), 0);
  ASSERT_TRUE(notes.WaitFor(NOK_NOT_FOUND, ""));
  EXPECT_EQ(notes.Notes().back().entry.entryId, "generation");
}

TEST(DirectoryAcrossProcesses, ProcessesIncrementingUnderCompareAndSetLoseNoUpdate) {
  constexpr int kChildren = 4;
  constexpr int kIncrements = 50;
  TempDir home;
  const std::string db = home.path() + "/directory.db";
  std::unique_ptr<Directory> dir = NewSqliteDirectory(db);
  ASSERT_NE(dir, nullptr);

  std::vector<pid_t> children;
  for (int i = 0; i < kChildren; ++i) {
    children.push_back(StartChild(db, "increment", {{"ZEL_DIRECTORY_TIMES", std::to_string(kIncrements)}}));
  }
  EXPECT_TRUE(IncrementWithCas(*dir, kIncrements));
  for (pid_t child : children) EXPECT_EQ(WaitChild(child), 0);

  std::vector<DirectoryEntry> counter;
  ASSERT_EQ(dir->Query(kConfigType, "counter", &counter), NOK_OK);
  EXPECT_EQ(counter[0].payload, std::to_string((kChildren + 1) * kIncrements));
}

TEST(DirectorySqlite, SubscriberThatFellBehindTheHistoryGetsTheCurrentStateOfItsKeys) {
  TempDir home;
  const std::string db = home.path() + "/directory.db";
  std::mutex mutex;
  std::condition_variable changed;
  bool stalled = false, release = false;
  Notifications kept;
  Notifications removed;
  std::unique_ptr<Directory> dir = NewSqliteDirectory(db);
  std::unique_ptr<Directory> writer = NewSqliteDirectory(db);
  ASSERT_TRUE(dir && writer);
  ASSERT_EQ(UpdateAndWait(*writer, Entry("removed", "generation", "1")), NOK_OK);

  // The first callback holds the watcher, as a slow subscriber would.
  dir->Subscribe(kConfigType, "stall", [&](NOK_ReturnStatus, const DirectoryEntry*) {
    std::unique_lock<std::mutex> lock(mutex);
    stalled = true;
    changed.notify_all();
    changed.wait(lock, [&] { return release; });
  });
  dir->Subscribe(kConfigType, "kept", kept.Sink());
  dir->Subscribe(kConfigType, "removed", removed.Sink());
  ASSERT_EQ(UpdateAndWait(*writer, Entry("stall", "generation", "1")), NOK_OK);
  {
    std::unique_lock<std::mutex> lock(mutex);
    ASSERT_TRUE(changed.wait_for(lock, kPatience, [&] { return stalled; }));
  }

  // Meanwhile the changes to the subscribed keys drop out of the history.
  ASSERT_EQ(UpdateAndWait(*writer, Entry("kept", "generation", "2")), NOK_OK);
  ASSERT_EQ(writer->Delete(kConfigType, "removed", "generation"), NOK_OK);
  for (int i = 0; i < 2 * kSqliteDirectoryChangeHistory; ++i) {
    writer->AsyncUpdate(Entry("noise", "generation", std::to_string(i)), {}, {});
  }
  ASSERT_EQ(UpdateAndWait(*writer, Entry("noise", "generation", "last")), NOK_OK);
  {
    std::lock_guard<std::mutex> lock(mutex);
    release = true;
  }
  changed.notify_all();

  EXPECT_TRUE(kept.WaitFor(NOK_OK, "2"));
  ASSERT_TRUE(removed.WaitFor(NOK_NOT_FOUND, ""));
  const Note gone = removed.Notes().back();
  EXPECT_EQ(gone.entry.key, "removed");
  EXPECT_TRUE(gone.entry.entryId.empty());
}

TEST(DirectorySqlite, NoDirectoryWhenTheDatabaseCannotBeOpened) {
  TempDir home;
  EXPECT_EQ(NewSqliteDirectory(home.path() + "/missing/directory.db"), nullptr);

  const std::string notADatabase = home.path() + "/directory.db";
  std::ofstream(notADatabase) << std::string(4096, 'x');
  EXPECT_EQ(NewSqliteDirectory(notADatabase), nullptr);
}

}  // namespace
}  // namespace platform
}  // namespace zel
