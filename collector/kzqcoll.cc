// kzqcoll: the collector. Opens the channel for this server and answers
// the agent's requests from a row source: recorded rows, or SQL Server
// itself through ODBC.
//   kzqcoll [-Hkey "<key>"] [--service] (--replay <directory> |
//           --sql [--queries <directory>] [--record <directory>]) [--requests <n>]
// "-Hkey" names the instance's registry key, as for the agent: the
// collector takes its server id and service number from the same place.
// As for the agent, the server id is taken from the key only when "-Hkey"
// follows the program's name.
// Without --replay or --sql the source is the one the instance's settings
// name (KZQ_COLLECTOR_SOURCE, KZQ_REPLAY_DIR).
// With --service it runs under the service manager (the Windows service
// control manager, or systemd with Type=notify); otherwise it runs until
// Ctrl-C or SIGTERM.
#include <atomic>
#include <climits>
#include <filesystem>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "collector/collector_loop.h"
#include "collector/replay_source.h"
#include "collector/sql_server_source.h"
#include "kvc/diagnostic_log.h"
#include "kzq/instance_settings.h"
#include "kzq/instance_start.h"
#include "kzq/service_control.h"
#include "platform/environment.h"
#include "platform/semaphore.h"
#include "platform/stop_signal.h"

namespace {

// Runs before main, as in the agent.
const kzq::CommandLinePresets g_command_line_presets;

struct Options {
  std::string replay;
  bool sql = false;
  std::string queries;  // replaces the built-in queries
  std::string record;
  int requests = 0;
  bool service = false;
};

std::atomic<bool> g_stop{false};
Options g_options;
std::unique_ptr<collector::RowSource> g_source;

int Usage() {
  fprintf(stderr,
          "usage: kzqcoll [-Hkey \"<key>\"] [--service] (--replay <directory> | --sql [--queries <directory>]\n"
          "               [--record <directory>]) [--requests <n>]\n");
  return 2;
}

bool ParseOptions(int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; ++i) {
    const bool has_value = i + 1 < argc;
    if (strcmp(argv[i], "--service") == 0) {
      options->service = true;
    } else if (strcmp(argv[i], "--replay") == 0 && has_value) {
      options->replay = argv[++i];
    } else if (strcmp(argv[i], "--sql") == 0) {
      options->sql = true;
    } else if (strcmp(argv[i], "--queries") == 0 && has_value) {
      options->queries = argv[++i];
    } else if (strcmp(argv[i], "--record") == 0 && has_value) {
      options->record = argv[++i];
    } else if (strcmp(argv[i], "--requests") == 0 && has_value) {
      char* end = nullptr;
      const long n = strtol(argv[++i], &end, 10);
      if (*end != '\0' || n < 0 || n > INT32_MAX) return false;
      options->requests = static_cast<int>(n);
    } else if ((strcmp(argv[i], "-Hkey") == 0 || strcmp(argv[i], "-hkey") == 0) && has_value) {
      ++i;  // imported before the options are used
    } else {
      return false;
    }
  }
  return !(options->sql && !options->replay.empty());
}

// Without a source on the command line, the instance's settings name it,
// so a service switches from replayed rows to SQL Server by a setting:
// KZQ_COLLECTOR_SOURCE "sql", or "replay" (the default) with the rows in
// KZQ_REPLAY_DIR. False with *error when they name none.
bool SourceFromSettings(Options* options, std::string* error) {
  if (options->sql || !options->replay.empty()) return true;
  const std::string source = platform::GetEnv("KZQ_COLLECTOR_SOURCE").value_or("");
  if (source == "sql") {
    options->sql = true;
    return true;
  }
  options->replay = platform::GetEnv("KZQ_REPLAY_DIR").value_or("");
  if (!source.empty() && source != "replay") {
    *error = "KZQ_COLLECTOR_SOURCE='" + source + "' is neither sql nor replay";
    return false;
  }
  if (options->replay.empty()) *error = "no rows to answer with: give --replay or --sql, or set KZQ_COLLECTOR_SOURCE";
  return !options->replay.empty();
}

// --queries and --record belong to the SQL Server source.
bool SourceOptionsFit(const Options& options, std::string* error) {
  if (options.sql || (options.queries.empty() && options.record.empty())) return true;
  *error = "--queries and --record need the SQL Server source (--sql or KZQ_COLLECTOR_SOURCE=sql)";
  return false;
}

// The source the options name; null with *error when it cannot be made.
std::unique_ptr<collector::RowSource> MakeSource(const Options& options, std::string* error) {
  if (!options.sql) return collector::ReplaySource::Load(options.replay, kzq::CollectorCodePage(), error);
  collector::SqlQueries queries = collector::BuiltInSqlQueries();
  if (!options.queries.empty() && !collector::LoadSqlQueries(options.queries, &queries, error)) return nullptr;
  std::vector<std::string> problems;
  collector::SqlServerSettings settings = collector::ReadSqlServerSettings(&problems);
  for (const std::string& problem : problems) kvc::Log('w', "col0004", "kzqcoll: %s\n", problem.c_str());
  if (!options.record.empty()) {
    std::error_code ec;
    std::filesystem::create_directories(options.record, ec);
    if (ec) {
      *error = options.record + ": " + ec.message();
      return nullptr;
    }
  }
  return std::make_unique<collector::SqlServerSource>(std::move(settings), std::move(queries),
                                                      kzq::CollectorCodePage(), options.record);
}

// The serve loop sees the flag between requests; its wait for the next
// request ends at once instead of running out its timeout.
void RequestStop() {
  g_stop = true;
  platform::AbandonSemaphoreWaits();
}

int Collect(int, char**) {
  const std::string pid_file = collector::WritePidFile();
  const int rc = collector::Serve(*g_source, g_options.requests, g_stop);
  if (!pid_file.empty()) remove(pid_file.c_str());
  kvc::Log('i', "col0002", "kzqcoll stopped\n");
  return rc;
}

}  // namespace

int main(int argc, char** argv) {
  if (!ParseOptions(argc, argv, &g_options)) return Usage();
  const kzq::InstanceSettings settings(kzq::RegistryKeyArgument(argc, argv), g_command_line_presets.values());
  kzq::OpenInstanceLog("kzqcoll", g_command_line_presets);
  kzq::LogSettings(settings);
  // Bad replay data or queries fail the start at once, before any service
  // report; an unreachable SQL Server does not (it is data, not a failure).
  std::string error;
  if (SourceFromSettings(&g_options, &error) && SourceOptionsFit(g_options, &error))
    g_source = MakeSource(g_options, &error);
  if (g_source == nullptr) {
    kvc::Log('e', "col0003", "kzqcoll: %s\n", error.c_str());
    return 3;
  }
  if (g_options.service) return kzq::RunAsService(argc, argv, Collect, RequestStop);
  platform::InstallStopHandler(RequestStop);
  return Collect(argc, argv);
}
