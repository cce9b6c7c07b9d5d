// An HTTP/1.1 server that no client can stall or swell: one thread waits
// on every connection at once and reads each request only as far as its
// bounds (see http_request.h) and a deadline for the whole request allow;
// routes run on threads of their own once their request is whole, and the
// answers are written back by the waiting thread. A slow, idle or huge
// client costs a socket and a few kilobytes, never a thread.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "framework/serve/connection_io.h"
#include "framework/serve/http_request.h"
#include "framework/serve/tls_server.h"

namespace framework {

// A request must be whole this long after its first byte; an answer must
// move at least once in this time; a kept-alive connection may wait this
// long for its next request.
inline constexpr auto kRequestDeadline = std::chrono::seconds(10);
inline constexpr auto kWriteStall = std::chrono::seconds(10);
inline constexpr auto kIdleConnection = std::chrono::seconds(5);
// Connections held at once at most (fewer when the process may not open
// that many descriptors).
inline constexpr int kMaxConnections = 4096;
// Routes that wait on the collector or run commands: threads, and requests
// that may wait for one before the next is answered 503.
inline constexpr int kWorkThreads = 4;
inline constexpr size_t kMaxWaitingWork = 32;
// Open-ended answers (event streams) at once; each holds a thread.
inline constexpr int kMaxStreams = 16;
// Slow admission checks (password hashes) waiting for the one thread that
// makes them; past this a request is answered 503.
inline constexpr size_t kMaxWaitingChecks = 16;

struct HttpResponse {
  int status = 200;
  std::string content_type = "application/json";
  std::vector<std::pair<std::string, std::string>> headers;
  // Shared: one rendering answers every request that waited for it.
  std::shared_ptr<const std::string> body = std::make_shared<const std::string>();

  static HttpResponse With(int status, std::string content_type, std::string body);
};

// The connection of an open-ended answer, owned by its route's thread.
class HttpStream {
 public:
  HttpStream(ConnectionIo* io, const std::atomic<bool>* stopping) : io_(io), stopping_(stopping) {}

  // Answers once instead of streaming (a refusal, say).
  void Answer(const HttpResponse& response);
  // Sends the head of an answer whose body lasts until the connection
  // ends; then Write() its parts. Both false once the consumer has gone,
  // or took nothing for kWriteStall.
  bool Begin(const std::string& content_type, const std::vector<std::pair<std::string, std::string>>& headers);
  bool Write(const char* data, size_t size);
  // The server is stopping: the route should return.
  bool Stopping() const { return stopping_->load(); }

 private:
  ConnectionIo* io_;
  const std::atomic<bool>* stopping_;
};

struct HttpRoute {
  enum class Kind {
    // Answered from memory at once. Requests for the route that arrive
    // while it is being answered share the next answer, so a flood of
    // them costs one rendering at a time.
    kShared,
    // May wait on the collector or run a command: taken by kWorkThreads
    // threads of their own, so they never hold up shared routes.
    kWork,
    // Holds its connection for as long as the consumer stays.
    kStream,
  };
  std::string method;  // GET routes answer HEAD too
  std::string path;
  bool prefix = false;  // `path` begins the paths the route answers
  Kind kind = Kind::kShared;
  std::function<HttpResponse(const HttpRequest&)> answer;     // kShared, kWork
  std::function<void(const HttpRequest&, HttpStream&)> stream;  // kStream
};

// Why a request was refused before a route saw it.
enum class Refusal {
  kHost, kToken, kAuth, kMalformed, kLine, kHeaders, kBody, kDeadline, kConnections, kBusy, kStreams, kTls };
inline constexpr std::array<const char*, 12> kRefusalNames = {
    "host", "token", "auth", "malformed", "line", "headers", "body", "deadline", "connections", "busy", "streams",
    "tls"};

// The server's counters; any thread may read them while it runs.
struct HttpCounters {
  std::array<std::atomic<uint64_t>, kRefusalNames.size()> refused{};
  std::atomic<uint64_t> answered{0};
  std::atomic<int> connections{0};
  std::atomic<int> streams{0};
};

// A refusal: why, and the answer to give.
using Refused = std::optional<std::pair<Refusal, HttpResponse>>;

// What the admission check says of a whole request before its route.
struct AdmissionDecision {
  Refused refused;  // set: answer this instead of the route
  // Set: the check is slow (a password hash), so it runs on a thread of
  // its own, never the waiting one, and its result decides instead.
  std::function<Refused()> later;
};

class HttpServer {
 public:
  // Called on the server's waiting thread, so it must be quick.
  using Admission = std::function<AdmissionDecision(const HttpRequest&)>;

  // Listens on host:port (0: a free port) and serves the routes on threads
  // of its own, counting into *counters (which must outlive the server);
  // with `tls`, every connection speaks TLS. Null with *error set when the
  // address cannot be had.
  static std::unique_ptr<HttpServer> Start(const std::string& host, int port, std::vector<HttpRoute> routes,
                                           Admission admit, std::unique_ptr<TlsServer> tls, HttpCounters* counters,
                                           std::string* error);
  ~HttpServer();

  int Port() const;
  // Closes every connection, ends the streams and waits for every thread.
  // From the thread that started the server.
  void Stop();

  struct Impl;

 private:
  explicit HttpServer(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace framework
