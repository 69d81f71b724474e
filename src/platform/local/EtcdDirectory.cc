#include "platform/local/EtcdDirectory.h"

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <utility>

#include <nlohmann/json.hpp>

#include "platform/Log.h"
#include "platform/local/EtcdClient.h"
#include "platform/local/SerialWorker.h"
#include "platform/local/Subscriptions.h"

namespace zel {
namespace platform {
namespace {

using nlohmann::json;

const char kTag[] = "EtcdDirectory";
// How many identities the writer remembers the stored state of.
constexpr size_t kRemembered = 4096;

// A write whose answer was lost this many times in a row is reported as a
// failure (the cluster keeps losing its leader or answers nothing).
constexpr int kUnansweredWrites = 3;
// Between two tries at a watch that could not be opened.
constexpr auto kWatchRetryPause = std::chrono::milliseconds(200);
// The status of the "lost track" signal to subscribers.
constexpr NOK_ReturnStatus kLostTrack = NOK_NO_CONNECTION;

std::string Escape(const std::string& component) {
  std::string text;
  for (char c : component) {
    if (c == '%') {
      text += "%25";
    } else if (c == '/') {
      text += "%2F";
    } else {
      text += c;
    }
  }
  return text;
}

std::string Unescape(const std::string& text) {
  std::string component;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && text.compare(i, 3, "%25") == 0) {
      component += '%';
      i += 2;
    } else if (text[i] == '%' && text.compare(i, 3, "%2F") == 0) {
      component += '/';
      i += 2;
    } else {
      component += text[i];
    }
  }
  return component;
}

std::vector<std::string> Split(const std::string& text) {
  std::vector<std::string> parts;
  size_t start = 0, slash;
  while ((slash = text.find('/', start)) != std::string::npos) {
    parts.push_back(text.substr(start, slash - start));
    start = slash + 1;
  }
  parts.push_back(text.substr(start));
  return parts;
}

// The end of the range of every key that starts with `prefix`.
std::string RangeEnd(std::string prefix) {
  while (!prefix.empty() && static_cast<unsigned char>(prefix.back()) == 0xff) prefix.pop_back();
  if (prefix.empty()) return std::string(1, '\0');
  prefix.back() = char(prefix.back() + 1);
  return prefix;
}

// The gateway's 64-bit numbers are strings; fields at their default are left out.
int64_t Number(const json& object, const char* name) {
  auto it = object.find(name);
  if (it == object.end()) return 0;
  if (it->is_string()) return std::strtoll(it->get_ref<const std::string&>().c_str(), nullptr, 10);
  return it->is_number_integer() ? it->get<int64_t>() : 0;
}

std::string Bytes(const json& object, const char* name) {
  std::string bytes;
  auto it = object.find(name);
  if (it != object.end() && it->is_string()) EtcdClient::FromBase64(it->get<std::string>(), &bytes);
  return bytes;
}

// An entry as read from one of its keys, with what the writers need.
struct Stored {
  DirectoryEntry entry;  // its version is the key's mod_revision
  std::string nonce;
  int64_t Mod() const { return int64_t(entry.version); }
};

struct Update {
  DirectoryEntry entry;
  Directory::UpdatePredicate accept;
  Directory::Completion done;
};

struct Notice {
  NOK_ReturnStatus status;
  DirectoryEntry entry;
  bool everyone = false;  // the lost-track signal, for every subscription
};

class EtcdDirectory final : public Directory {
 public:
  EtcdDirectory(std::vector<std::string> endpoints, std::string prefix)
      : client_(std::move(endpoints)), prefix_(std::move(prefix)),
        entries_(prefix_ + "entries/"), byHost_(prefix_ + "by-host/") {
    worker_.Start();
  }

  ~EtcdDirectory() override {
    // Watching and delivery end first: callbacks may still issue updates,
    // which the worker then completes before it stops.
    {
      std::lock_guard<std::mutex> lock(watchMu_);
      stopping_ = true;
    }
    stop_.Stop();
    watchCv_.notify_all();
    if (watcher_.joinable()) watcher_.join();
    if (delivery_.joinable()) delivery_.join();
    worker_.Stop();
  }

  NOK_ReturnStatus Query(uint32_t type, const std::string& key,
                         std::vector<DirectoryEntry>* entries) override {
    return Select(TypePrefix(entries_, type) + Escape(key) + "/", false, entries);
  }

  NOK_ReturnStatus QueryByHost(uint32_t type, const std::string& host,
                               std::vector<DirectoryEntry>* entries) override {
    return Select(TypePrefix(byHost_, type) + Escape(host) + "/", true, entries);
  }

  void AsyncUpdate(const DirectoryEntry& entry, UpdatePredicate accept, Completion done) override {
    worker_.Post([this, update = Update{entry, std::move(accept), std::move(done)}]() mutable {
      Run(&update);
    });
  }

  NOK_ReturnStatus Delete(uint32_t type, const std::string& key,
                          const std::string& entryId) override {
    const std::string name = EntryKey(type, key, entryId);
    bool uncertain = false;
    for (int unanswered = 0;;) {
      std::optional<Stored> stored;
      NOK_ReturnStatus status = ReadOne(name, 0, &stored, "read an entry");
      if (status != NOK_OK) return status;
      // Gone after an attempt of ours whose answer was lost: that attempt, or
      // another deleter, removed it; either way it is deleted.
      if (!stored) return uncertain ? NOK_OK : NOK_NOT_FOUND;
      json txn = {{"compare", json::array({ModIs(name, stored->Mod())})},
                  {"success", json::array({DeleteOp(name), DeleteOp(IndexKey(stored->entry))})}};
      json reply;
      EtcdResult result = client_.Call("/v3/kv/txn", txn, &reply);
      if (result.Ok() && reply.value("succeeded", false)) return NOK_OK;
      uncertain = uncertain || !result.Ok() || result.retried;
      if (result.outcome == EtcdResult::kRefused) return Failed("delete an entry", result);
      if (!result.Ok() && ++unanswered == kUnansweredWrites) return Failed("delete an entry", result);
    }
  }

  SubscriptionHandle Subscribe(uint32_t type, const std::string& key, Callback callback) override {
    const SubscriptionHandle handle = subscriptions_.Add(type, key, std::move(callback));
    std::unique_lock<std::mutex> lock(watchMu_);
    if (!watcher_.joinable() && !stopping_) {
      watcher_ = std::thread([this] { WatchLoop(); });
      delivery_ = std::thread([this] { DeliveryLoop(); });
    }
    // Changes committed after the watch was created reach this subscription.
    if (!watchCv_.wait_for(lock, kEtcdCallDeadline, [&] { return created_ || stopping_; })) {
      ZEL_LOG_WARNING("%s: The watch of the cluster directory at %s is not open yet; "
                      "subscribers will get the current state once it is",
                      kTag, client_.Describe().c_str());
      resyncWhenCreated_ = true;
    }
    return handle;
  }

  void Unsubscribe(SubscriptionHandle handle) override { subscriptions_.Remove(handle); }

  NOK_ReturnStatus GrantLease(int ttlSeconds, LeaseId* lease) override {
    json reply;
    EtcdResult result = client_.Call("/v3/lease/grant", {{"TTL", std::to_string(ttlSeconds)}}, &reply);
    if (!result.Ok()) return Failed("grant a lease", result);
    *lease = Number(reply, "ID");
    return *lease ? NOK_OK : NOK_FAILURE;
  }

  NOK_ReturnStatus RenewLease(LeaseId lease) override {
    json reply;
    EtcdResult result = client_.Call("/v3/lease/keepalive", {{"ID", std::to_string(lease)}}, &reply);
    if (!result.Ok()) return Failed("renew a lease", result);
    // An expired or unknown lease is answered with no TTL left.
    const json& renewed = reply.contains("result") ? reply["result"] : reply;
    return Number(renewed, "TTL") > 0 ? NOK_OK : NOK_NOT_FOUND;
  }

  NOK_ReturnStatus RevokeLease(LeaseId lease) override {
    json reply;
    EtcdResult result = client_.Call("/v3/lease/revoke", {{"ID", std::to_string(lease)}}, &reply);
    if (result.outcome == EtcdResult::kRefused && result.code == 5) return NOK_NOT_FOUND;
    return result.Ok() ? NOK_OK : Failed("revoke a lease", result);
  }

 private:
  static std::string TypePrefix(const std::string& base, uint32_t type) {
    return base + std::to_string(type) + "/";
  }
  std::string EntryKey(uint32_t type, const std::string& key, const std::string& entryId) const {
    return TypePrefix(entries_, type) + Escape(key) + "/" + Escape(entryId);
  }
  std::string IndexKey(const DirectoryEntry& entry) const {
    return TypePrefix(byHost_, entry.type) + Escape(entry.ownerHost) + "/" + Escape(entry.key) +
           "/" + Escape(entry.entryId);
  }

  static json ModIs(const std::string& name, int64_t mod) {
    if (mod == 0) {
      return {{"key", EtcdClient::ToBase64(name)}, {"target", "CREATE"}, {"result", "EQUAL"},
              {"create_revision", "0"}};
    }
    return {{"key", EtcdClient::ToBase64(name)}, {"target", "MOD"}, {"result", "EQUAL"},
            {"mod_revision", std::to_string(mod)}};
  }
  static json PutOp(const std::string& name, const std::string& value, LeaseId lease) {
    json put = {{"key", EtcdClient::ToBase64(name)}, {"value", EtcdClient::ToBase64(value)}};
    if (lease) put["lease"] = std::to_string(lease);
    return {{"request_put", put}};
  }
  static json DeleteOp(const std::string& name) {
    return {{"request_delete_range", {{"key", EtcdClient::ToBase64(name)}}}};
  }

  NOK_ReturnStatus Failed(const char* what, const EtcdResult& result) {
    ZEL_LOG_WARNING("%s: Failed to %s: %s", kTag, what, result.message.c_str());
    return result.outcome == EtcdResult::kUnanswered ? NOK_TIMEOUT : NOK_FAILURE;
  }

  // Reads a key-value of either layout; false when it is not one of ours.
  bool Decode(const json& kv, Stored* out) const {
    const std::string name = Bytes(kv, "key");
    const bool index = name.compare(0, byHost_.size(), byHost_) == 0;
    const std::string& base = index ? byHost_ : entries_;
    if (name.compare(0, base.size(), base) != 0) return false;
    const std::vector<std::string> parts = Split(name.substr(base.size()));
    if (parts.size() != (index ? 4u : 3u)) return false;
    DirectoryEntry& entry = out->entry;
    entry.type = uint32_t(std::strtoul(parts[0].c_str(), nullptr, 10));
    entry.key = Unescape(parts[parts.size() - 2]);
    entry.entryId = Unescape(parts.back());
    entry.version = uint64_t(Number(kv, "mod_revision"));
    entry.lease = Number(kv, "lease");
    json value = json::parse(Bytes(kv, "value"), nullptr, false);
    if (!value.is_object()) return true;  // a deletion's key-value carries no value
    entry.ownerHost = value.value("owner", "");
    EtcdClient::FromBase64(value.value("payload", ""), &entry.payload);
    out->nonce = value.value("nonce", "");
    return true;
  }

  std::string Encode(const DirectoryEntry& entry, const std::string& nonce) const {
    return json{{"owner", entry.ownerHost},
                {"payload", EtcdClient::ToBase64(entry.payload)},
                {"nonce", nonce}}
        .dump(-1, ' ', false, json::error_handler_t::replace);
  }

  // Reads every key under `from` at `revision` (0: the latest); `*revision`
  // becomes the revision read.
  NOK_ReturnStatus Range(const std::string& from, int64_t* revision, std::vector<Stored>* found,
                         const char* what) {
    json request = {{"key", EtcdClient::ToBase64(from)},
                    {"range_end", EtcdClient::ToBase64(RangeEnd(from))}};
    if (*revision) request["revision"] = std::to_string(*revision);
    json reply;
    EtcdResult result = client_.Call("/v3/kv/range", request, &reply);
    if (!result.Ok()) return Failed(what, result);
    *revision = Number(reply.value("header", json::object()), "revision");
    found->clear();
    for (const json& kv : reply.value("kvs", json::array())) {
      Stored stored;
      if (Decode(kv, &stored)) found->push_back(std::move(stored));
    }
    return NOK_OK;
  }

  NOK_ReturnStatus ReadOne(const std::string& name, int64_t revision, std::optional<Stored>* stored,
                           const char* what) {
    json request = {{"key", EtcdClient::ToBase64(name)}};
    if (revision) request["revision"] = std::to_string(revision);
    json reply;
    EtcdResult result = client_.Call("/v3/kv/range", request, &reply);
    if (!result.Ok()) return Failed(what, result);
    FirstOf(reply, stored);
    return NOK_OK;
  }

  void FirstOf(const json& rangeReply, std::optional<Stored>* stored) const {
    stored->reset();
    for (const json& kv : rangeReply.value("kvs", json::array())) {
      Stored one;
      if (Decode(kv, &one)) *stored = std::move(one);
    }
  }

  NOK_ReturnStatus Select(const std::string& from, bool byHost, std::vector<DirectoryEntry>* entries) {
    entries->clear();
    std::vector<Stored> found;
    int64_t revision = 0;
    NOK_ReturnStatus status = Range(from, &revision, &found, "query entries");
    if (status != NOK_OK) return status;
    for (Stored& stored : found) entries->push_back(std::move(stored.entry));
    std::sort(entries->begin(), entries->end(), [byHost](const DirectoryEntry& a, const DirectoryEntry& b) {
      return byHost && a.key != b.key ? a.key < b.key : a.entryId < b.entryId;
    });
    return entries->empty() ? NOK_NOT_FOUND : NOK_OK;
  }

  void Run(Update* update) {
    std::optional<Stored> refusedBy;
    NOK_ReturnStatus status = Write(update, &refusedBy);
    const DirectoryEntry* given = nullptr;
    if (status == NOK_OK) given = &update->entry;
    if (status == NOK_EXISTS && refusedBy) given = &refusedBy->entry;
    if (update->done) update->done(status, given);
  }

  // Read, decide, then write on the revision read. `update->entry` becomes
  // the entry as stored; on a refusal `*stored` is what refused it.
  //
  // The read is skipped when this directory remembers what it last wrote or
  // saw under the identity: the write's compare holds only if that is still
  // what is stored, and when it is not, the transaction's failure branch
  // reads the truth in the same round trip. A publisher that writes its
  // entry again (every generation) thus needs one round trip, not two. A
  // refusal is never decided on a remembered entry alone.
  NOK_ReturnStatus Write(Update* update, std::optional<Stored>* stored) {
    DirectoryEntry& entry = update->entry;
    const bool fresh = entry.entryId.empty();
    if (fresh) entry.entryId = boost::uuids::to_string(uuids_());
    const std::string name = EntryKey(entry.type, entry.key, entry.entryId);
    std::set<std::string> nonces;  // of every attempt so far
    int64_t lowestCompared = -1;   // the oldest revision an unsure attempt was made on
    bool known = fresh;            // `*stored` is up to date (a fresh identity is absent)
    bool read = fresh;             // ... and was read for this update, not remembered
    const auto remembered = lastSeen_.find(name);
    if (!fresh && remembered != lastSeen_.end()) {
      *stored = remembered->second;
      known = true;
    }
    for (int unanswered = 0;;) {
      if (!known) {
        NOK_ReturnStatus status = ReadOne(name, 0, stored, "read an entry");
        if (status != NOK_OK) return status;
        read = true;
      }
      known = false;
      if (*stored && nonces.count((*stored)->nonce)) {
        entry = (*stored)->entry;
        return NOK_OK;
      }
      if (*stored && lowestCompared >= 0 && (*stored)->Mod() > lowestCompared) {
        // Another writer came after the attempt whose answer was lost: look
        // back through the key's history for that attempt.
        std::optional<Stored> own;
        if (FindOwn(name, (*stored)->Mod(), lowestCompared, nonces, &own) && own) {
          entry = own->entry;
          return NOK_OK;
        }
      }
      if (update->accept && !update->accept(*stored ? &(*stored)->entry : nullptr)) {
        if (!read) continue;
        Remember(name, *stored);
        return NOK_EXISTS;
      }
      const std::string nonce = boost::uuids::to_string(uuids_());
      nonces.insert(nonce);
      const int64_t compared = *stored ? (*stored)->Mod() : 0;
      const LeaseId bound = update->entry.lease;
      const LeaseId lease = bound ? bound : *stored ? (*stored)->entry.lease : 0;
      const std::string value = Encode(entry, nonce);
      json success = json::array({PutOp(name, value, lease), PutOp(IndexKey(entry), value, lease)});
      if (*stored && (*stored)->entry.ownerHost != entry.ownerHost) {
        success.push_back(DeleteOp(IndexKey((*stored)->entry)));
      }
      const json readBack = {{"request_range", {{"key", EtcdClient::ToBase64(name)}}}};
      json txn = {{"compare", json::array({ModIs(name, compared)})},
                  {"success", success},
                  {"failure", json::array({readBack})}};
      json reply;
      EtcdResult result = client_.Call("/v3/kv/txn", txn, &reply);
      // The stored entry's lease ran out since it was read: read it again.
      if (result.outcome == EtcdResult::kRefused && result.code == 5) {
        if (bound) return NOK_NOT_FOUND;  // the lease it names is gone
        continue;
      }
      if (result.outcome == EtcdResult::kRefused) return Failed("write an entry", result);
      if (!result.Ok() || result.retried) {
        lowestCompared = lowestCompared < 0 ? compared : std::min(lowestCompared, compared);
      }
      if (!result.Ok()) {
        if (++unanswered == kUnansweredWrites) return Failed("write an entry", result);
        continue;
      }
      if (reply.value("succeeded", false)) {
        entry.version = uint64_t(Number(reply.value("header", json::object()), "revision"));
        entry.lease = lease;
        Remember(name, Stored{entry, nonce});
        return NOK_OK;
      }
      // Another writer came first: decide again on what it stored.
      const json& responses = reply.value("responses", json::array());
      if (responses.empty() || !responses[0].contains("response_range")) continue;
      FirstOf(responses[0]["response_range"], stored);
      known = read = true;
    }
  }

  void Remember(const std::string& name, const std::optional<Stored>& stored) {
    // Identities come and go (a fresh one per interface publication): past
    // the bound, what was remembered is forgotten and read again when needed.
    if (lastSeen_.size() >= kRemembered) lastSeen_.clear();
    lastSeen_[name] = stored;
  }

  // Walks back from revision `from` through the versions of `name` newer
  // than `downTo`, for one written with one of `nonces`. False when the
  // history could not be read (compacted); then `*own` stays empty.
  bool FindOwn(const std::string& name, int64_t from, int64_t downTo,
               const std::set<std::string>& nonces, std::optional<Stored>* own) {
    for (int64_t revision = from - 1; revision > downTo;) {
      std::optional<Stored> older;
      if (ReadOne(name, revision, &older, "read an entry's history") != NOK_OK) return false;
      if (!older || older->Mod() <= downTo) return true;
      if (nonces.count(older->nonce)) {
        *own = std::move(older);
        return true;
      }
      revision = older->Mod() - 1;
    }
    return true;
  }

  void Queue(std::vector<Notice> notices) {
    {
      std::lock_guard<std::mutex> lock(watchMu_);
      for (Notice& notice : notices) pending_.push_back(std::move(notice));
    }
    watchCv_.notify_all();
  }

  // Ends the watch's stream and waits for the subscribers to catch up.
  bool Backlogged() {
    std::lock_guard<std::mutex> lock(watchMu_);
    return pending_.size() >= kEtcdDirectoryBacklog;
  }

  void WatchLoop() {
    bool resync = false;
    bool failing = false;
    int64_t next = 0;  // the first revision not yet seen; 0 before the first watch
    for (;;) {
      {
        std::unique_lock<std::mutex> lock(watchMu_);
        // Subscribers first catch up with what they were given.
        watchCv_.wait(lock, [&] { return stopping_ || pending_.size() < kEtcdDirectoryBacklog / 2; });
        if (stopping_) return;
      }
      if (resync && !Resync(&next)) {
        Pause();
        continue;
      }
      resync = false;
      json create = {{"key", EtcdClient::ToBase64(entries_)},
                     {"range_end", EtcdClient::ToBase64(RangeEnd(entries_))}};
      if (next) create["start_revision"] = std::to_string(next);
      enum { kBroken, kCompacted, kBehind } ended = kBroken;
      std::string why;
      EtcdResult result = client_.Stream(
          "/v3/watch", {{"create_request", create}},
          [&](const json& message) {
            if (message.contains("error")) {
              why = message["error"].value("message", message["error"].dump());
              return false;
            }
            const json& body = message.value("result", json::object());
            if (body.value("created", false)) {
              if (!next) next = Number(body.value("header", json::object()), "revision") + 1;
              failing = false;
              std::lock_guard<std::mutex> lock(watchMu_);
              resync = resync || resyncWhenCreated_;
              resyncWhenCreated_ = false;
              created_ = true;
              watchCv_.notify_all();
            }
            if (body.value("canceled", false)) {
              ended = Number(body, "compact_revision") ? kCompacted : kBroken;
              why = body.value("cancel_reason", "the watch was canceled");
              return false;
            }
            std::vector<Notice> notices;
            for (const json& event : body.value("events", json::array())) {
              Stored stored;
              if (!Decode(event.value("kv", json::object()), &stored)) continue;
              const bool deleted = event.value("type", "PUT") == "DELETE";
              if (deleted) {
                stored.entry.ownerHost.clear();
                stored.entry.payload.clear();
              }
              notices.push_back({deleted ? NOK_NOT_FOUND : NOK_OK, std::move(stored.entry)});
              next = std::max(next, stored.Mod() + 1);
            }
            Queue(std::move(notices));
            if (resync) return false;
            if (Backlogged()) ended = kBehind;
            return ended != kBehind;
          },
          &stop_);
      if (stop_.Stopped()) return;
      if (ended == kCompacted || ended == kBehind) {
        // kBehind resumes at `next`; if that is compacted meanwhile, the
        // watch answers kCompacted then.
        resync = resync || ended == kCompacted;
        failing = false;
        continue;
      }
      if (resync) continue;  // created after subscribers were told it was not
      if (!failing) {
        ZEL_LOG_WARNING("%s: The watch of the cluster directory ended, watching again: %s", kTag,
                        why.empty() ? result.message.c_str() : why.c_str());
      }
      failing = true;
      Pause();
    }
  }

  void Pause() {
    std::unique_lock<std::mutex> lock(watchMu_);
    watchCv_.wait_for(lock, kWatchRetryPause, [&] { return stopping_; });
  }

  // The watch lost its place: every subscriber is told so, then given the
  // current state of its key, read at one revision, and the watch goes on
  // after that revision.
  bool Resync(int64_t* next) {
    const std::set<std::pair<uint32_t, std::string>> keys = subscriptions_.Keys();
    std::vector<Notice> notices;
    notices.push_back({kLostTrack, DirectoryEntry(), true});
    // The revision of the state given: taken by a range that finds nothing
    // (no key of the layout has an empty type), so that it is known even
    // without subscriptions.
    std::vector<Stored> found;
    int64_t revision = 0;
    if (Range(entries_ + "/", &revision, &found, "read the current state") != NOK_OK) return false;
    for (const auto& key : keys) {
      const std::string from = TypePrefix(entries_, key.first) + Escape(key.second) + "/";
      if (Range(from, &revision, &found, "read the current state") != NOK_OK) return false;
      for (Stored& stored : found) notices.push_back({NOK_OK, std::move(stored.entry)});
      if (found.empty()) {
        DirectoryEntry gone;
        gone.type = key.first;
        gone.key = key.second;
        notices.push_back({NOK_NOT_FOUND, gone});
      }
    }
    Queue(std::move(notices));
    *next = revision + 1;
    return true;
  }

  void DeliveryLoop() {
    for (;;) {
      Notice notice;
      {
        std::unique_lock<std::mutex> lock(watchMu_);
        watchCv_.wait(lock, [&] { return stopping_ || !pending_.empty(); });
        if (stopping_) return;
        notice = std::move(pending_.front());
        pending_.pop_front();
        if (pending_.size() < kEtcdDirectoryBacklog / 2) watchCv_.notify_all();
      }
      Deliver(notice);
    }
  }

  void Deliver(const Notice& notice) {
    if (notice.everyone) {
      subscriptions_.DeliverLostTrack(notice.status);
    } else {
      subscriptions_.Deliver(notice.status, notice.entry);
    }
  }

  EtcdClient client_;
  const std::string prefix_;
  const std::string entries_;  // prefix_ entries/
  const std::string byHost_;   // prefix_ by-host/

  // The update worker, and what only it touches.
  boost::uuids::random_generator uuids_;
  // What this directory last wrote or read under each identity it wrote.
  std::map<std::string, std::optional<Stored>> lastSeen_;
  SerialWorker worker_;

  // The watch and the delivery of its changes.
  std::mutex watchMu_;
  std::condition_variable watchCv_;
  bool stopping_ = false;
  bool created_ = false;            // the watch was created once
  bool resyncWhenCreated_ = false;  // a Subscribe returned before that
  std::deque<Notice> pending_;
  EtcdStreamStop stop_;
  std::thread watcher_;
  std::thread delivery_;

  Subscriptions subscriptions_;  // delivered to by the delivery thread
};

}  // namespace

std::unique_ptr<Directory> NewEtcdDirectory(std::vector<std::string> endpoints,
                                                std::string prefix) {
  if (endpoints.empty()) {
    ZEL_LOG_WARNING("%s: No endpoint of the cluster directory was given", kTag);
    return nullptr;
  }
  if (!prefix.empty() && prefix.back() != '/') prefix += '/';
  return std::make_unique<EtcdDirectory>(std::move(endpoints), std::move(prefix));
}

}  // namespace platform
}  // namespace zel
