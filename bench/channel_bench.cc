// Channel benchmark: round trip of a one-row request and throughput of a
// 10,000-row kzqsrvre answer (16 MB), agent and collector in two
// processes. Prints the median of repeated runs.
//   channel_bench [round-trips] [large-answers]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "kvc/kvccomob.h"
#include "platform/process.h"
#include "platform/shared_memory.h"
#include "platform/semaphore.h"

namespace {

constexpr int32_t kRowLength = 1604;
constexpr int kWait = 30;

// The collector: answers `count` requests, each with the row count the
// request name asks for ("R<rows>").
int ServeRequests(const char* prefix, int count) {
  if (kvc::InitShareMemory(prefix, "bench") != 0) return 2;
  const std::string rows_bytes(static_cast<size_t>(10000) * kRowLength, 'r');
  for (int i = 0; i < count; ++i) {
    std::string name, unique, statement;
    std::vector<std::string> attributes;
    if (kvc::RequestEndpoint()->GetRequest(&name, &unique, &attributes, &statement, kWait) != 0) return 3;
    const int32_t rows = atoi(name.c_str() + 1);
    if (kvc::DataEndpoint()->SendData(unique.c_str(), rows, kRowLength, rows_bytes.data(), kWait) != 0) return 4;
  }
  return 0;
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

double TimeRequest(int32_t rows) {
  const auto start = std::chrono::steady_clock::now();
  std::string unique, unique_back, bytes;
  int32_t got_rows = 0, length = 0;
  const std::string name = "R" + std::to_string(rows);
  if (kvc::RequestEndpoint()->SendRequest(name.c_str(), {}, &unique, nullptr, kWait) != 0 ||
      kvc::DataEndpoint()->GetData(unique.c_str(), &unique_back, &got_rows, &length, &bytes, kWait) != 0 ||
      got_rows != rows) {
    fprintf(stderr, "request failed\n");
    exit(1);
  }
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::string(argv[1]) == "collector") return ServeRequests(argv[2], atoi(argv[3]));
  const int small = argc > 1 ? atoi(argv[1]) : 5000;
  const int large = argc > 2 ? atoi(argv[2]) : 30;
  const std::string prefix = "kzqbench" + std::to_string(platform::CurrentProcessId());
  if (kvc::InitShareMemory(prefix.c_str(), "bench") != 0) return 2;
  int error = 0;
  auto collector = platform::StartProcess(
      {platform::ExecutablePath(), "collector", prefix, std::to_string(small + large + 10)}, &error);
  if (collector == nullptr) return 2;
  for (int i = 0; i < 10; ++i) TimeRequest(1);  // warm up both sides

  std::vector<double> round_trips;
  for (int i = 0; i < small; ++i) round_trips.push_back(TimeRequest(1));
  std::vector<double> answers;
  for (int i = 0; i < large; ++i) answers.push_back(TimeRequest(10000));
  collector->Wait();

  const double trip = Median(round_trips);
  const double answer = Median(answers);
  const double megabytes = 10000.0 * kRowLength / 1e6;
  printf("one-row round trip: median %.1f us over %d requests\n", trip * 1e6, small);
  printf("10,000-row answer (%.1f MB): median %.2f ms, %.2f GB/s over %d answers\n", megabytes,
         answer * 1e3, megabytes / 1e3 / answer, large);
  kvc::DestroyShareMemory();
  for (const std::string& name : kvc::ChannelObjectNames(prefix + "_bench")) {
    platform::RemoveSharedArea(name);
    platform::RemoveSemaphore(name);
  }
  return 0;
}
