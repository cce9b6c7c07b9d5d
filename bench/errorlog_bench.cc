// Errorlog benchmark: how fast a large ERRORLOG is parsed, and how long an
// error takes from being appended to the log to reaching a listener.
//   errorlog_bench [megabytes] [latency-lines]
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "kzq/errorlog_monitor.h"
#include "kzq/errorlog_parser.h"
#include "kzq/errorlog_queue.h"
#include "platform/clock.h"
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

void Throughput(const std::string& dir, int megabytes) {
  const std::string path = dir + "/ERRORLOG";
  WriteLog(path, megabytes);
  const double bytes = static_cast<double>(std::filesystem::file_size(path));
  std::vector<double> rates;
  int events = 0;
  for (int run = 0; run < 5; ++run) {
    kzq::ErrorlogContext context;
    context.log_path = path;
    context.state_file = dir + "/state/KZQERROR_EVENT";
    events = 0;
    const auto start = Clock::now();
    kzq::ParseNewLogText(context, [&events](const std::string&) { ++events; }, platform::NowUnixSeconds);
    rates.push_back(bytes / Seconds(start) / 1e6);
  }
  std::sort(rates.begin(), rates.end());
  printf("parse: %.1f MB log, %d errors, median %.0f MB/s (min %.0f, max %.0f) over 5 runs\n", bytes / 1e6, events,
         rates[2], rates.front(), rates.back());
}

std::mutex g_lock;
std::vector<Clock::time_point> g_arrivals;

void Arrived(const std::string&, const std::string&) {
  std::lock_guard<std::mutex> guard(g_lock);
  g_arrivals.push_back(Clock::now());
}

void Latency(const std::string& dir, int lines) {
  const std::string path = dir + "/ERRORLOG";
  platform::SetEnv("COLL_ERRORLOG", path);
  platform::SetEnv("COLL_HOME", dir);
  auto writer = kzq_test::ErrorlogWriter::Create(path, kzq_test::LogClock{});
  kzq::ErrorlogMonitor monitor(Arrived, platform::NowUnixSeconds);
  monitor.RequestStarted();
  while (!monitor.Watching()) platform::SleepMillis(1);
  std::vector<double> millis;
  for (int i = 0; i < lines; ++i) {
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
      std::this_thread::yield();
    }
  }
  std::sort(millis.begin(), millis.end());
  printf("latency: %d errors, median %.2f ms, p99 %.2f ms, max %.2f ms\n", lines, millis[millis.size() / 2],
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
