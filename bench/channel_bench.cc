// Channel benchmark: agent and collector in two processes, each figure
// beside its floor measured in the same run, since absolute times say
// little on a shared machine:
// - the round trip of a one-row request against a ping-pong over two named
//   semaphores carrying the same bytes, with the processes free to run on
//   any CPU and then both pinned to one;
// - a 10,000-row kzqsrvre answer (16 MB) against a plain copy of the same
//   bytes into and out of a shared area.
// Prints medians, p99 and the ratios channel / floor.
//   channel_bench [round-trips] [large-answers]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kvc/shared_memory_exchange.h"
#include "platform/process.h"
#include "platform/semaphore.h"
#include "platform/shared_memory.h"

namespace {

constexpr int32_t kRowLength = 1604;
constexpr int32_t kLargeRows = 10000;
constexpr size_t kLargeBytes = static_cast<size_t>(kLargeRows) * kRowLength;
constexpr int kWait = 30;
constexpr int kWarmUp = 10;
// Floor and channel take turns in this many rounds, so that a busy moment
// of the shared machine falls on both alike.
constexpr int kRounds = 10;

// What a request must carry from one process to the other: name, unique
// name, the attribute slots and an empty statement's terminator. (The
// statement field's 30000 bytes are cleared by the writer, but a reader
// reads them only up to the terminator: they never cross to its CPU.)
constexpr size_t kRequestBytes = kvc::area::kReqStatement + 1 - kvc::area::kReqName;

[[noreturn]] void Fail(const char* what) {
  fprintf(stderr, "channel_bench: %s\n", what);
  exit(1);
}

double Seconds(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The floor's objects, opened under the same names by both processes: one
// area holding an exchange's kind, a request, a row and a large answer, and
// two named semaphores, "go" (the asker's post) and "done" (the answerer's).
// One thread per process uses them.
class Floor {
 public:
  enum Kind : int32_t { kOneRow = 1, kLargeAnswer = 2 };

  explicit Floor(const std::string& prefix) : prefix_(prefix) {
    int error = 0;
    area_ = platform::OpenSharedArea(Name("area"), kAnswerAt + kLargeBytes, {}, &error);
    go_ = platform::OpenNamedSemaphore(Name("go"), 0, {}, &error);
    done_ = platform::OpenNamedSemaphore(Name("done"), 0, {}, &error);
    if (area_ == nullptr || go_ == nullptr || done_ == nullptr) Fail("cannot open the floor's objects");
  }
  void Remove() const {
    platform::RemoveSharedArea(Name("area"));
    platform::RemoveSemaphore(Name("go"));
    platform::RemoveSemaphore(Name("done"));
  }

  // The asker's side: the request is copied in, the row copied out into a
  // fresh buffer, as the channel's reader gets it.
  double TimeOneRow(const std::string& request) {
    const auto start = std::chrono::steady_clock::now();
    memcpy(At(kRequestAt), request.data(), kRequestBytes);
    Ask(kOneRow, kRowAt, kRowLength);
    return Seconds(start);
  }
  double TimeLargeAnswer() {
    const auto start = std::chrono::steady_clock::now();
    Ask(kLargeAnswer, kAnswerAt, kLargeBytes);
    return Seconds(start);
  }

  // The answerer's side: `count` exchanges of either kind.
  int Serve(int count) {
    std::string request(kRequestBytes, '\0');
    const std::string rows(kLargeBytes, 'r');
    for (int i = 0; i < count; ++i) {
      if (go_->Wait(kWait * 1000) != 0) return 3;
      int32_t kind = 0;
      memcpy(&kind, At(0), sizeof kind);
      if (kind == kOneRow) {
        memcpy(request.data(), At(kRequestAt), kRequestBytes);
        if (request.back() != 'q') return 5;  // the copy is used, so it stays
        memcpy(At(kRowAt), rows.data(), kRowLength);
      } else {
        memcpy(At(kAnswerAt), rows.data(), kLargeBytes);
      }
      if (done_->Release() != 0) return 4;
    }
    return 0;
  }

 private:
  static constexpr size_t kRequestAt = 64;
  static constexpr size_t kRowAt = kRequestAt + kRequestBytes;
  static constexpr size_t kAnswerAt = 64 * 1024;
  static_assert(kRowAt + kRowLength <= kAnswerAt);

  std::string Name(const char* what) const { return prefix_ + "_floor_" + what; }
  unsigned char* At(size_t offset) const { return area_->Address() + offset; }

  // Posts the exchange and takes the answer's bytes into a buffer of their
  // own, whose last byte is checked so that the copy cannot be left out.
  void Ask(Kind kind, size_t answer_at, size_t answer_bytes) {
    const int32_t word = kind;
    memcpy(At(0), &word, sizeof word);
    if (go_->Release() != 0 || done_->Wait(kWait * 1000) != 0) Fail("the floor's peer did not answer");
    std::string answer;
    answer.reserve(answer_bytes);
    answer.append(reinterpret_cast<const char*>(At(answer_at)), answer_bytes);
    if (answer.back() != 'r') Fail("the floor's answer is not the bytes sent");
  }

  std::string prefix_;
  std::unique_ptr<platform::SharedArea> area_;
  std::unique_ptr<platform::Semaphore> go_, done_;
};

// The collector: answers `count` requests, each with the row count the
// request name asks for ("R<rows>").
int ServeRequests(const char* prefix, int count) {
  if (kvc::InitShareMemory(prefix, "bench") != 0) return 2;
  const std::string rows_bytes(kLargeBytes, 'r');
  for (int i = 0; i < count; ++i) {
    std::string name, unique, statement;
    std::vector<std::string> attributes;
    if (kvc::RequestEndpoint()->GetRequest(&name, &unique, &attributes, &statement, kWait) != 0) return 3;
    const int32_t rows = atoi(name.c_str() + 1);
    if (kvc::DataEndpoint()->SendData(unique.c_str(), rows, kRowLength, rows_bytes.data(), kWait) != 0) return 4;
  }
  return 0;
}

double TimeRequest(int32_t rows) {
  const auto start = std::chrono::steady_clock::now();
  std::string unique, unique_back, bytes;
  int32_t got_rows = 0, length = 0;
  const std::string name = "R" + std::to_string(rows);
  if (kvc::RequestEndpoint()->SendRequest(name.c_str(), {}, &unique, nullptr, kWait) != 0 ||
      kvc::DataEndpoint()->GetData(unique.c_str(), &unique_back, &got_rows, &length, &bytes, kWait) != 0 ||
      got_rows != rows)
    Fail("request failed");
  return Seconds(start);
}

struct Timings {
  std::vector<double> floor, channel;
};

// The collector and the floor's answerer, started with this executable;
// they inherit the process's CPU placement at their start, or move to the
// `peer_cpu`-th allowed CPU (-1: stay).
class Peers {
 public:
  Peers(const std::string& prefix, int exchanges, int peer_cpu) {
    int error = 0;
    const std::string count = std::to_string(exchanges), cpu = std::to_string(peer_cpu);
    collector_ = platform::StartProcess({platform::ExecutablePath(), "collector", prefix, count, cpu}, &error);
    floor_ = platform::StartProcess({platform::ExecutablePath(), "floor", prefix, count, cpu}, &error);
    if (collector_ == nullptr || floor_ == nullptr) Fail("cannot start the peer processes");
  }
  // Waits for both to have served every exchange.
  void Finish() {
    if (collector_->Wait() != 0 || floor_->Wait() != 0) Fail("a peer process failed");
  }

 private:
  std::unique_ptr<platform::ChildProcess> collector_, floor_;
};

// `trips` one-row exchanges of each, then `answers` large answers of each,
// with fresh peers.
// With `peer_cpu` >= 0 the peers move to that allowed CPU and this process
// to the first one, once the peers have started.
std::pair<Timings, Timings> Measure(const std::string& prefix, Floor& floor, int trips, int answers,
                                    int peer_cpu = -1) {
  Peers peers(prefix, kWarmUp + trips + answers, peer_cpu);
  int error = 0;
  if (peer_cpu >= 0 && platform::PinToCpu(0, &error) < 0) Fail("cannot pin to a CPU");
  const std::string request(kRequestBytes, 'q');
  for (int i = 0; i < kWarmUp; ++i) {
    floor.TimeOneRow(request);
    TimeRequest(1);
  }
  Timings one_row, large;
  const int batch = std::max(1, trips / kRounds);
  for (int done = 0; done < trips; done += batch) {
    for (int i = done; i < std::min(trips, done + batch); ++i) one_row.floor.push_back(floor.TimeOneRow(request));
    for (int i = done; i < std::min(trips, done + batch); ++i) one_row.channel.push_back(TimeRequest(1));
  }
  for (int i = 0; i < answers; ++i) {
    large.floor.push_back(floor.TimeLargeAnswer());
    large.channel.push_back(TimeRequest(kLargeRows));
  }
  peers.Finish();
  return {one_row, large};
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

double P99(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() * 99 / 100];
}

void PrintOneRow(const char* placement, const Timings& t) {
  printf("one-row round trip, %s, %zu of each, floor and channel in turns:\n", placement, t.channel.size());
  printf("  floor (semaphore ping-pong, same bytes): median %7.1f us, p99 %7.1f us\n", Median(t.floor) * 1e6,
         P99(t.floor) * 1e6);
  printf("  channel:                                 median %7.1f us, p99 %7.1f us\n", Median(t.channel) * 1e6,
         P99(t.channel) * 1e6);
  printf("  ratio channel / floor (medians): %.2f\n", Median(t.channel) / Median(t.floor));
}

void PrintLarge(const char* placement, const Timings& t) {
  const double megabytes = kLargeBytes / 1e6;
  const double floor = Median(t.floor), channel = Median(t.channel);
  printf("10,000-row answer (%.2f MB), %s, %zu of each in turns:\n", megabytes, placement, t.channel.size());
  printf("  floor (copied into and out of a shared area): median %6.2f ms, %5.2f GB/s\n", floor * 1e3,
         megabytes / 1e3 / floor);
  printf("  channel:                                      median %6.2f ms, %5.2f GB/s\n", channel * 1e3,
         megabytes / 1e3 / channel);
  printf("  ratio channel / floor (medians): %.2f\n", channel / floor);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 5) {
    int error = 0;
    if (atoi(argv[4]) >= 0 && platform::PinToCpu(atoi(argv[4]), &error) < 0) return 6;
    if (std::string(argv[1]) == "collector") return ServeRequests(argv[2], atoi(argv[3]));
    if (std::string(argv[1]) == "floor") return Floor(argv[2]).Serve(atoi(argv[3]));
  }
  const int trips = std::max(1, argc > 1 ? atoi(argv[1]) : 5000);
  const int answers = std::max(1, argc > 2 ? atoi(argv[2]) : 30);
  const std::string prefix = "kzqbench" + std::to_string(platform::CurrentProcessId());
  if (kvc::InitShareMemory(prefix.c_str(), "bench") != 0) return 2;
  Floor floor(prefix);

  const auto [one_row, large] = Measure(prefix, floor, trips, answers);
  PrintOneRow("unpinned", one_row);
  PrintLarge("unpinned", large);
  // Unpinned, the scheduler may put both ends on one CPU or on two: the
  // two placements are also measured as such.
  const auto [split_row, split_large] = Measure(prefix, floor, trips, answers, 1);
  PrintOneRow("agent and collector on two CPUs", split_row);
  PrintLarge("agent and collector on two CPUs", split_large);
  PrintOneRow("both on one CPU", Measure(prefix, floor, trips, 0).first);

  kvc::DestroyShareMemory();
  floor.Remove();
  for (const std::string& name : kvc::ChannelObjectNames(prefix + "_bench")) {
    platform::RemoveSharedArea(name);
    platform::RemoveSemaphore(name);
  }
  return 0;
}
