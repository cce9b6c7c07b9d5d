// kzqdemolog: a sample errorlog for the demo. Creates the log in a
// directory as the database server does (when it is not there yet), then
// appends a few entries every few seconds until Ctrl-C or SIGTERM; each
// error and symptom dump it writes is also printed on stdout, so what the
// agent reports can be compared with what was written. With --count it
// writes that many entries at once and exits.
//   kzqdemolog <directory> [<interval seconds>] [--count <n>]
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "demo/errorlog_text.h"
#include "demo/sample_entries.h"
#include "platform/clock.h"
#include "platform/process.h"
#include "platform/stop_signal.h"

namespace {

// The server names its log in capitals on Windows, in lower case elsewhere.
#ifdef _WIN32
constexpr const char* kLogName = "ERRORLOG";
#else
constexpr const char* kLogName = "errorlog";
#endif

struct Options {
  std::string directory;
  int interval_seconds = 3;
  int count = 0;  // 0: write until stopped
};

std::atomic<bool> g_stop{false};

void RequestStop() { g_stop = true; }

// A whole positive number up to `limit`; false for anything else.
bool ParseCount(const char* text, int limit, int* value) {
  char* end = nullptr;
  errno = 0;
  const long number = strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || number < 1 || number > limit) return false;
  *value = static_cast<int>(number);
  return true;
}

// An empty text when the options are good, else the problem.
std::string ParseOptions(int argc, char** argv, Options* options) {
  bool have_interval = false;
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--count") == 0) {
      if (i + 1 == argc || !ParseCount(argv[++i], 1000000, &options->count))
        return "--count needs a number from 1 to 1000000";
    } else if (options->directory.empty()) {
      options->directory = argv[i];
    } else if (!have_interval) {
      if (!ParseCount(argv[i], 3600, &options->interval_seconds))
        return std::string("the interval must be 1 to 3600 seconds, got '") + argv[i] + "'";
      have_interval = true;
    } else {
      return std::string("unexpected argument '") + argv[i] + "'";
    }
  }
  return options->directory.empty() ? "no directory given" : "";
}

// The local time's distance from UTC as the header shows it ("1:00", "-5:00").
std::string UtcAdjustment() {
  const int64_t now = platform::NowUnixSeconds();
  platform::LocalTime utc;
  if (!platform::ToUtc(now, &utc)) return "0:00";
  const int64_t minutes = (now - platform::FromLocal(&utc)) / 60;
  const int64_t size = minutes < 0 ? -minutes : minutes;
  char text[32];
  snprintf(text, sizeof text, "%s%d:%02d", minutes < 0 ? "-" : "", static_cast<int>(size / 60),
           static_cast<int>(size % 60));
  return text;
}

// The bytes of a new log: the mark, the header and the start-up entries.
std::string NewLogBytes(const std::string& path) {
  const kzq_demo::LogClock now = kzq_demo::ClockOf(platform::NowLocal());
  const kzq_demo::StartupFacts facts{UtcAdjustment(), platform::CurrentProcessId(), path};
  std::string bytes = kzq_demo::kByteOrderMark + kzq_demo::LogLines(now, "Server", kzq_demo::StartupHeader(facts));
  for (const kzq_demo::LogEntry& entry : kzq_demo::SampleEntries::StartupEntries())
    bytes += kzq_demo::LogLines(now, entry.source, entry.lines);
  return bytes;
}

void Report(const kzq_demo::LogClock& at, const kzq_demo::LogEntry& entry) {
  if (entry.kind == kzq_demo::EntryKind::kInfo) return;
  if (entry.kind == kzq_demo::EntryKind::kError)
    printf("%02d:%02d:%02d error %ld severity %d state %d %s: %s\n", at.hour, at.minute, at.second, entry.error,
           entry.severity, entry.state, entry.source.c_str(), entry.message.c_str());
  else
    printf("%02d:%02d:%02d symptom dump severity %d %s: %s\n", at.hour, at.minute, at.second, entry.severity,
           entry.source.c_str(), entry.message.c_str());
  fflush(stdout);
}

// Appends `count` entries; false (after saying why) when the log cannot be
// written.
bool WriteEntries(const std::string& path, kzq_demo::SampleEntries& entries, int count) {
  for (int i = 0; i < count; ++i) {
    const kzq_demo::LogEntry entry = entries.Next();
    const kzq_demo::LogClock now = kzq_demo::ClockOf(platform::NowLocal());
    if (!kzq_demo::AppendToLog(path, kzq_demo::LogLines(now, entry.source, entry.lines))) {
      fprintf(stderr, "kzqdemolog: cannot write %s\n", path.c_str());
      return false;
    }
    Report(now, entry);
  }
  return true;
}

// Sleeps up to `seconds`, waking early for a stop.
void Pause(int seconds) {
  for (int slept = 0; slept < seconds * 10 && !g_stop; ++slept) platform::SleepMillis(100);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  const std::string problem = ParseOptions(argc, argv, &options);
  if (!problem.empty()) {
    fprintf(stderr, "kzqdemolog: %s\nusage: kzqdemolog <directory> [<interval seconds>] [--count <n>]\n",
            problem.c_str());
    return 2;
  }
  std::error_code ec;
  if (!std::filesystem::is_directory(options.directory, ec)) {
    fprintf(stderr, "kzqdemolog: %s is not a directory\n", options.directory.c_str());
    return 2;
  }
  const std::string path = (std::filesystem::absolute(options.directory, ec) / kLogName).string();
  if (!std::filesystem::exists(path, ec) && !kzq_demo::AppendToLog(path, NewLogBytes(path))) {
    fprintf(stderr, "kzqdemolog: cannot create %s\n", path.c_str());
    return 1;
  }
  kzq_demo::SampleEntries entries(static_cast<uint32_t>(platform::NowUnixSeconds() ^ platform::CurrentProcessId()));
  if (options.count > 0) return WriteEntries(path, entries, options.count) ? 0 : 1;
  platform::InstallStopHandler(RequestStop);
  printf("kzqdemolog: appending to %s every %d s\n", path.c_str(), options.interval_seconds);
  fflush(stdout);
  while (!g_stop) {
    if (!WriteEntries(path, entries, entries.BurstSize())) return 1;
    Pause(options.interval_seconds);
  }
  return 0;
}
