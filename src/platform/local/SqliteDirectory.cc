#include "platform/local/SqliteDirectory.h"

#include <poll.h>
#include <sqlite3.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <utility>

#include "platform/Log.h"
#include "platform/local/SerialWorker.h"
#include "platform/local/Subscriptions.h"

namespace zel {
namespace platform {
namespace {

const char kTag[] = "SqliteDirectory";

// Generous: writers hold the database for one short transaction each, so a
// long wait means a stuck process, not contention.
constexpr int kBusyTimeoutMillis = 30000;
// How often the watcher looks at the database unprompted: rarely while the
// files report their writes, often when they cannot be watched.
constexpr auto kSafetyPollInterval = std::chrono::microseconds(500000);
constexpr auto kPollInterval = std::chrono::microseconds(50000);
// A commit's writes are reported a moment before the commit becomes visible,
// so a report that shows no change yet is followed by looks at growing
// intervals between these two.
constexpr auto kFirstSettle = std::chrono::microseconds(250);
constexpr auto kLastSettle = std::chrono::microseconds(64000);
constexpr int kSettleGrowth = 2;

// `changes` is the log that watchers of every process read: one row per
// write, numbered by a sequence that never goes back (AUTOINCREMENT), pruned
// to the last kSqliteDirectoryChangeHistory rows. An entry's version is the
// sequence number of its last write.
//
// `leases` holds each lease's time to live and the moment it runs out, in
// milliseconds of the machine's boot clock, which every process of the
// machine reads alike. An entry's `lease` is 0 when no lease holds it.
const char kSchema[] =
    "CREATE TABLE IF NOT EXISTS entries("
    "  type INTEGER NOT NULL, key TEXT NOT NULL, entry_id TEXT NOT NULL,"
    "  owner_host TEXT NOT NULL, payload BLOB NOT NULL, version INTEGER NOT NULL,"
    "  lease INTEGER NOT NULL DEFAULT 0,"
    "  PRIMARY KEY(type, key, entry_id));"
    "CREATE INDEX IF NOT EXISTS entries_by_host ON entries(type, owner_host);"
    "CREATE TABLE IF NOT EXISTS changes("
    "  seq INTEGER PRIMARY KEY AUTOINCREMENT,"
    "  type INTEGER NOT NULL, key TEXT NOT NULL, entry_id TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS leases("
    "  id INTEGER PRIMARY KEY AUTOINCREMENT, ttl_ms INTEGER NOT NULL, expires_ms INTEGER NOT NULL);";
// A database written before leases existed gains the column (the statement
// fails harmlessly when it is there), then the index that needs it.
const char kLeaseColumn[] = "ALTER TABLE entries ADD COLUMN lease INTEGER NOT NULL DEFAULT 0";
const char kLeaseIndex[] = "CREATE INDEX IF NOT EXISTS entries_by_lease ON entries(lease)";

const char kEntryColumns[] = "type, key, entry_id, owner_host, payload, version, lease";

// How often a watcher looks for leases that ran out: an expired entry goes
// within about this much of its time.
constexpr int64_t kLeaseLookMillis = 250;

int64_t BootClockMillis() {
  timespec now;
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  return int64_t(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

NOK_ReturnStatus StatusOf(int rc) {
  switch (rc & 0xff) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED: return NOK_BUSY;
    case SQLITE_NOMEM: return NOK_NO_MEMORY;
    case SQLITE_IOERR:
    case SQLITE_FULL:
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_CANTOPEN:
    case SQLITE_READONLY: return NOK_IO_ERROR;
    default: return NOK_FAILURE;
  }
}

// A prepared statement whose parameters are bound in order. A failed
// prepare surfaces as the result of Step.
class Statement {
 public:
  Statement(sqlite3* db, const std::string& sql) {
    rc_ = sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt_, nullptr);
  }
  ~Statement() { sqlite3_finalize(stmt_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  Statement& Bind(int64_t value) {
    if (stmt_) sqlite3_bind_int64(stmt_, ++bound_, value);
    return *this;
  }
  Statement& Bind(const std::string& text) {
    if (stmt_) sqlite3_bind_text(stmt_, ++bound_, text.data(), int(text.size()), SQLITE_TRANSIENT);
    return *this;
  }
  Statement& BindBlob(const std::string& bytes) {
    if (stmt_) sqlite3_bind_blob(stmt_, ++bound_, bytes.data(), int(bytes.size()), SQLITE_TRANSIENT);
    return *this;
  }

  // SQLITE_ROW, SQLITE_DONE or the failure.
  int Step() { return rc_ == SQLITE_OK ? sqlite3_step(stmt_) : rc_; }

  int64_t Int(int column) { return sqlite3_column_int64(stmt_, column); }
  bool IsNull(int column) { return sqlite3_column_type(stmt_, column) == SQLITE_NULL; }
  std::string Bytes(int column) {
    const void* data = sqlite3_column_blob(stmt_, column);
    return data ? std::string(static_cast<const char*>(data), sqlite3_column_bytes(stmt_, column))
                : std::string();
  }

  // The kEntryColumns, starting at `first`.
  DirectoryEntry Entry(int first) {
    DirectoryEntry entry;
    entry.type = uint32_t(Int(first));
    entry.key = Bytes(first + 1);
    entry.entryId = Bytes(first + 2);
    entry.ownerHost = Bytes(first + 3);
    entry.payload = Bytes(first + 4);
    entry.version = uint64_t(Int(first + 5));
    entry.lease = Int(first + 6);
    return entry;
  }

 private:
  sqlite3_stmt* stmt_ = nullptr;
  int rc_;
  int bound_ = 0;
};

// Rolls back unless committed, so every early return leaves the database as
// it was.
class Transaction {
 public:
  Transaction(sqlite3* db, const char* begin) : db_(db) {
    rc_ = sqlite3_exec(db_, begin, nullptr, nullptr, nullptr);
    open_ = rc_ == SQLITE_OK;
  }
  ~Transaction() {
    if (open_) sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
  }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  int BeginResult() const { return rc_; }
  int Commit() {
    int rc = sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr);
    open_ = rc != SQLITE_OK && !sqlite3_get_autocommit(db_);
    return rc;
  }

 private:
  sqlite3* db_;
  int rc_;
  bool open_;
};

// One connection, used by one thread at a time.
class Connection {
 public:
  ~Connection() { sqlite3_close_v2(db_); }
  sqlite3* db() const { return db_; }

  int Open(const std::string& path) {
    int rc = sqlite3_open_v2(path.c_str(), &db_,
                             SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                             nullptr);
    if (rc != SQLITE_OK) return rc;
    // SQLite creates the database with 0644 less the umask, and its -wal and
    // -shm files with the database's bits: owner-only before WAL starts keeps
    // all three owner-only. chmod, not open and close: closing any
    // descriptor of the file would drop this process's SQLite locks on it.
    for (const char* suffix : {"", "-wal", "-shm"}) ::chmod((path + suffix).c_str(), 0600);
    sqlite3_busy_timeout(db_, kBusyTimeoutMillis);
    // WAL: readers and the watchers never block the writer. NORMAL sync in
    // WAL mode survives any process crash; a power cut may lose the last
    // commits, which publishers restore when they republish.
    rc = sqlite3_exec(db_, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) return rc;
    return sqlite3_exec(db_, "PRAGMA synchronous=NORMAL", nullptr, nullptr, nullptr);
  }

 private:
  sqlite3* db_ = nullptr;
};

struct Notice {
  NOK_ReturnStatus status;
  DirectoryEntry entry;
};

// Wakes the watcher: when the database file or its write-ahead log is
// written by any process (through inotify on their directory, whose other
// files are ignored), and when woken by Nudge. Without inotify only Nudge
// and the timeout wake it.
class WatchWake {
 public:
  explicit WatchWake(const std::string& dbPath)
      : nudge_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
        inotify_(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    const size_t slash = dbPath.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : dbPath.substr(0, slash + 1);
    db_ = slash == std::string::npos ? dbPath : dbPath.substr(slash + 1);
    wal_ = db_ + "-wal";
    watching_ = inotify_ >= 0 &&
                ::inotify_add_watch(inotify_, dir.c_str(), IN_MODIFY | IN_CREATE | IN_MOVED_TO) >= 0;
  }
  ~WatchWake() {
    if (nudge_ >= 0) ::close(nudge_);
    if (inotify_ >= 0) ::close(inotify_);
  }
  WatchWake(const WatchWake&) = delete;
  WatchWake& operator=(const WatchWake&) = delete;

  bool Ready() const { return nudge_ >= 0; }
  bool Watching() const { return watching_; }
  void Nudge() {
    const uint64_t one = 1;
    while (::write(nudge_, &one, sizeof one) < 0 && errno == EINTR) {
    }
  }

  enum Reason { kTimeout, kNudged, kWritten };

  // Blocks until nudged, until the database's files report a write (or
  // reports were lost), or for up to `timeout`. Writes of the directory's
  // other files do not end the wait.
  Reason Wait(std::chrono::microseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
      const std::chrono::nanoseconds left =
          std::max<std::chrono::nanoseconds>(deadline - std::chrono::steady_clock::now(), {});
      const timespec wait{time_t(left.count() / 1000000000), long(left.count() % 1000000000)};
      pollfd fds[] = {{nudge_, POLLIN, 0}, {inotify_, POLLIN, 0}};
      if (::ppoll(fds, watching_ ? 2 : 1, &wait, nullptr) <= 0) return kTimeout;
      uint64_t count;
      const bool nudged = ::read(nudge_, &count, sizeof count) > 0;
      const bool written = watching_ && DrainReports();
      if (written) return kWritten;
      if (nudged) return kNudged;
    }
  }

 private:
  bool DrainReports() {
    alignas(inotify_event) char buffer[4096];
    bool written = false;
    ssize_t length;
    while ((length = ::read(inotify_, buffer, sizeof buffer)) > 0) {
      for (ssize_t at = 0; at < length;) {
        const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
        written = written || (event->mask & IN_Q_OVERFLOW) ||
                  (event->len && (db_ == event->name || wal_ == event->name));
        at += ssize_t(sizeof(inotify_event) + event->len);
      }
    }
    return written;
  }

  const int nudge_;
  const int inotify_;
  std::string db_;
  std::string wal_;
  bool watching_ = false;
};

class SqliteDirectory final : public Directory {
 public:
  explicit SqliteDirectory(std::string path) : path_(std::move(path)), wake_(path_) {}

  ~SqliteDirectory() override {
    if (!watcher_.joinable()) return;
    // The watcher goes first: its callbacks may still issue updates, which
    // the worker then completes before it stops.
    watcherStopping_ = true;
    wake_.Nudge();
    watcher_.join();
    worker_.Stop();
  }

  bool Start() {
    int rc = ops_.Open(path_);
    if (rc == SQLITE_OK) rc = updates_.Open(path_);
    if (rc == SQLITE_OK) rc = watch_.Open(path_);
    if (rc == SQLITE_OK) rc = sqlite3_exec(ops_.db(), kSchema, nullptr, nullptr, nullptr);
    if (rc == SQLITE_OK) {
      sqlite3_exec(ops_.db(), kLeaseColumn, nullptr, nullptr, nullptr);
      rc = sqlite3_exec(ops_.db(), kLeaseIndex, nullptr, nullptr, nullptr);
    }
    // The watcher's starting point is taken here, before any Subscribe can
    // return: the data version first, so that a commit between the two reads
    // is seen again at the first poll instead of being skipped.
    if (rc == SQLITE_OK) rc = ReadDataVersion(&dataVersion_);
    if (rc == SQLITE_OK) {
      Statement last(watch_.db(), "SELECT COALESCE(MAX(seq), 0) FROM changes");
      rc = last.Step();
      if (rc == SQLITE_ROW) {
        lastSeq_ = last.Int(0);
        rc = SQLITE_OK;
      }
    }
    if (rc != SQLITE_OK) {
      ZEL_LOG_WARNING("%s: Failed to open directory database %s: %s", kTag, path_.c_str(),
                      sqlite3_errstr(rc));
      return false;
    }
    if (!wake_.Ready()) {
      ZEL_LOG_WARNING("%s: Failed to make the watcher of directory database %s", kTag,
                      path_.c_str());
      return false;
    }
    if (!wake_.Watching()) {
      ZEL_LOG_WARNING("%s: Cannot watch the files of %s for writes; polling them instead", kTag,
                      path_.c_str());
    }
    worker_.Start();
    watcher_ = std::thread([this] { WatchLoop(); });
    return true;
  }

  NOK_ReturnStatus Query(uint32_t type, const std::string& key,
                         std::vector<DirectoryEntry>* entries) override {
    return Select(std::string("SELECT ") + kEntryColumns +
                      " FROM entries WHERE type = ? AND key = ? ORDER BY entry_id",
                  type, key, entries);
  }

  NOK_ReturnStatus QueryByHost(uint32_t type, const std::string& host,
                               std::vector<DirectoryEntry>* entries) override {
    return Select(std::string("SELECT ") + kEntryColumns +
                      " FROM entries WHERE type = ? AND owner_host = ? ORDER BY key, entry_id",
                  type, host, entries);
  }

  void AsyncUpdate(const DirectoryEntry& entry, UpdatePredicate accept,
                   Completion done) override {
    worker_.Post([this, update = Update{entry, std::move(accept), std::move(done)}]() mutable {
      Run(&update);
    });
  }

  NOK_ReturnStatus Delete(uint32_t type, const std::string& key,
                          const std::string& entryId) override {
    std::lock_guard<std::mutex> lock(opsMu_);
    sqlite3* db = ops_.db();
    Transaction txn(db, "BEGIN IMMEDIATE");
    if (txn.BeginResult() != SQLITE_OK) return Failed("begin a delete", db, txn.BeginResult());
    Statement remove(db, "DELETE FROM entries WHERE type = ? AND key = ? AND entry_id = ?");
    int rc = remove.Bind(type).Bind(key).Bind(entryId).Step();
    if (rc != SQLITE_DONE) return Failed("delete an entry", db, rc);
    if (sqlite3_changes(db) == 0) return NOK_NOT_FOUND;
    int64_t seq = 0;
    rc = RecordChange(db, type, key, entryId, &seq);
    if (rc == SQLITE_OK) rc = txn.Commit();
    if (rc != SQLITE_OK) return Failed("delete an entry", db, rc);
    NudgeWatcher();
    return NOK_OK;
  }

  NOK_ReturnStatus GrantLease(int ttlSeconds, LeaseId* lease) override {
    if (ttlSeconds < 1) return NOK_BAD_PARAM;
    std::lock_guard<std::mutex> lock(opsMu_);
    sqlite3* db = ops_.db();
    const int64_t ttl = int64_t(ttlSeconds) * 1000;
    Statement grant(db, "INSERT INTO leases(ttl_ms, expires_ms) VALUES(?, ?)");
    const int rc = grant.Bind(ttl).Bind(BootClockMillis() + ttl).Step();
    if (rc != SQLITE_DONE) return Failed("grant a lease", db, rc);
    *lease = sqlite3_last_insert_rowid(db);
    return NOK_OK;
  }

  NOK_ReturnStatus RenewLease(LeaseId lease) override {
    std::lock_guard<std::mutex> lock(opsMu_);
    sqlite3* db = ops_.db();
    const int64_t now = BootClockMillis();
    Statement renew(db, "UPDATE leases SET expires_ms = ? + ttl_ms WHERE id = ? AND expires_ms > ?");
    const int rc = renew.Bind(now).Bind(lease).Bind(now).Step();
    if (rc != SQLITE_DONE) return Failed("renew a lease", db, rc);
    return sqlite3_changes(db) == 0 ? NOK_NOT_FOUND : NOK_OK;
  }

  NOK_ReturnStatus RevokeLease(LeaseId lease) override {
    std::lock_guard<std::mutex> lock(opsMu_);
    return EndLeases("WHERE id = " + std::to_string(lease) + " AND expires_ms > " +
                     std::to_string(BootClockMillis()));
  }

  SubscriptionHandle Subscribe(uint32_t type, const std::string& key,
                               Callback callback) override {
    return subscriptions_.Add(type, key, std::move(callback));
  }

  void Unsubscribe(SubscriptionHandle handle) override { subscriptions_.Remove(handle); }

 private:
  struct Update {
    DirectoryEntry entry;
    UpdatePredicate accept;
    Completion done;
  };

  // Deletes the leases that `where` selects with every entry they hold, the
  // deletions logged for watchers, in one transaction. NOK_NOT_FOUND when
  // it selects none. REQUIRES: opsMu_ held.
  NOK_ReturnStatus EndLeases(const std::string& where) {
    sqlite3* db = ops_.db();
    Transaction txn(db, "BEGIN IMMEDIATE");
    if (txn.BeginResult() != SQLITE_OK) return Failed("begin ending leases", db, txn.BeginResult());
    const std::string ended = "SELECT id FROM leases " + where;
    Statement held(db, "SELECT type, key, entry_id FROM entries WHERE lease IN (" + ended + ")");
    int rc;
    int64_t seq = 0;
    while ((rc = held.Step()) == SQLITE_ROW) {
      rc = RecordChange(db, uint32_t(held.Int(0)), held.Bytes(1), held.Bytes(2), &seq);
      if (rc != SQLITE_OK) return Failed("log the entries of ended leases", db, rc);
    }
    if (rc != SQLITE_DONE) return Failed("read the entries of ended leases", db, rc);
    Statement dropEntries(db, "DELETE FROM entries WHERE lease IN (" + ended + ")");
    if ((rc = dropEntries.Step()) != SQLITE_DONE) return Failed("delete leased entries", db, rc);
    Statement dropLeases(db, "DELETE FROM leases " + where);
    if ((rc = dropLeases.Step()) != SQLITE_DONE) return Failed("delete leases", db, rc);
    if (sqlite3_changes(db) == 0) return NOK_NOT_FOUND;
    if ((rc = txn.Commit()) != SQLITE_OK) return Failed("end leases", db, rc);
    NudgeWatcher();
    return NOK_OK;
  }

  // Any process of the machine may be the one that notices a lease ran out
  // (its holder may be dead): each watcher ends the expired ones it sees,
  // through the shared connection, so that its own poll then sees the
  // deletions as another connection's commit. It looks at most every
  // kLeaseLookMillis, not at every poll: a poll follows every commit.
  void EndExpiredLeases() {
    const int64_t now = BootClockMillis();
    if (now < nextLeaseLook_) return;
    nextLeaseLook_ = now + kLeaseLookMillis;
    std::lock_guard<std::mutex> lock(opsMu_);
    Statement due(ops_.db(), "SELECT 1 FROM leases WHERE expires_ms <= ? LIMIT 1");
    if (due.Bind(now).Step() != SQLITE_ROW) return;
    EndLeases("WHERE expires_ms <= " + std::to_string(now));
  }

  NOK_ReturnStatus Failed(const char* what, sqlite3* db, int rc) {
    ZEL_LOG_WARNING("%s: Failed to %s in %s: %s", kTag, what, path_.c_str(), sqlite3_errmsg(db));
    return StatusOf(rc);
  }

  NOK_ReturnStatus Select(const std::string& sql, uint32_t type, const std::string& value,
                          std::vector<DirectoryEntry>* entries) {
    entries->clear();
    std::lock_guard<std::mutex> lock(opsMu_);
    Statement select(ops_.db(), sql);
    select.Bind(type).Bind(value);
    int rc;
    while ((rc = select.Step()) == SQLITE_ROW) entries->push_back(select.Entry(0));
    if (rc != SQLITE_DONE) {
      entries->clear();
      return Failed("query entries", ops_.db(), rc);
    }
    return entries->empty() ? NOK_NOT_FOUND : NOK_OK;
  }

  // Appends to the change log inside the caller's write transaction; `*seq`
  // becomes the written entry's version.
  static int RecordChange(sqlite3* db, uint32_t type, const std::string& key,
                          const std::string& entryId, int64_t* seq) {
    Statement append(db, "INSERT INTO changes(type, key, entry_id) VALUES(?, ?, ?)");
    int rc = append.Bind(type).Bind(key).Bind(entryId).Step();
    if (rc != SQLITE_DONE) return rc;
    *seq = sqlite3_last_insert_rowid(db);
    Statement prune(db, "DELETE FROM changes WHERE seq <= ?");
    rc = prune.Bind(*seq - kSqliteDirectoryChangeHistory).Step();
    return rc == SQLITE_DONE ? SQLITE_OK : rc;
  }

  void Run(Update* update) {
    DirectoryEntry& entry = update->entry;
    bool fresh = entry.entryId.empty();
    if (fresh) entry.entryId = boost::uuids::to_string(uuids_());
    std::optional<DirectoryEntry> stored;
    NOK_ReturnStatus status = Write(&entry, fresh, update->accept, &stored);
    if (status == NOK_OK) NudgeWatcher();
    if (!update->done) return;
    if (status == NOK_OK) {
      update->done(status, &entry);
    } else {
      update->done(status, status == NOK_EXISTS && stored ? &*stored : nullptr);
    }
  }

  // Read, decide and write in one transaction that holds the write lock from
  // its start: no other process can write between the predicate and the
  // write, so no compare-and-set is lost.
  NOK_ReturnStatus Write(DirectoryEntry* entry, bool fresh, const UpdatePredicate& accept,
                         std::optional<DirectoryEntry>* stored) {
    sqlite3* db = updates_.db();
    Transaction txn(db, "BEGIN IMMEDIATE");
    if (txn.BeginResult() != SQLITE_OK) return Failed("begin an update", db, txn.BeginResult());
    if (!fresh) {
      Statement select(db, std::string("SELECT ") + kEntryColumns +
                               " FROM entries WHERE type = ? AND key = ? AND entry_id = ?");
      int rc = select.Bind(entry->type).Bind(entry->key).Bind(entry->entryId).Step();
      if (rc == SQLITE_ROW) {
        *stored = select.Entry(0);
      } else if (rc != SQLITE_DONE) {
        return Failed("read an entry", db, rc);
      }
    }
    if (accept && !accept(*stored ? &**stored : nullptr)) return NOK_EXISTS;
    if (entry->lease != 0) {
      Statement live(db, "SELECT 1 FROM leases WHERE id = ? AND expires_ms > ?");
      int rc = live.Bind(entry->lease).Bind(BootClockMillis()).Step();
      if (rc == SQLITE_DONE) return NOK_NOT_FOUND;
      if (rc != SQLITE_ROW) return Failed("read a lease", db, rc);
    } else if (*stored) {
      entry->lease = (*stored)->lease;
    }
    int64_t seq = 0;
    int rc = RecordChange(db, entry->type, entry->key, entry->entryId, &seq);
    if (rc == SQLITE_OK) {
      Statement upsert(db,
                       "INSERT INTO entries(type, key, entry_id, owner_host, payload, version, lease)"
                       " VALUES(?, ?, ?, ?, ?, ?, ?) ON CONFLICT(type, key, entry_id) DO UPDATE SET"
                       " owner_host = excluded.owner_host, payload = excluded.payload,"
                       " version = excluded.version, lease = excluded.lease");
      rc = upsert.Bind(entry->type).Bind(entry->key).Bind(entry->entryId)
               .Bind(entry->ownerHost).BindBlob(entry->payload).Bind(seq).Bind(entry->lease)
               .Step();
      if (rc == SQLITE_DONE) rc = txn.Commit();
    }
    if (rc != SQLITE_OK) return Failed("write an entry", db, rc);
    entry->version = uint64_t(seq);
    return NOK_OK;
  }

  void NudgeWatcher() { wake_.Nudge(); }

  int ReadDataVersion(int64_t* version) {
    Statement pragma(watch_.db(), "PRAGMA data_version");
    int rc = pragma.Step();
    if (rc != SQLITE_ROW) return rc;
    *version = pragma.Int(0);
    return SQLITE_OK;
  }

  void WatchLoop() {
    const std::chrono::microseconds idle = wake_.Watching() ? kSafetyPollInterval : kPollInterval;
    std::chrono::microseconds settle{0};  // zero while no reported write is awaited
    for (;;) {
      const WatchWake::Reason reason = wake_.Wait(settle.count() ? settle : idle);
      if (watcherStopping_) return;
      if (Poll()) {
        settle = std::chrono::microseconds(0);
      } else if (reason == WatchWake::kWritten) {
        settle = kFirstSettle;
      } else if (settle.count()) {
        settle = settle * kSettleGrowth > kLastSettle ? std::chrono::microseconds(0)
                                                      : settle * kSettleGrowth;
      }
    }
  }

  // data_version changes whenever another connection, of any process,
  // committed; between such commits a poll costs one pragma. True when it
  // delivered the changes of a new commit.
  bool Poll() {
    EndExpiredLeases();
    int64_t version = 0;
    std::vector<Notice> notices;
    int rc = ReadDataVersion(&version);
    if (rc == SQLITE_OK && version == dataVersion_) return false;
    if (rc == SQLITE_OK) rc = Collect(&notices);
    if (rc != SQLITE_OK) {
      // The poll is retried from the same point, so nothing is skipped; one
      // line per failure episode keeps a stuck database from flooding the log.
      if (!pollFailing_) Failed("watch for changes", watch_.db(), rc);
      pollFailing_ = true;
      return false;
    }
    pollFailing_ = false;
    dataVersion_ = version;
    for (const Notice& notice : notices) subscriptions_.Deliver(notice.status, notice.entry);
    return true;
  }

  // Reads, in one snapshot, the latest state of every entry changed since
  // the last poll, in the order of the changes. Advances lastSeq_ only when
  // the whole read succeeded.
  int Collect(std::vector<Notice>* notices) {
    sqlite3* db = watch_.db();
    Transaction txn(db, "BEGIN");
    int rc = txn.BeginResult();
    if (rc != SQLITE_OK) return rc;
    Statement bounds(db, "SELECT COALESCE(MIN(seq), 0), COALESCE(MAX(seq), 0) FROM changes");
    if ((rc = bounds.Step()) != SQLITE_ROW) return rc;
    int64_t oldest = bounds.Int(0), newest = bounds.Int(1);
    if (newest <= lastSeq_) return SQLITE_OK;
    rc = oldest > lastSeq_ + 1 ? CollectCurrentState(db, notices) : CollectChanges(db, notices);
    if (rc == SQLITE_OK) rc = txn.Commit();
    if (rc == SQLITE_OK) lastSeq_ = newest;
    return rc;
  }

  int CollectChanges(sqlite3* db, std::vector<Notice>* notices) {
    // One row per changed identity, at its last change; the entry columns
    // are null when that change deleted it.
    Statement changed(db,
                      "SELECT c.type, c.key, c.entry_id, e.owner_host, e.payload, e.version,"
                      " e.lease, MAX(c.seq) AS last FROM changes c LEFT JOIN entries e"
                      " ON e.type = c.type AND e.key = c.key AND e.entry_id = c.entry_id"
                      " WHERE c.seq > ? GROUP BY c.type, c.key, c.entry_id ORDER BY last");
    changed.Bind(lastSeq_);
    int rc;
    while ((rc = changed.Step()) == SQLITE_ROW) {
      Notice notice{NOK_OK, changed.Entry(0)};
      if (changed.IsNull(5)) {
        notice.status = NOK_NOT_FOUND;
        notice.entry.version = uint64_t(changed.Int(7));
      }
      notices->push_back(std::move(notice));
    }
    return rc == SQLITE_DONE ? SQLITE_OK : rc;
  }

  // The changes since the last poll were pruned: the subscribers get their
  // keys' current state, the best that is left to tell.
  int CollectCurrentState(sqlite3* db, std::vector<Notice>* notices) {
    const std::set<std::pair<uint32_t, std::string>> keys = subscriptions_.Keys();
    for (const auto& key : keys) {
      Statement current(db, std::string("SELECT ") + kEntryColumns +
                                " FROM entries WHERE type = ? AND key = ? ORDER BY entry_id");
      current.Bind(key.first).Bind(key.second);
      size_t before = notices->size();
      int rc;
      while ((rc = current.Step()) == SQLITE_ROW) notices->push_back({NOK_OK, current.Entry(0)});
      if (rc != SQLITE_DONE) return rc;
      if (notices->size() == before) {
        DirectoryEntry gone;
        gone.type = key.first;
        gone.key = key.second;
        notices->push_back({NOK_NOT_FOUND, gone});
      }
    }
    return SQLITE_OK;
  }

  const std::string path_;

  // Caller-thread operations (queries, deletes) share one connection.
  std::mutex opsMu_;
  Connection ops_;

  // The update worker, and what only it touches.
  Connection updates_;
  boost::uuids::random_generator uuids_;
  SerialWorker worker_;

  // Watcher thread only, after Start.
  Connection watch_;
  int64_t dataVersion_ = 0;
  int64_t lastSeq_ = 0;
  int64_t nextLeaseLook_ = 0;  // boot-clock milliseconds
  bool pollFailing_ = false;
  WatchWake wake_;
  std::atomic<bool> watcherStopping_{false};
  std::thread watcher_;

  Subscriptions subscriptions_;  // delivered to by the watcher
};

}  // namespace

std::unique_ptr<Directory> NewSqliteDirectory(const std::string& dbPath) {
  auto directory = std::make_unique<SqliteDirectory>(dbPath);
  if (!directory->Start()) return nullptr;
  return directory;
}

}  // namespace platform
}  // namespace zel
