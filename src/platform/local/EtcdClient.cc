#include "platform/local/EtcdClient.h"

#include <curl/curl.h>
#include <sodium.h>

#include <algorithm>
#include <thread>
#include <utility>

namespace zel {
namespace platform {
namespace {

using nlohmann::json;

// After every endpoint refused the connection at once, the next round waits
// this long, so that a call whose members are all down waits out its
// deadline without spinning.
constexpr auto kRoundPause = std::chrono::milliseconds(100);
// How often a stream looks at its stop switch when nothing wakes it.
constexpr int kStreamPollMillis = 1000;

// gRPC codes under which a member did not decide the request: another
// member may, and a write may have been applied anyway.
bool Undecided(int code) {
  return code == 14 /* unavailable */ || code == 4 /* deadline exceeded */ || code == 13 /* internal */;
}

void InitCurlOnce() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

std::string JoinEndpoints(const std::vector<std::string>& endpoints) {
  std::string text;
  for (const std::string& endpoint : endpoints) text += (text.empty() ? "" : ", ") + endpoint;
  return text;
}

size_t AppendBody(char* data, size_t size, size_t count, void* body) {
  static_cast<std::string*>(body)->append(data, size * count);
  return size * count;
}

// The answer of a member that said no: {error, message, code}, or inside a
// stream {error: {grpc_code, http_code, message}}.
EtcdResult Refusal(const json& answer, long httpStatus) {
  EtcdResult result;
  result.outcome = EtcdResult::kRefused;
  const json* error = &answer;
  if (answer.is_object() && answer.contains("error") && answer["error"].is_object()) {
    error = &answer["error"];
  }
  if (error->is_object()) {
    result.code = error->value("code", error->value("grpc_code", 0));
    result.message = error->value("message", "");
  }
  if (result.message.empty()) result.message = "HTTP status " + std::to_string(httpStatus);
  if (Undecided(result.code) || (result.code == 0 && httpStatus >= 500)) {
    result.outcome = EtcdResult::kUnanswered;
  }
  return result;
}

// Common options of every request; no proxy, whatever the environment says:
// the members are named by their own addresses.
// Request headers: JSON, and no "Expect: 100-continue" pause before larger bodies.
curl_slist* Headers() {
  curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json");
  return curl_slist_append(headers, "Expect:");
}

void SetRequest(CURL* curl, const std::string& url, const std::string& body, curl_slist* headers) {
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_PROXY, "");
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.c_str());
  curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, long(body.size()));
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, long(kEtcdTryTimeout.count()));
  curl_easy_setopt(curl, CURLOPT_TCP_KEEPALIVE, 1L);
}

// Splits a stream's bytes into its newline-delimited messages; a message may
// arrive in several pieces.
struct StreamReader {
  const std::function<bool(const json&)>* onMessage = nullptr;
  std::string pending;
  bool answered = false;   // a message arrived
  bool finished = false;   // onMessage asked to end
  bool malformed = false;

  size_t Take(const char* data, size_t size) {
    pending.append(data, size);
    size_t start = 0, end;
    while (!finished && (end = pending.find('\n', start)) != std::string::npos) {
      const std::string line = pending.substr(start, end - start);
      start = end + 1;
      if (line.find_first_not_of(" \r\t") == std::string::npos) continue;
      json message = json::parse(line, nullptr, false);
      answered = true;
      if (message.is_discarded()) {
        malformed = finished = true;
      } else if (!(*onMessage)(message)) {
        finished = true;
      }
    }
    pending.erase(0, start);
    return finished ? 0 : size;  // 0 aborts the transfer
  }

  static size_t Write(char* data, size_t size, size_t count, void* reader) {
    return static_cast<StreamReader*>(reader)->Take(data, size * count);
  }
};

}  // namespace

struct EtcdClient::Handle {
  CURL* curl = curl_easy_init();
  ~Handle() { curl_easy_cleanup(curl); }
};

void EtcdStreamStop::Stop() {
  std::lock_guard<std::mutex> lock(mutex_);
  stopped_ = true;
  if (multi_) curl_multi_wakeup(static_cast<CURLM*>(multi_));
}

bool EtcdStreamStop::Stopped() {
  std::lock_guard<std::mutex> lock(mutex_);
  return stopped_;
}

EtcdClient::EtcdClient(std::vector<std::string> endpoints)
    : endpoints_(std::move(endpoints)), description_(JoinEndpoints(endpoints_)) {
  InitCurlOnce();
}

EtcdClient::~EtcdClient() = default;

std::unique_ptr<EtcdClient::Handle> EtcdClient::TakeHandle() {
  {
    std::lock_guard<std::mutex> lock(poolMutex_);
    if (!pool_.empty()) {
      std::unique_ptr<Handle> handle = std::move(pool_.back());
      pool_.pop_back();
      return handle;
    }
  }
  return std::make_unique<Handle>();
}

void EtcdClient::GiveBack(std::unique_ptr<Handle> handle) {
  curl_easy_reset(handle->curl);
  std::lock_guard<std::mutex> lock(poolMutex_);
  pool_.push_back(std::move(handle));
}

// Moves on from endpoint `from`, unless another call already has.
void EtcdClient::Advance(size_t from) {
  size_t expected = from;
  current_.compare_exchange_strong(expected, (from + 1) % endpoints_.size());
}

EtcdResult EtcdClient::Call(const std::string& path, const json& request, json* reply) {
  const std::string body = request.dump();
  const auto deadline = std::chrono::steady_clock::now() + kEtcdCallDeadline;
  curl_slist* headers = Headers();
  std::unique_ptr<Handle> handle = TakeHandle();
  EtcdResult result;
  size_t at = current_.load();
  size_t refusedInRound = 0;
  bool reached = false;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 || !handle->curl) break;
    std::string answer;
    curl_easy_reset(handle->curl);
    SetRequest(handle->curl, endpoints_[at] + path, body, headers);
    curl_easy_setopt(handle->curl, CURLOPT_TIMEOUT_MS, long(std::min(left, kEtcdTryTimeout).count()));
    curl_easy_setopt(handle->curl, CURLOPT_WRITEFUNCTION, AppendBody);
    curl_easy_setopt(handle->curl, CURLOPT_WRITEDATA, &answer);
    const CURLcode rc = curl_easy_perform(handle->curl);
    long status = 0;
    curl_easy_getinfo(handle->curl, CURLINFO_RESPONSE_CODE, &status);
    if (rc == CURLE_OK) {
      json parsed = json::parse(answer, nullptr, false);
      if (status == 200 && !parsed.is_discarded()) {
        *reply = std::move(parsed);
        result = EtcdResult();
        result.retried = reached;
      } else {
        result = Refusal(parsed, status);
      }
      if (result.outcome != EtcdResult::kUnanswered) {
        current_ = at;
        curl_slist_free_all(headers);
        GiveBack(std::move(handle));
        return result;
      }
    }
    refusedInRound = rc == CURLE_COULDNT_CONNECT ? refusedInRound + 1 : 0;
    reached = reached || rc != CURLE_COULDNT_CONNECT;
    at = (at + 1) % endpoints_.size();
    if (refusedInRound >= endpoints_.size()) {
      refusedInRound = 0;
      std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(
          kRoundPause, std::max<std::chrono::steady_clock::duration>(
                           deadline - std::chrono::steady_clock::now(), {})));
    }
  }
  curl_slist_free_all(headers);
  if (handle->curl) GiveBack(std::move(handle));
  current_ = at;
  result.outcome = EtcdResult::kUnanswered;
  result.code = 0;
  result.retried = reached;
  result.message = "The cluster directory at " + description_ + " did not answer within " +
                   std::to_string(kEtcdCallDeadline.count() / 1000) +
                   " s (no quorum or unreachable)";
  return result;
}

EtcdResult EtcdClient::Stream(const std::string& path, const json& request,
                              const std::function<bool(const json&)>& onMessage,
                              EtcdStreamStop* stop) {
  const std::string body = request.dump();
  curl_slist* headers = curl_slist_append(Headers(), "Grpc-Metadata-hasleader: true");
  CURLM* multi = curl_multi_init();
  EtcdResult result;
  result.outcome = EtcdResult::kUnanswered;
  const size_t first = current_.load();
  for (size_t tried = 0; tried < endpoints_.size() && multi; ++tried) {
    const size_t at = (first + tried) % endpoints_.size();
    CURL* curl = curl_easy_init();
    if (!curl) break;
    StreamReader reader;
    reader.onMessage = &onMessage;
    SetRequest(curl, endpoints_[at] + path, body, headers);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, StreamReader::Write);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &reader);
    curl_multi_add_handle(multi, curl);
    {
      std::lock_guard<std::mutex> lock(stop->mutex_);
      stop->multi_ = multi;
    }
    CURLcode rc = CURLE_OK;
    bool done = false;
    while (!done && !stop->Stopped()) {
      int running = 0;
      curl_multi_perform(multi, &running);
      int queued = 0;
      while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
        if (message->msg == CURLMSG_DONE) {
          rc = message->data.result;
          done = true;
        }
      }
      if (!done) curl_multi_poll(multi, nullptr, 0, kStreamPollMillis, nullptr);
    }
    {
      std::lock_guard<std::mutex> lock(stop->mutex_);
      stop->multi_ = nullptr;
    }
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_multi_remove_handle(multi, curl);
    curl_easy_cleanup(curl);
    if (!done || (reader.finished && !reader.malformed)) {
      // Stopped, or the caller had what it wanted.
      current_ = at;
      result = EtcdResult();
      break;
    }
    if (reader.answered || status != 0) {
      // The member took the stream and then ended it: the caller decides
      // whether to open another, which starts at the next endpoint.
      Advance(at);
      result.message = reader.malformed
                           ? "a malformed message from " + endpoints_[at]
                           : "the stream from " + endpoints_[at] + " ended: " + curl_easy_strerror(rc);
      break;
    }
    result.message = "The cluster directory at " + description_ + " took no watch: " +
                     curl_easy_strerror(rc);
  }
  curl_slist_free_all(headers);
  if (multi) curl_multi_cleanup(multi);
  if (result.outcome == EtcdResult::kUnanswered && result.message.empty()) {
    result.message = "The cluster directory at " + description_ + " took no watch";
  }
  return result;
}

std::string EtcdClient::ToBase64(const std::string& bytes) {
  std::string text(sodium_base64_ENCODED_LEN(bytes.size(), sodium_base64_VARIANT_ORIGINAL), '\0');
  sodium_bin2base64(text.data(), text.size(), reinterpret_cast<const unsigned char*>(bytes.data()),
                    bytes.size(), sodium_base64_VARIANT_ORIGINAL);
  text.resize(text.size() - 1);  // the terminating NUL
  return text;
}

bool EtcdClient::FromBase64(const std::string& text, std::string* bytes) {
  bytes->assign(text.size() / 4 * 3 + 3, '\0');
  size_t length = 0;
  if (sodium_base642bin(reinterpret_cast<unsigned char*>(bytes->data()), bytes->size(), text.data(),
                        text.size(), nullptr, &length, nullptr, sodium_base64_VARIANT_ORIGINAL) != 0) {
    return false;
  }
  bytes->resize(length);
  return true;
}

}  // namespace platform
}  // namespace zel
