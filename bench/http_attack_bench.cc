// HTTP endpoint under attack: a real kzqcoll replaying the demo's rows and a
// real kzqagent -console, attacked from this process over loopback with
// plain sockets - slow clients, idle connections, many connections at once
// (closed after their answer, or kept open),
// a huge request line, a huge header line and a huge chunked body - one
// attack at a time. During each, GET /metrics is timed on a fresh
// connection every 200 ms and the agent's memory sampled; before and after
// each, its memory, descriptors and threads.
//   http_attack_bench [seconds-per-attack] [megabytes]
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/agent_stage.h"

namespace {

using kzq_bench::Agent;
using kzq_bench::Child;
using kzq_bench::Stage;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr auto kProbeEvery = milliseconds(200);
constexpr auto kScrapePatience = seconds(10);  // a scrape slower than this is a timeout
constexpr auto kSocketPatience = seconds(10);  // for a connect, a write, an answer
constexpr auto kSettlePatience = seconds(10);
constexpr auto kFloodCap = seconds(60);  // a huge request gives up after this
constexpr double kUnanswered = std::numeric_limits<double>::infinity();
constexpr size_t kMegabyte = 1 << 20;
const std::string kMetricsRequest = "GET /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";

std::string Format(const char* format, auto... values) {
  char text[512];
  snprintf(text, sizeof text, format, values...);
  return text;
}

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

int MillisUntil(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
}

// ---- sockets ----

// The sockets one attack or scrape holds; all closed with it.
class Sockets {
 public:
  Sockets() = default;
  Sockets(const Sockets&) = delete;
  Sockets& operator=(const Sockets&) = delete;
  ~Sockets() {
    for (int fd : fds_)
      if (fd >= 0) close(fd);
  }
  void Add(int fd) { fds_.push_back(fd); }
  void Close(size_t i) {
    close(fds_[i]);
    fds_[i] = -1;
  }
  // Gives socket `i` over to the caller.
  int Release(size_t i) { return std::exchange(fds_[i], -1); }
  int operator[](size_t i) const { return fds_[i]; }
  size_t Size() const { return fds_.size(); }

 private:
  std::vector<int> fds_;
};

// A non-blocking socket connecting to the agent, or -1 (errno says why).
int StartConnect(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 || errno == EINPROGRESS)
    return fd;
  close(fd);
  return -1;
}

// The events that came on `fd` by `deadline`; 0 if none did.
short WaitFor(int fd, short events, Clock::time_point deadline) {
  pollfd watched{fd, events, 0};
  for (;;) {
    const int ready = poll(&watched, 1, MillisUntil(deadline));
    if (ready > 0) return watched.revents;
    if (ready == 0) return 0;
    if (errno != EINTR) return POLLERR;
  }
}

bool ConnectDone(int fd) {
  int error = 0;
  socklen_t size = sizeof error;
  return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0;
}

bool Connected(int fd, Clock::time_point deadline) {
  return (WaitFor(fd, POLLOUT, deadline) & POLLOUT) != 0 && ConnectDone(fd);
}

enum class Sent { kAll, kClosed, kStalled };

Sent SendAll(int fd, const char* data, size_t size, Clock::time_point deadline) {
  while (size > 0) {
    const ssize_t n = send(fd, data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      data += n;
      size -= static_cast<size_t>(n);
    } else if (n < 0 && errno != EAGAIN && errno != EINTR) {
      return Sent::kClosed;
    } else if ((WaitFor(fd, POLLOUT, deadline) & (POLLOUT | POLLERR | POLLHUP)) == 0) {
      return Sent::kStalled;
    }
  }
  return Sent::kAll;
}

// What the agent said on `fd` so far without waiting: its answer's first
// line, "closed" or "reset" when it left, or "" when it said nothing.
std::string AgentSaid(int fd) {
  if (WaitFor(fd, POLLIN, Clock::now()) == 0) return "";
  char text[256];
  const ssize_t n = recv(fd, text, sizeof text, MSG_DONTWAIT);
  if (n == 0) return "closed";
  if (n < 0) return errno == EAGAIN ? "" : "reset";
  const std::string answer(text, static_cast<size_t>(n));
  return "answered '" + answer.substr(0, answer.find('\r')) + "'";
}

// Opens `count` connections at once and keeps those that are made within
// the patience.
void ConnectAll(int port, int count, Sockets* connected) {
  Sockets pending;
  for (int i = 0; i < count; ++i) pending.Add(StartConnect(port));
  const auto deadline = Clock::now() + kSocketPatience;
  for (size_t i = 0; i < pending.Size(); ++i) {
    if (pending[i] >= 0 && Connected(pending[i], deadline)) connected->Add(pending.Release(i));
  }
}

// ---- answers ----

// Takes an HTTP answer as it comes, keeping its head and counting its body.
class AnswerReader {
 public:
  // True once the whole answer has come.
  bool Take(const char* bytes, size_t size) {
    if (!in_body_) {
      head_.append(bytes, size);
      const size_t end = head_.find("\r\n\r\n");
      if (end == std::string::npos) return false;
      in_body_ = true;
      const size_t body_bytes = head_.size() - end - 4;
      head_.resize(end);
      body_left_ = ContentLength();
      return Consume(body_bytes);
    }
    return Consume(size);
  }
  int Status() const { return head_.size() > 12 ? atoi(head_.c_str() + 9) : 0; }

 private:
  size_t ContentLength() const {
    std::string lower = head_;
    for (char& c : lower) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    const size_t at = lower.find("\r\ncontent-length:");
    return at == std::string::npos ? 0 : strtoul(lower.c_str() + at + 17, nullptr, 10);
  }
  bool Consume(size_t size) {
    body_left_ -= std::min(size, body_left_);
    return body_left_ == 0;
  }

  std::string head_;
  bool in_body_ = false;
  size_t body_left_ = 0;
};

// Reads what is there on `fd`: false when the agent left before the end
// of the answer.
bool ReadSome(int fd, AnswerReader* reader, bool* complete) {
  char buffer[65536];
  const ssize_t n = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
  if (n > 0) *complete = reader->Take(buffer, static_cast<size_t>(n));
  return n > 0 || (n < 0 && (errno == EAGAIN || errno == EINTR));
}

// ---- the probe and the agent's gauges ----

struct Scrape {
  double millis;  // kUnanswered unless answered with 200
  bool timed_out;
};

// GET /metrics on a fresh connection, as a scraper does.
Scrape ScrapeMetrics(int port) {
  const auto start = Clock::now();
  const auto deadline = start + kScrapePatience;
  Sockets socket;
  socket.Add(StartConnect(port));
  const int fd = socket[0];
  AnswerReader reader;
  bool complete = false;
  if (fd >= 0 && Connected(fd, deadline) &&
      SendAll(fd, kMetricsRequest.data(), kMetricsRequest.size(), deadline) == Sent::kAll)
    while (!complete && (WaitFor(fd, POLLIN, deadline) & (POLLIN | POLLHUP | POLLERR)) != 0)
      if (!ReadSome(fd, &reader, &complete)) break;
  const double millis = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
  if (complete && reader.Status() == 200) return {millis, false};
  return {kUnanswered, Clock::now() >= deadline};
}

struct Gauges {
  long rss_kb, fds, threads;
};

long OpenDescriptors(const Agent& agent) {
  std::error_code error;
  long count = 0;
  for (std::filesystem::directory_iterator it(agent.Proc("fd"), error), end; !error && it != end; it.increment(error))
    ++count;
  return count;
}

Gauges Measure(const Agent& agent) {
  return {kzq_bench::StatusField(agent, "VmRSS"), OpenDescriptors(agent), kzq_bench::StatusField(agent, "Threads")};
}

// ---- the attacks ----

// Runs on a thread of its own until `stop` is set or it has nothing left
// to do, closes its sockets, and says what the agent did. It sets `ready`
// once its clients are in place (or starting, for those that come at once).
using AttackRun = std::function<std::string(int port, const std::atomic<bool>& stop, std::atomic<bool>& ready)>;

struct Attack {
  std::string name;
  AttackRun run;
  bool ends_itself = false;  // a huge request: probed until it ends, however long that takes
};

void SleepUnless(const std::atomic<bool>& stop, Clock::duration length) {
  for (const auto end = Clock::now() + length; !stop && Clock::now() < end;)
    std::this_thread::sleep_for(milliseconds(50));
}

// Counts the connections the agent closed or answered, and closes them.
int LeftByAgent(Sockets* sockets) {
  int left = 0;
  for (size_t i = 0; i < sockets->Size(); ++i)
    if ((*sockets)[i] >= 0 && !AgentSaid((*sockets)[i]).empty()) {
      ++left;
      sockets->Close(i);
    }
  return left;
}

// Clients that start a request and send one more byte of a header every
// two seconds.
std::string SlowClients(int port, int count, const std::atomic<bool>& stop, std::atomic<bool>& ready) {
  const std::string head = "GET /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\nX-a: ";
  Sockets clients;
  ConnectAll(port, count, &clients);
  int left = 0;
  for (size_t i = 0; i < clients.Size(); ++i)
    if (SendAll(clients[i], head.data(), head.size(), Clock::now() + kSocketPatience) != Sent::kAll) {
      clients.Close(i);
      ++left;
    }
  ready = true;
  while (!stop) {
    SleepUnless(stop, seconds(2));
    left += LeftByAgent(&clients);
    for (size_t i = 0; i < clients.Size() && !stop; ++i)
      if (clients[i] >= 0 && send(clients[i], "a", 1, MSG_NOSIGNAL | MSG_DONTWAIT) < 0 && errno != EAGAIN) {
        clients.Close(i);
        ++left;
      }
  }
  return Format("%zu of %d connected, %d closed or answered by the agent", clients.Size(), count, left);
}

// Connections that never send anything.
std::string IdleConnections(int port, int count, const std::atomic<bool>& stop, std::atomic<bool>& ready) {
  Sockets idle;
  ConnectAll(port, count, &idle);
  ready = true;
  SleepUnless(stop, std::chrono::hours(1));
  return Format("%zu of %d connected, %d closed by the agent by the end", idle.Size(), count, LeftByAgent(&idle));
}

struct ManyTally {
  int answered = 0, refused = 0, not_opened = 0;
  double last_answer = 0;  // seconds after the start
};

enum class Step { kGoingOn, kAnswered, kRefused };

// Moves one connection of ManyAtOnce on: sends its request, then reads
// its answer.
Step Advance(int fd, short revents, size_t* sent, AnswerReader* reader) {
  if (*sent < kMetricsRequest.size()) {
    if ((revents & (POLLERR | POLLHUP)) != 0 || (*sent == 0 && !ConnectDone(fd))) return Step::kRefused;
    const ssize_t n = send(fd, kMetricsRequest.data() + *sent, kMetricsRequest.size() - *sent, MSG_NOSIGNAL);
    if (n > 0) *sent += static_cast<size_t>(n);
    return n >= 0 || errno == EAGAIN ? Step::kGoingOn : Step::kRefused;
  }
  bool complete = false;
  if (!ReadSome(fd, reader, &complete)) return Step::kRefused;
  if (!complete) return Step::kGoingOn;
  return reader->Status() == 200 ? Step::kAnswered : Step::kRefused;
}

// `count` connections opened as fast as possible, each sending GET
// /metrics and reading the whole answer; then closed, or with `keep_open`
// kept open and idle, as a client that holds on to its connections does.
std::string ManyAtOnce(int port, int count, bool keep_open, const std::atomic<bool>& stop,
                       std::atomic<bool>& ready) {
  const auto start = Clock::now();
  Sockets clients;
  ManyTally tally;
  for (int i = 0; i < count; ++i) {
    const int fd = StartConnect(port);
    if (fd < 0)
      ++tally.not_opened;
    else
      clients.Add(fd);
  }
  ready = true;
  std::vector<size_t> sent(clients.Size(), 0);
  std::vector<AnswerReader> readers(clients.Size());
  Sockets kept;
  for (size_t live = clients.Size(); live > 0 && !stop;) {
    std::vector<pollfd> watched;
    std::vector<size_t> which;
    for (size_t i = 0; i < clients.Size(); ++i)
      if (clients[i] >= 0) {
        watched.push_back({clients[i], static_cast<short>(sent[i] < kMetricsRequest.size() ? POLLOUT : POLLIN), 0});
        which.push_back(i);
      }
    if (poll(watched.data(), watched.size(), 100) < 0 && errno != EINTR) break;
    for (size_t w = 0; w < watched.size(); ++w) {
      const size_t i = which[w];
      if (watched[w].revents == 0) continue;
      const Step step = Advance(clients[i], watched[w].revents, &sent[i], &readers[i]);
      if (step == Step::kGoingOn) continue;
      if (step == Step::kAnswered) {
        ++tally.answered;
        tally.last_answer = SecondsSince(start);
      } else {
        ++tally.refused;
      }
      if (step == Step::kAnswered && keep_open) kept.Add(clients.Release(i));
      else clients.Close(i);
      --live;
    }
  }
  const int unanswered = count - tally.not_opened - tally.answered - tally.refused;
  std::string closed_later;
  if (keep_open) {
    SleepUnless(stop, seconds(3600));
    closed_later = Format(", %d of the %zu kept open closed by the agent by the end", LeftByAgent(&kept), kept.Size());
  }
  return Format("%d answered (the last %.1f s after the start), %d closed or refused, %d unanswered at the end,"
                " %d not opened%s",
                tally.answered, tally.last_answer, tally.refused, unanswered, tally.not_opened,
                closed_later.c_str());
}

// One request whose line, header or body goes on for `megabytes` MB,
// written 1 MB at a time until the agent answers or closes the connection.
// `block` is one MB with its framing; `tail` ends the request, if anything
// is to end it.
std::string Flood(int port, const std::string& head, const std::string& block, const std::string& tail,
                  int megabytes, std::atomic<bool>& ready) {
  const auto start = Clock::now();
  const auto cap = start + kFloodCap;
  Sockets socket;
  socket.Add(StartConnect(port));
  const int fd = socket[0];
  if (fd < 0 || !Connected(fd, Clock::now() + kSocketPatience)) return "could not connect";
  Sent sent = SendAll(fd, head.data(), head.size(), cap);
  ready = true;
  int written = 0;
  std::string said;
  while (written < megabytes && sent == Sent::kAll && (said = AgentSaid(fd)).empty()) {
    sent = SendAll(fd, block.data(), block.size(), std::min(Clock::now() + kSocketPatience, cap));
    written += sent == Sent::kAll;
  }
  if (sent == Sent::kAll && said.empty()) sent = SendAll(fd, tail.data(), tail.size(), cap);
  const double sending = SecondsSince(start);
  const auto last_byte = Clock::now();
  if (said.empty() && (WaitFor(fd, POLLIN, std::min(last_byte + kSocketPatience, cap)) & (POLLIN | POLLHUP)) != 0)
    said = AgentSaid(fd);
  const std::string what = Format("%d of %d MB written in %.1f s%s", written, megabytes, sending,
                                  sent == Sent::kStalled ? " (the agent stopped reading)" : "");
  if (said.empty())
    return what + (sent == Sent::kClosed ? ", the connection closed under the writes"
                                         : ", no answer 10 s after the last byte");
  return what + ", then the agent " + said + Format(" %.1f s after the last byte", SecondsSince(last_byte));
}

std::vector<Attack> Attacks(int many, int megabytes) {
  const std::string mb(kMegabyte, 'a');
  char size_line[32];
  snprintf(size_line, sizeof size_line, "%zx\r\n", kMegabyte);
  const std::string chunk = size_line + mb + "\r\n";
  const std::string header = "GET /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\nX-a: ";
  const std::string chunked_post =
      "POST /actions HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/octet-stream\r\n"
      "Transfer-Encoding: chunked\r\n\r\n";
  const auto flood = [=](const std::string& head, const std::string& block, const std::string& tail) {
    return [=](int port, const std::atomic<bool>&, std::atomic<bool>& ready) {
      return Flood(port, head, block, tail, megabytes, ready);
    };
  };
  const std::string mbs = std::to_string(megabytes) + " MB";
  return {
      {"100 slow clients",
       [](int port, const std::atomic<bool>& stop, std::atomic<bool>& ready) {
         return SlowClients(port, 100, stop, ready);
       }},
      {"200 idle connections",
       [](int port, const std::atomic<bool>& stop, std::atomic<bool>& ready) {
         return IdleConnections(port, 200, stop, ready);
       }},
      {std::to_string(many) + " connections at once",
       [many](int port, const std::atomic<bool>& stop, std::atomic<bool>& ready) {
         return ManyAtOnce(port, many, false, stop, ready);
       }},
      {std::to_string(many) + " at once, kept open",
       [many](int port, const std::atomic<bool>& stop, std::atomic<bool>& ready) {
         return ManyAtOnce(port, many, true, stop, ready);
       }},
      {mbs + " request line", flood("GET /", mb, ""), true},
      {mbs + " header line", flood(header, mb, ""), true},
      {mbs + " chunked POST /actions", flood(chunked_post, chunk, "0\r\n\r\n"), true},
  };
}

// ---- one phase ----

struct Latencies {
  std::vector<double> millis;
  int timeouts = 0;

  void Add(const Scrape& scrape) {
    millis.push_back(scrape.millis);
    timeouts += scrape.timed_out;
  }
  int Answered() const { return static_cast<int>(std::count_if(millis.begin(), millis.end(), [](double m) {
    return std::isfinite(m);
  })); }
  std::string At(double fraction) const {
    std::vector<double> sorted = millis;
    std::sort(sorted.begin(), sorted.end());
    const double m = sorted[std::min(sorted.size() - 1, static_cast<size_t>(sorted.size() * fraction))];
    return std::isfinite(m) ? Format("%.1f ms", m) : std::string(">10 s");
  }
};

// Waits for the agent's threads and descriptors to come back to `before`.
Gauges Settle(const Agent& agent, const Gauges& before) {
  const auto deadline = Clock::now() + kSettlePatience;
  Gauges now = Measure(agent);
  while ((now.fds > before.fds || now.threads > before.threads) && Clock::now() < deadline) {
    std::this_thread::sleep_for(kProbeEvery);
    now = Measure(agent);
  }
  return now;
}

void Phase(const Agent& agent, const Attack& attack, seconds length) {
  const Gauges before = Measure(agent);
  std::atomic<bool> stop{false}, ready{false}, finished{false};
  std::atomic<long> peak_rss{before.rss_kb};
  std::string outcome;
  std::thread attacker([&] {
    outcome = attack.run(agent.Port(), stop, ready);
    finished = true;
  });
  std::thread sampler([&] {
    try {
      for (; !finished; std::this_thread::sleep_for(kProbeEvery))
        peak_rss = std::max(peak_rss.load(), kzq_bench::StatusField(agent, "VmRSS"));
    } catch (const std::exception&) {
      // The agent is gone; the measure after the attack says so.
    }
  });
  // Setting up takes at most a connect's and a write's patience.
  while (!ready && !finished) std::this_thread::sleep_for(milliseconds(10));
  Latencies scrapes;
  const auto start = Clock::now();
  const auto on = [&] { return Clock::now() < start + length || (attack.ends_itself && !finished); };
  for (auto next = start + kProbeEvery; on(); next += kProbeEvery) {
    std::this_thread::sleep_until(next);
    scrapes.Add(ScrapeMetrics(agent.Port()));
    next = std::max(next, Clock::now() - kProbeEvery);  // a slow scrape delays the next, no burst after it
  }
  stop = true;
  attacker.join();
  sampler.join();
  const Gauges after = Settle(agent, before);
  printf("%s: /metrics answered %d/%zu (%d timed out), median %s, p99 %s, max %s; RSS %.1f / %.1f / %.1f MiB;"
         " fds %ld/%ld; threads %ld/%ld; %s\n",
         attack.name.c_str(), scrapes.Answered(), scrapes.millis.size(), scrapes.timeouts, scrapes.At(0.5).c_str(),
         scrapes.At(0.99).c_str(), scrapes.At(1.0).c_str(), before.rss_kb / 1024.0, peak_rss / 1024.0,
         after.rss_kb / 1024.0, before.fds, after.fds, before.threads, after.threads, outcome.c_str());
}

// Lets this process hold `wanted` connections, as far as its hard limit
// allows; returns how many it may open. The agent, already started, keeps
// its own limit.
int RaiseDescriptorLimit(const Agent& agent, int wanted) {
  constexpr int kSpare = 64;  // the probe, the collector's pipes, /proc files
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  getrlimit(RLIMIT_NOFILE, &limit);
  const std::string limits = kzq_bench::ReadText(agent.Proc("limits"));
  const size_t at = limits.find("Max open files");
  printf("descriptors: this bench may open %llu (soft limit raised to the hard one); the agent's limits: %s\n",
         static_cast<unsigned long long>(limit.rlim_cur),
         at == std::string::npos ? "?" : limits.substr(at, limits.find('\n', at) - at).c_str());
  const long long room = static_cast<long long>(limit.rlim_cur) - kSpare;
  if (room >= wanted) return wanted;
  printf("the hard limit is too low for %d connections at once: opening %lld\n", wanted, room);
  return static_cast<int>(std::max(room, 1LL));
}

void Run(int seconds_each, int megabytes) {
  Stage stage("http-attack-bench");
  Child collector(kzq_bench::ReplayCollectorCommand(), stage.File("collector.out"));
  Agent agent(stage, "agent");
  const int many = RaiseDescriptorLimit(agent, 1500);
  printf("each attack for %d s (the huge requests until they end); GET /metrics on a fresh connection every"
         " 200 ms meanwhile, a timeout after 10 s; RSS before / peak during / after\n",
         seconds_each);
  for (const Attack& attack : Attacks(many, megabytes)) Phase(agent, attack, seconds(seconds_each));
}

}  // namespace

int main(int argc, char** argv) {
  setvbuf(stdout, nullptr, _IOLBF, 0);  // each figure as soon as it is known, also into a pipe
  const int seconds_each = std::max(1, argc > 1 ? atoi(argv[1]) : 10);
  const int megabytes = std::max(1, argc > 2 ? atoi(argv[2]) : 300);
  try {
    Run(seconds_each, megabytes);
  } catch (const std::exception& e) {
    fprintf(stderr, "http_attack_bench: %s\n", e.what());
    return 1;
  }
  return 0;
}
