// A client of an etcd cluster's JSON gateway: POSTs of JSON bodies under
// /v3/ over HTTP/1.1, and the newline-delimited JSON streams of watches.
//
// Keys and values travel in standard Base64 and 64-bit numbers as strings
// (lease ids exceed what a JSON double holds); ToBase64 and FromBase64 are
// the conversions. Several endpoints may be given: a call that gets no answer
// from one tries the next, and the endpoint that answered is tried first by
// the next call.
//
// The client's timeouts are well under the server's own (7 s), so that a
// cluster without quorum makes a call fail instead of hang. They are real
// time, as a network's are, not the host clock's.
//
// Thread safety: every method may be called from any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace zel {
namespace platform {

// One try at one endpoint, and one call across all of them.
constexpr std::chrono::milliseconds kEtcdTryTimeout{2000};
constexpr std::chrono::milliseconds kEtcdCallDeadline{4000};

struct EtcdResult {
  enum Outcome {
    kOk,          // answered; the reply is filled in
    kRefused,     // the cluster answered with an error: nothing was done
    kUnanswered,  // no member answered in time: a write may have been applied or not
  };
  Outcome outcome = kOk;
  int code = 0;         // the gRPC code of a refusal (5 not found, 11 compacted, ...)
  std::string message;  // says what happened, naming the endpoints when none answered
  // An earlier try of this call may have reached a member before one
  // answered: a write may have been applied by that try.
  bool retried = false;

  bool Ok() const { return outcome == kOk; }
};

// Ends a Stream call that another thread is in, and every later one.
class EtcdStreamStop {
 public:
  void Stop();
  bool Stopped();

 private:
  friend class EtcdClient;
  std::mutex mutex_;
  void* multi_ = nullptr;  // the CURLM of the stream in progress, woken by Stop
  bool stopped_ = false;
};

class EtcdClient {
 public:
  // `endpoints` are base URLs ("http://127.0.0.1:2379"); not empty.
  explicit EtcdClient(std::vector<std::string> endpoints);
  ~EtcdClient();
  EtcdClient(const EtcdClient&) = delete;
  EtcdClient& operator=(const EtcdClient&) = delete;

  // POSTs `request` to `path` ("/v3/kv/range") and parses the answer into
  // `*reply`. Tries the endpoints in turn, about kEtcdTryTimeout each, until
  // one answers or kEtcdCallDeadline has passed.
  EtcdResult Call(const std::string& path, const nlohmann::json& request, nlohmann::json* reply);

  // POSTs `request` to the streaming `path` ("/v3/watch") on the first
  // endpoint that takes the connection, and hands each message of the answer
  // to `onMessage` until it returns false (then kOk), `stop` is stopped (kOk)
  // or the stream ends (kUnanswered: the member went away or refused; the
  // next Stream starts at the next endpoint). Streams are sent with the
  // header that makes a member without a leader end them with an error
  // message instead of keeping them open in silence.
  EtcdResult Stream(const std::string& path, const nlohmann::json& request,
                    const std::function<bool(const nlohmann::json& message)>& onMessage,
                    EtcdStreamStop* stop);

  // "http://a:2379, http://b:2379", for messages.
  const std::string& Describe() const { return description_; }

  static std::string ToBase64(const std::string& bytes);
  // False when `text` is not standard Base64.
  static bool FromBase64(const std::string& text, std::string* bytes);

 private:
  struct Handle;

  std::unique_ptr<Handle> TakeHandle();
  void GiveBack(std::unique_ptr<Handle> handle);
  void Advance(size_t from);

  const std::vector<std::string> endpoints_;
  const std::string description_;
  std::atomic<size_t> current_{0};  // the endpoint that answered last
  std::mutex poolMutex_;
  std::vector<std::unique_ptr<Handle>> pool_;  // idle connections, reused
};

}  // namespace platform
}  // namespace zel
