// Errorlog benchmark: how fast a large ERRORLOG is parsed, beside reading
// the file alone and beside the standard tools finding its error lines, and
// how long an error takes from being appended to the log to reaching a
// listener.
//   errorlog_bench [megabytes] [latency-lines]
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "kzq/errorlog_monitor.h"
#include "kzq/errorlog_parser.h"
#include "kzq/errorlog_queue.h"
#include "platform/clock.h"
#include "platform/command_shell.h"
#include "platform/environment.h"
#include "tests/support/errorlog_writer.h"

namespace {

using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point since) { return std::chrono::duration<double>(Clock::now() - since).count(); }

// A log of about `megabytes` MB where one line in a hundred is an error
// line (with its message line after it).
void WriteLog(const std::string& path, int megabytes) {
  auto writer = kzq_test::ErrorlogWriter::Create(path, kzq_test::LogClock{});
  std::string block;
  const std::string info = kzq_test::Utf16Bytes(
      kzq_test::LogLineText({}, "spid12s", "Checkpoint of database 'sales' wrote 1234 pages in 14 ms.") + "\r\n");
  const std::string error = kzq_test::Utf16Bytes(
      kzq_test::LogLineText({}, "spid52", "Error: 823, Severity: 24, State: 2.") + "\r\n" +
      kzq_test::LogLineText({}, "spid52", "The operating system returned error 21 to SQL Server.") + "\r\n");
  for (int line = 0; block.size() < static_cast<size_t>(megabytes) << 20; ++line) block += line % 100 == 99 ? error : info;
  writer.Bytes(block);
}

constexpr int kRuns = 5;

// MB/s over `bytes` of each run, kept to take their median.
struct Rates {
  std::vector<double> rates;
  template <typename Run>
  void Time(double bytes, Run run) {
    const auto start = Clock::now();
    run();
    rates.push_back(bytes / Seconds(start) / 1e6);
  }
  double Median() {
    std::sort(rates.begin(), rates.end());
    return rates[rates.size() / 2];
  }
};

// The floor: the file read in large blocks and its line-feed bytes counted,
// which every reader of it pays at least.
long CountLineFeedBytes(const std::string& path) {
  FILE* file = fopen(path.c_str(), "rb");
  if (file == nullptr) return -1;
  std::vector<char> block(1 << 20);
  long count = 0;
  for (size_t n; (n = fread(block.data(), 1, block.size(), file)) > 0;) {
    const char* const end = block.data() + n;
    for (const char* at = block.data(); (at = static_cast<const char*>(memchr(at, '\n', end - at))); ++at) ++count;
  }
  fclose(file);
  return count;
}

// One parser run from the header to the end; `state_dir` "" keeps no state
// file.
int ParseOnce(const std::string& path, const std::string& state_dir) {
  kzq::ErrorlogContext context;
  context.log_path = path;
  if (!state_dir.empty()) context.state_file = state_dir + "/KZQERROR_EVENT";
  int events = 0;
  kzq::ParseNewLogText(context, [&events](const std::string&) { ++events; }, platform::NowUnixSeconds);
  return events;
}

// The standard tools doing the same work (decode the log, find its error
// lines) through the shell; the count of lines grep found, -1 when they
// cannot run here.
long PeerOnce(const std::string& path, const std::string& out) {
  int error = 0;
  const std::string command = "iconv -f UTF-16LE -t UTF-8 '" + path + "' | grep -c 'Error: '";
  const int status = platform::RunCommand("sh", {"-c", command}, out, &error);
  if (status < 0 || platform::ExitCodeOf(status) != 0) return -1;
  FILE* file = fopen(out.c_str(), "r");
  long count = -1;
  if (file != nullptr && fscanf(file, "%ld", &count) != 1) count = -1;
  if (file != nullptr) fclose(file);
  return count;
}

void Throughput(const std::string& dir, int megabytes) {
  const std::string path = dir + "/ERRORLOG";
  WriteLog(path, megabytes);
  const double bytes = static_cast<double>(std::filesystem::file_size(path));
  CountLineFeedBytes(path);  // untimed: the page cache holds the file for every measure
  // The measures take turns, so a busy moment of the shared machine
  // falls on all of them alike.
  Rates floor, ours, with_state, peer;
  long line_feeds = 0, peer_lines = 0;
  int events = 0;
  for (int run = 0; run < kRuns; ++run) {
    floor.Time(bytes, [&] { line_feeds = CountLineFeedBytes(path); });
    ours.Time(bytes, [&] { events = ParseOnce(path, ""); });
    with_state.Time(bytes, [&] { ParseOnce(path, dir + "/state"); });
    peer.Time(bytes, [&] { peer_lines = PeerOnce(path, dir + "/peer.out"); });
  }
  printf("parse: %.1f MB log, %d errors, median of %d runs each, page cache warm\n", bytes / 1e6, events, kRuns);
  printf("  floor (1 MB reads, %ld line-feed bytes counted): %.0f MB/s\n", line_feeds, floor.Median());
  printf("  ours (no state file): %.0f MB/s; with the state file saved after each event: %.0f MB/s\n",
         ours.Median(), with_state.Median());
  if (peer_lines < 0) {
    printf("  peer (iconv | grep -c): cannot run here\n");
    return;
  }
  printf("  peer (iconv | grep -c, %ld lines): %.0f MB/s; ratio ours / peer: %.2f\n", peer_lines, peer.Median(),
         ours.Median() / peer.Median());
}

std::mutex g_lock;
std::vector<Clock::time_point> g_arrivals;

// Notes when each error reaches the listener.
class ArrivalSink final : public kzq::ErrorEventSink {
 public:
  void Emit(const std::string&, const std::string&) override {
    std::lock_guard<std::mutex> guard(g_lock);
    g_arrivals.push_back(Clock::now());
  }
};

void Latency(const std::string& dir, int lines) {
  const std::string path = dir + "/ERRORLOG";
  platform::SetEnv("COLL_ERRORLOG", path);
  platform::SetEnv("COLL_HOME", dir);
  auto writer = kzq_test::ErrorlogWriter::Create(path, kzq_test::LogClock{});
  ArrivalSink sink;
  kzq::ErrorEventQueue queue;
  kzq::ErrorlogMonitor monitor(sink, queue, platform::NowUnixSeconds);
  monitor.RequestStarted();
  while (!monitor.Watching()) platform::SleepMillis(1);
  // An error that never arrives ends the measure instead of the bench
  // waiting for it for ever.
  constexpr double kGiveUpSeconds = 5;
  std::vector<double> millis;
  int missed = -1;
  for (int i = 0; i < lines && missed < 0; ++i) {
    const auto written = Clock::now();
    writer.Error("spid52", 823, 24, 2, "The operating system returned error 21 to SQL Server.");
    for (;;) {
      {
        std::lock_guard<std::mutex> guard(g_lock);
        if (g_arrivals.size() > static_cast<size_t>(i)) {
          millis.push_back(std::chrono::duration<double, std::milli>(g_arrivals[i] - written).count());
          break;
        }
      }
      if (Seconds(written) > kGiveUpSeconds) {
        missed = i;
        break;
      }
      std::this_thread::yield();
    }
  }
  if (missed >= 0)
    printf("latency: error %d of %d did not reach the listener within %.0f s\n", missed + 1, lines, kGiveUpSeconds);
  if (millis.empty()) return;
  std::sort(millis.begin(), millis.end());
  printf("latency: %zu errors, median %.2f ms, p99 %.2f ms, max %.2f ms\n", millis.size(), millis[millis.size() / 2],
         millis[millis.size() * 99 / 100], millis.back());
}

}  // namespace

int main(int argc, char** argv) {
  const int megabytes = argc > 1 ? atoi(argv[1]) : 100;
  const int lines = argc > 2 ? atoi(argv[2]) : 1000;
  const std::string dir = (std::filesystem::temp_directory_path() / "kzq-errorlog-bench").string();
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  Throughput(dir, megabytes);
  std::filesystem::remove(dir + "/ERRORLOG");
  Latency(dir, lines);
  std::filesystem::remove_all(dir);
  return 0;
}
