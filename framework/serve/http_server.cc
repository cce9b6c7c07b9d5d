#include "framework/serve/http_server.h"

#include <algorithm>
#include <list>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "framework/serve/row_json.h"
#include "framework/serve/task_threads.h"

namespace framework {

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kReadPiece = 16 * 1024;
// Reads of one connection per turn, so a fast sender does not keep the
// others waiting.
constexpr int kReadsPerTurn = 4;
constexpr int kAcceptsPerTurn = 256;
// A refused request's client gets this long to take the answer before its
// connection closes (closing at once, with its bytes unread, would reset
// the connection and lose the answer).
constexpr auto kDrainTime = std::chrono::seconds(2);
// After the process ran out of descriptors, accepting waits this long.
constexpr auto kAcceptPause = std::chrono::milliseconds(100);
// Threads of the shared routes; each renders one route's answer at a time.
constexpr int kSharedThreads = 2;
// A body shorter than this leaves in the same write as the head.
constexpr size_t kJoinedBody = 16 * 1024;

const char* StatusText(int status) {
  switch (status) {
    case 100: return "Continue";
    case 200: return "OK";
    case 400: return "Bad Request";
    case 401: return "Unauthorized";
    case 403: return "Forbidden";
    case 404: return "Not Found";
    case 408: return "Request Timeout";
    case 413: return "Payload Too Large";
    case 414: return "URI Too Long";
    case 431: return "Request Header Fields Too Large";
    case 500: return "Internal Server Error";
    case 501: return "Not Implemented";
    case 503: return "Service Unavailable";
    case 505: return "HTTP Version Not Supported";
    default: return "Unknown";
  }
}

std::string Head(const HttpResponse& response, const size_t* length, bool keep_alive) {
  std::string head = "HTTP/1.1 " + std::to_string(response.status) + " " + StatusText(response.status) +
                     "\r\nContent-Type: " + response.content_type + "\r\n";
  for (const auto& [name, value] : response.headers) head += name + ": " + value + "\r\n";
  if (length != nullptr) head += "Content-Length: " + std::to_string(*length) + "\r\n";
  head += keep_alive ? "Connection: keep-alive\r\n\r\n" : "Connection: close\r\n\r\n";
  return head;
}

HttpResponse ErrorAnswer(int status, const std::string& message) {
  return HttpResponse::With(status, "application/json", WireText({{"error", message}}));
}

int MillisUntil(Clock::time_point deadline, Clock::time_point now) {
  return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(std::max(deadline - now, Clock::duration{}))
                              .count());
}

// Writes all of it to a non-blocking connection; false when the peer went,
// took nothing for kWriteStall, or the server stops.
bool WriteAll(ConnectionIo& io, const char* data, size_t size, const std::atomic<bool>& stopping) {
  auto stall = Clock::now() + kWriteStall;
  while (size > 0) {
    const long n = io.Write(data, size);
    if (n == platform::kSocketFailed) return false;
    if (n > 0) {
      data += n;
      size -= static_cast<size_t>(n);
      stall = Clock::now() + kWriteStall;
      continue;
    }
    const auto now = Clock::now();
    if (stopping || now >= stall) return false;
    const bool writable = io.WaitsForWritable(true);
    std::vector<platform::SocketWait> wait = {{io.Socket(), !writable, writable}};
    platform::WaitSockets(&wait, std::min(1000, MillisUntil(stall, now)));
  }
  return true;
}

}  // namespace

HttpResponse HttpResponse::With(int status, std::string content_type, std::string body) {
  HttpResponse response;
  response.status = status;
  response.content_type = std::move(content_type);
  response.body = std::make_shared<const std::string>(std::move(body));
  return response;
}

void HttpStream::Answer(const HttpResponse& response) {
  const size_t length = response.body->size();
  const std::string head = Head(response, &length, false);
  if (WriteAll(*io_, head.data(), head.size(), *stopping_))
    WriteAll(*io_, response.body->data(), response.body->size(), *stopping_);
}

bool HttpStream::Begin(const std::string& content_type,
                       const std::vector<std::pair<std::string, std::string>>& headers) {
  HttpResponse response;
  response.content_type = content_type;
  response.headers = headers;
  const std::string head = Head(response, nullptr, false);
  return WriteAll(*io_, head.data(), head.size(), *stopping_);
}

bool HttpStream::Write(const char* data, size_t size) { return WriteAll(*io_, data, size, *stopping_); }

namespace {

struct Connection {
  enum class Phase {
    kReading,   // a request, or the wait for one
    kBusy,      // its route runs
    kWriting,   // the answer
    kDraining,  // after a refusal: the client's bytes are read and dropped
  };
  std::unique_ptr<ConnectionIo> io;
  Phase phase = Phase::kReading;
  HttpRequestReader reader;
  bool request_started = false;
  Clock::time_point deadline;  // of the phase; none while busy
  Clock::time_point since;     // the phase began
  bool keep_alive = true;
  bool head_only = false;
  std::string head;  // the answer's head, and a short body
  std::shared_ptr<const std::string> body;
  size_t sent = 0;  // of head, then of body
};

// A route's answer that came back from its thread, for one connection or
// for everyone waiting on a shared route; or the verdict of a slow
// admission check on `request`.
struct Completion {
  uint64_t connection = 0;
  int shared_route = -1;
  HttpResponse response;
  bool checked = false;
  Refused refused;
  HttpRequest request;
};

Completion Answered(uint64_t connection, int shared_route, HttpResponse response) {
  Completion done;
  done.connection = connection;
  done.shared_route = shared_route;
  done.response = std::move(response);
  return done;
}

struct SharedRoute {
  std::vector<uint64_t> rendering;  // connections the running rendering answers
  std::vector<uint64_t> waiting;    // arrived after it began: the next one answers them
  HttpRequest request;              // the latest waiting request
  bool running = false;
};

struct StreamThread {
  std::thread thread;
  std::atomic<bool> done{false};
};

}  // namespace

// The connections and shared-route states belong to the waiting thread
// (`loop`); the route threads reach it only through `completed` and the
// wake socket.
struct HttpServer::Impl {
  std::vector<HttpRoute> routes;
  Admission admit;
  std::unique_ptr<TlsServer> tls;
  platform::Socket listener = platform::kNoSocket;
  platform::Socket wake[2] = {platform::kNoSocket, platform::kNoSocket};
  int port = 0;
  int max_connections = kMaxConnections;
  HttpCounters* counters = nullptr;
  std::atomic<bool> stopping{false};

  std::unordered_map<uint64_t, Connection> connections;
  uint64_t next_id = 1;
  std::vector<SharedRoute> shared;
  std::vector<uint64_t> pipelined;  // connections whose next request may have arrived whole
  Clock::time_point accept_paused_until;
  std::list<StreamThread> streams;

  std::mutex completed_lock;
  std::vector<Completion> completed;

  TaskThreads shared_threads{kSharedThreads, SIZE_MAX};
  TaskThreads work_threads{kWorkThreads, kMaxWaitingWork};
  TaskThreads check_threads{1, kMaxWaitingChecks};
  std::thread loop;

  void Run();
  void Count(Refusal reason) { ++counters->refused[static_cast<size_t>(reason)]; }
  void Wake();
  void Complete(Completion completion);
  void TakeCompletions();
  void AcceptAll(Clock::time_point now);
  bool Evict();
  void Serve(uint64_t id, Clock::time_point now);
  void Read(uint64_t id, Connection& c, Clock::time_point now);
  void Ended(uint64_t id, Connection& c, Clock::time_point now);
  bool Consume(uint64_t id, Connection& c, const char* data, size_t size, Clock::time_point now);
  void Dispatch(uint64_t id, Connection& c, HttpRequest request, Clock::time_point now);
  void Admitted(uint64_t id, Connection& c, HttpRequest request, Clock::time_point now);
  void Checked(Completion& done, Clock::time_point now);
  void RunShared(size_t route);
  void Answer(uint64_t id, Connection& c, const HttpResponse& response, Clock::time_point now);
  void Write(uint64_t id, Connection& c, Clock::time_point now);
  void Drain(uint64_t id, Connection& c);
  void Refuse(uint64_t id, Connection& c, Refusal reason, int status, const std::string& message,
              Clock::time_point now);
  void StartStream(Connection& c, size_t route, HttpRequest request);
  void Close(uint64_t id);
  void Expire(Clock::time_point now);
  Clock::time_point NextDeadline(Clock::time_point now) const;
  void ReapStreams(bool all);
};

void HttpServer::Impl::Run() {
  while (!stopping) {
    ReapStreams(false);
    Clock::time_point now = Clock::now();
    std::vector<uint64_t> resumed;
    resumed.swap(pipelined);
    for (uint64_t id : resumed) {
      auto it = connections.find(id);
      if (it != connections.end() && it->second.phase == Connection::Phase::kReading)
        Consume(id, it->second, nullptr, 0, now);
    }
    std::vector<platform::SocketWait> waits = {{wake[0], true, false}};
    const bool accepting = now >= accept_paused_until;
    if (accepting) waits.push_back({listener, true, false});
    std::vector<uint64_t> ids;
    std::vector<bool> buffered;  // holds decrypted bytes the socket will not signal
    for (const auto& [id, c] : connections) {
      if (c.phase == Connection::Phase::kBusy) continue;
      const bool writable = c.io->WaitsForWritable(c.phase == Connection::Phase::kWriting);
      waits.push_back({c.io->Socket(), !writable, writable});
      ids.push_back(id);
      buffered.push_back(c.phase != Connection::Phase::kWriting && c.io->Buffered());
    }
    const bool ready_now = !pipelined.empty() || std::find(buffered.begin(), buffered.end(), true) != buffered.end();
    const int timeout = ready_now ? 0 : std::min(1000, MillisUntil(NextDeadline(now), now));
    if (platform::WaitSockets(&waits, timeout) < 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
      continue;
    }
    now = Clock::now();
    size_t at = 0;
    if (waits[at++].ready) TakeCompletions();
    if (accepting && waits[at++].ready) AcceptAll(now);
    for (size_t i = 0; i < ids.size(); ++i)
      if (waits[at + i].ready || buffered[i]) Serve(ids[i], now);
    Expire(Clock::now());
  }
}

void HttpServer::Impl::Wake() {
  const char byte = 1;
  platform::WriteSocket(wake[1], &byte, 1);  // when full, the waiting thread has wake-ups to read already
}

void HttpServer::Impl::Complete(Completion completion) {
  {
    std::lock_guard<std::mutex> guard(completed_lock);
    completed.push_back(std::move(completion));
  }
  Wake();
}

void HttpServer::Impl::TakeCompletions() {
  char bytes[256];
  while (platform::ReadSocket(wake[0], bytes, sizeof bytes) > 0) {
  }
  std::vector<Completion> taken;
  {
    std::lock_guard<std::mutex> guard(completed_lock);
    taken.swap(completed);
  }
  const auto now = Clock::now();
  for (Completion& done : taken) {
    if (done.checked) {
      Checked(done, now);
      continue;
    }
    std::vector<uint64_t> answered = {done.connection};
    if (done.shared_route >= 0) {
      SharedRoute& route = shared[static_cast<size_t>(done.shared_route)];
      answered.swap(route.rendering);
      route.running = false;
      if (!route.waiting.empty()) RunShared(static_cast<size_t>(done.shared_route));
    }
    for (uint64_t id : answered) {
      auto it = connections.find(id);
      if (it != connections.end() && it->second.phase == Connection::Phase::kBusy)
        Answer(id, it->second, done.response, now);
    }
  }
}

void HttpServer::Impl::AcceptAll(Clock::time_point now) {
  for (int i = 0; i < kAcceptsPerTurn; ++i) {
    bool exhausted = false;
    const platform::Socket socket = platform::AcceptTcp(listener, &exhausted);
    if (socket == platform::kNoSocket) {
      // Out of descriptors the waiting connection stays queued and the
      // listener stays readable: make room, or wait a little.
      if (exhausted && Evict()) continue;
      if (exhausted) {
        Count(Refusal::kConnections);
        accept_paused_until = now + kAcceptPause;
      }
      return;
    }
    if (static_cast<int>(connections.size()) >= max_connections && !Evict()) {
      Count(Refusal::kConnections);
      if (tls) {  // a TLS client could not read a plain answer
        platform::CloseSocket(socket);
        continue;
      }
      const HttpResponse answer = ErrorAnswer(503, "too many connections");
      const size_t length = answer.body->size();
      const std::string refusal = Head(answer, &length, false) + *answer.body;
      platform::WriteSocket(socket, refusal.data(), refusal.size());
      platform::CloseSocket(socket);
      continue;
    }
    Connection& c = connections[next_id++];
    c.io = tls ? tls->Accept(socket) : PlainIo(socket);
    c.since = now;
    c.deadline = now + kIdleConnection;
    ++counters->connections;
  }
}

// Closes the connection that has waited longest for a request to make room
// for a new one; false when every connection is being answered.
bool HttpServer::Impl::Evict() {
  auto oldest = connections.end();
  for (auto it = connections.begin(); it != connections.end(); ++it)
    if (it->second.phase == Connection::Phase::kReading &&
        (oldest == connections.end() || it->second.since < oldest->second.since))
      oldest = it;
  if (oldest == connections.end()) return false;
  Count(Refusal::kConnections);
  Close(oldest->first);
  return true;
}

void HttpServer::Impl::Serve(uint64_t id, Clock::time_point now) {
  auto it = connections.find(id);
  if (it == connections.end()) return;  // made room for a new one this turn
  Connection& c = it->second;
  switch (c.phase) {
    case Connection::Phase::kReading: return Read(id, c, now);
    case Connection::Phase::kWriting: return Write(id, c, now);
    case Connection::Phase::kDraining: return Drain(id, c);
    case Connection::Phase::kBusy: return;
  }
}

void HttpServer::Impl::Read(uint64_t id, Connection& c, Clock::time_point now) {
  char piece[kReadPiece];
  for (int i = 0; i < kReadsPerTurn; ++i) {
    const long n = c.io->Read(piece, sizeof piece);
    // A TLS handshake is the first request's beginning: the same deadline
    // bounds both together.
    if (!c.request_started && c.io->HandshakeStarted()) {
      c.request_started = true;
      c.deadline = now + kRequestDeadline;
    }
    if (n == platform::kWouldBlock) return;
    if (n <= 0) return Ended(id, c, now);
    if (!Consume(id, c, piece, static_cast<size_t>(n), now)) return;
  }
}

// The connection's reading ended: the peer left, or a TLS handshake failed.
void HttpServer::Impl::Ended(uint64_t id, Connection& c, Clock::time_point now) {
  switch (c.io->LastFailure()) {
    case ConnectionIo::Failure::kNone: return Close(id);
    case ConnectionIo::Failure::kHandshake:
      Count(Refusal::kTls);
      return Close(id);
    case ConnectionIo::Failure::kPlainHttp:
      // The client speaks plain HTTP: tell it so in plain HTTP.
      c.io = PlainIo(c.io->Socket());
      return Refuse(id, c, Refusal::kTls, 400, "this endpoint speaks HTTPS: use an https:// address", now);
  }
}

bool HttpServer::Impl::Consume(uint64_t id, Connection& c, const char* data, size_t size, Clock::time_point now) {
  HttpRequestReader::Progress progress = c.reader.Feed(data, size);
  if (!c.request_started && c.reader.Started()) {
    c.request_started = true;
    c.deadline = now + kRequestDeadline;
  }
  if (progress == HttpRequestReader::Progress::kHeadRead) {
    static const char kContinue[] = "HTTP/1.1 100 Continue\r\n\r\n";
    if (c.reader.ExpectsContinue()) c.io->Write(kContinue, sizeof kContinue - 1);
    progress = c.reader.Feed(nullptr, 0);
  }
  if (progress == HttpRequestReader::Progress::kDone) {
    Dispatch(id, c, c.reader.Take(), now);
    return false;
  }
  if (progress == HttpRequestReader::Progress::kRefused) {
    const auto& refused = c.reader.Refused();
    const auto reason = std::find(kRefusalNames.begin(), kRefusalNames.end(), refused.reason);
    Refuse(id, c, static_cast<Refusal>(reason - kRefusalNames.begin()), refused.status, refused.message, now);
    return false;
  }
  return true;
}

void HttpServer::Impl::Dispatch(uint64_t id, Connection& c, HttpRequest request, Clock::time_point now) {
  c.phase = Connection::Phase::kBusy;
  c.since = now;
  c.keep_alive = request.keep_alive;
  c.head_only = request.method == "HEAD";
  AdmissionDecision decision = admit(request);
  if (decision.refused) {
    Count(decision.refused->first);
    return Answer(id, c, decision.refused->second, now);
  }
  if (!decision.later) return Admitted(id, c, std::move(request), now);
  const bool queued = check_threads.Post([this, id, check = std::move(decision.later), request]() mutable {
    Completion done;
    done.connection = id;
    done.checked = true;
    done.refused = check();
    done.request = std::move(request);
    Complete(std::move(done));
  });
  if (queued) return;
  Count(Refusal::kBusy);
  HttpResponse busy = ErrorAnswer(503, "the endpoint is busy checking other passwords; try again");
  busy.headers.emplace_back("Retry-After", "1");
  Answer(id, c, busy, now);
}

void HttpServer::Impl::Checked(Completion& done, Clock::time_point now) {
  auto it = connections.find(done.connection);
  if (it == connections.end() || it->second.phase != Connection::Phase::kBusy) return;
  if (!done.refused) return Admitted(done.connection, it->second, std::move(done.request), now);
  Count(done.refused->first);
  Answer(done.connection, it->second, done.refused->second, now);
}

void HttpServer::Impl::Admitted(uint64_t id, Connection& c, HttpRequest request, Clock::time_point now) {
  const std::string method = c.head_only ? "GET" : request.method;
  size_t route = 0;
  for (; route < routes.size(); ++route) {
    const HttpRoute& r = routes[route];
    if (r.method == method && (r.prefix ? request.path.rfind(r.path, 0) == 0 : request.path == r.path)) break;
  }
  if (route == routes.size())
    return Answer(id, c, ErrorAnswer(404, "no such resource: " + request.method + " " + request.path), now);
  switch (routes[route].kind) {
    case HttpRoute::Kind::kShared: {
      SharedRoute& s = shared[route];
      s.waiting.push_back(id);
      s.request = std::move(request);
      if (!s.running) RunShared(route);
      return;
    }
    case HttpRoute::Kind::kWork: {
      const bool queued = work_threads.Post([this, id, route, request = std::move(request)] {
        Complete(Answered(id, -1, routes[route].answer(request)));
      });
      if (queued) return;
      Count(Refusal::kBusy);
      return Answer(id, c,
                    ErrorAnswer(503, "the endpoint is busy: " + std::to_string(kWorkThreads + kMaxWaitingWork) +
                                         " samples or actions are under way or waiting"),
                    now);
    }
    case HttpRoute::Kind::kStream:
      if (counters->streams >= kMaxStreams) {
        Count(Refusal::kStreams);
        return Answer(id, c,
                      ErrorAnswer(503, "too many event consumers (at most " + std::to_string(kMaxStreams) + ")"),
                      now);
      }
      StartStream(c, route, std::move(request));
      connections.erase(id);  // the stream's thread owns the socket now
      return;
  }
}

void HttpServer::Impl::RunShared(size_t route) {
  SharedRoute& s = shared[route];
  s.running = true;
  s.rendering.swap(s.waiting);
  s.waiting.clear();
  shared_threads.Post([this, route, request = s.request] {
    Complete(Answered(0, static_cast<int>(route), routes[route].answer(request)));
  });
}

void HttpServer::Impl::Answer(uint64_t id, Connection& c, const HttpResponse& response, Clock::time_point now) {
  const size_t length = response.body->size();
  c.head = Head(response, &length, c.keep_alive);
  c.body.reset();
  if (!c.head_only && length < kJoinedBody) c.head += *response.body;
  else if (!c.head_only) c.body = response.body;
  c.sent = 0;
  c.phase = Connection::Phase::kWriting;
  c.since = now;
  c.deadline = now + kWriteStall;
  ++counters->answered;
  Write(id, c, now);
}

void HttpServer::Impl::Write(uint64_t id, Connection& c, Clock::time_point now) {
  for (;;) {
    const bool in_head = c.sent < c.head.size();
    const size_t body_size = c.body ? c.body->size() : 0;
    if (!in_head && c.sent - c.head.size() >= body_size) break;
    const char* from = in_head ? c.head.data() + c.sent : c.body->data() + (c.sent - c.head.size());
    const size_t left = in_head ? c.head.size() - c.sent : body_size - (c.sent - c.head.size());
    const long n = c.io->Write(from, left);
    if (n == platform::kWouldBlock) return;
    if (n <= 0) return Close(id);
    c.sent += static_cast<size_t>(n);
    c.deadline = now + kWriteStall;
  }
  c.head.clear();
  c.head.shrink_to_fit();
  c.body.reset();
  c.since = now;
  if (!c.keep_alive) {
    // The client may still be sending what was refused: take it and drop
    // it until it sees the answer and leaves.
    c.io->ShutdownSending();
    c.phase = Connection::Phase::kDraining;
    c.deadline = now + kDrainTime;
    return;
  }
  c.phase = Connection::Phase::kReading;
  c.request_started = c.reader.Started();
  c.deadline = now + (c.request_started ? kRequestDeadline : kIdleConnection);
  // A request the client sent before this answer ended may be whole
  // already; the next turn reads it.
  if (c.request_started) pipelined.push_back(id);
}

void HttpServer::Impl::Drain(uint64_t id, Connection& c) {
  char piece[kReadPiece];
  for (int i = 0; i < kReadsPerTurn; ++i) {
    const long n = c.io->Read(piece, sizeof piece);
    if (n == platform::kWouldBlock) return;
    if (n <= 0) return Close(id);
  }
}

void HttpServer::Impl::Refuse(uint64_t id, Connection& c, Refusal reason, int status, const std::string& message,
                              Clock::time_point now) {
  Count(reason);
  c.phase = Connection::Phase::kBusy;
  c.keep_alive = false;
  c.head_only = false;
  Answer(id, c, ErrorAnswer(status, message), now);
}

void HttpServer::Impl::StartStream(Connection& c, size_t route, HttpRequest request) {
  StreamThread& t = streams.emplace_back();
  ++counters->streams;
  t.thread = std::thread([this, &t, io = std::move(c.io), route, request = std::move(request)] {
    HttpStream stream(io.get(), &stopping);
    routes[route].stream(request, stream);
    io->ShutdownSending();
    platform::CloseSocket(io->Socket());
    --counters->streams;
    --counters->connections;
    t.done = true;
  });
}

void HttpServer::Impl::Close(uint64_t id) {
  auto it = connections.find(id);
  platform::CloseSocket(it->second.io->Socket());
  connections.erase(it);
  --counters->connections;
}

void HttpServer::Impl::Expire(Clock::time_point now) {
  std::vector<uint64_t> expired;
  for (const auto& [id, c] : connections)
    if (c.phase != Connection::Phase::kBusy && now >= c.deadline) expired.push_back(id);
  for (uint64_t id : expired) {
    Connection& c = connections[id];
    if (c.phase == Connection::Phase::kReading && c.request_started && !c.io->Establishing()) {
      Refuse(id, c, Refusal::kDeadline, 408,
             "the request was not whole within " + std::to_string(kRequestDeadline.count()) + " s", now);
      continue;
    }
    // An answer not taken, or a TLS handshake not done in time (no answer
    // can reach its client).
    if (c.phase == Connection::Phase::kWriting || (c.phase == Connection::Phase::kReading && c.request_started))
      Count(Refusal::kDeadline);
    Close(id);  // idle, or a drained refusal
  }
}

Clock::time_point HttpServer::Impl::NextDeadline(Clock::time_point now) const {
  Clock::time_point next = now + std::chrono::seconds(1);
  for (const auto& [id, c] : connections)
    if (c.phase != Connection::Phase::kBusy) next = std::min(next, c.deadline);
  if (now < accept_paused_until) next = std::min(next, accept_paused_until);
  return next;
}

void HttpServer::Impl::ReapStreams(bool all) {
  for (auto it = streams.begin(); it != streams.end();) {
    if (!all && !it->done) {
      ++it;
      continue;
    }
    it->thread.join();
    it = streams.erase(it);
  }
}

HttpServer::HttpServer(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

HttpServer::~HttpServer() { Stop(); }

std::unique_ptr<HttpServer> HttpServer::Start(const std::string& host, int port, std::vector<HttpRoute> routes,
                                              Admission admit, std::unique_ptr<TlsServer> tls,
                                              HttpCounters* counters, std::string* error) {
  auto impl = std::make_unique<Impl>();
  impl->tls = std::move(tls);
  impl->counters = counters;
  impl->routes = std::move(routes);
  impl->shared.resize(impl->routes.size());
  impl->admit = std::move(admit);
  // Each connection is a descriptor; keep some for the agent's own files.
  impl->max_connections = std::min(kMaxConnections, platform::RaiseDescriptorLimit() - 64);
  impl->listener = platform::ListenTcp(host, port, &impl->port, error);
  if (impl->listener == platform::kNoSocket) return nullptr;
  if (!platform::SocketPair(impl->wake)) {
    *error = "cannot make the endpoint's wake-up sockets";
    platform::CloseSocket(impl->listener);
    return nullptr;
  }
  Impl* raw = impl.get();
  impl->loop = std::thread([raw] { raw->Run(); });
  return std::unique_ptr<HttpServer>(new HttpServer(std::move(impl)));
}

int HttpServer::Port() const { return impl_->port; }

void HttpServer::Stop() {
  Impl& impl = *impl_;
  if (!impl.loop.joinable()) return;
  impl.stopping = true;
  impl.Wake();
  impl.loop.join();
  // Route threads still running write to the wake socket: they end first.
  impl.shared_threads.Stop();
  impl.work_threads.Stop();
  impl.check_threads.Stop();
  impl.ReapStreams(true);
  for (auto& [id, c] : impl.connections) platform::CloseSocket(c.io->Socket());
  impl.connections.clear();
  platform::CloseSocket(impl.listener);
  platform::CloseSocket(impl.wake[0]);
  platform::CloseSocket(impl.wake[1]);
}

}  // namespace framework
