// kzqctl: the command-line companion of the agent; it talks to the
// agent's HTTP endpoint. `kzqctl --help` and `kzqctl <command> --help` say
// what it takes.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "framework/serve/http_settings.h"
#include "kzq/ctl_agent.h"
#include "kzq/ctl_format.h"
#include "kzq/ctl_views.h"
#include "kzq/instance_settings.h"
#include "kzq/registry_environment.h"
#include "platform/environment.h"
#include "platform/terminal.h"

namespace {

using Json = nlohmann::ordered_json;
using kzq::CtlAgent;

// How wide a table may be before its rows are shown one field a line.
constexpr size_t kWidthWithoutTerminal = 120;

struct Options {
  std::string instance;
  std::string url;
  std::string token;
  CtlAgent::Access access;
  std::string table;
  std::string filter;
  std::string command;
  std::vector<std::string> columns;
  bool json = false;
  bool utc = false;
  bool failed = false;
};

std::string DefaultUrl() {
  const std::string listen = platform::GetEnv("KZQ_HTTP_LISTEN").value_or("");
  return "http://" + (listen.empty() || listen == "off" ? std::string(framework::kDefaultListen) : listen);
}

// Puts the settings the agent of `instance` reads - its registry key's
// Environment values over this environment over its configuration file -
// into this environment, so that its address and token are found as the
// agent found them.
void LoadInstanceSettings(const std::string& instance) {
  platform::SetEnv("COLL_SERVERID", instance);
  const kzq::InstanceSettings settings(std::string(kzq::kMakerRoot) + "\\kzq\\" + instance, {});
  for (const std::string& problem : settings.File().problems) fprintf(stderr, "kzqctl: %s\n", problem.c_str());
}

// COLUMNS when set, else the terminal's width, else a width for files and pipes.
size_t OutputWidth() {
  const int columns = atoi(platform::GetEnv("COLUMNS").value_or("0").c_str());
  if (columns > 0) return static_cast<size_t>(columns);
  return static_cast<size_t>(platform::TerminalColumns().value_or(kWidthWithoutTerminal));
}

void PrintJson(const Json& value) { printf("%s\n", value.dump(2, ' ', false, Json::error_handler_t::replace).c_str()); }

int PrintTable(const kzq::TextTable& table, const char* when_empty) {
  fputs(table.rows.empty() ? when_empty : kzq::RenderTable(table, OutputWidth()).c_str(), stdout);
  return 0;
}

int Tables(CtlAgent& agent, const Options& o) {
  const auto tables = agent.Get("/tables");
  if (!tables) return 1;
  if (o.json) return PrintJson(*tables), 0;
  for (const Json& t : *tables)
    printf("%-10s %-8s %5d bytes  %s\n", t.value("key", "").c_str(), t.value("sampling", "").c_str(),
           t.value("row_size", 0), t.value("key", "") == "KZQERROR" ? "events: kzqctl events" : "");
  return 0;
}

int Sample(CtlAgent& agent, const Options& o) {
  const auto sample = agent.Sample(o.table, o.filter);
  if (!sample) return 1;
  if (o.json) return PrintJson(*sample), 0;
  const auto catalogue = agent.Get("/tables");
  if (!catalogue) return 1;
  const kzq::SampleView view{o.columns, kzq::StampColumns(*catalogue, o.table), o.utc};
  std::string error;
  const auto table = kzq::SampleTable(*sample, view, &error);
  if (!table) return fprintf(stderr, "kzqctl: %s\n", error.c_str()), 1;
  return PrintTable(*table, "(no rows)\n");
}

int Events(CtlAgent& agent, const Options& o) {
  const bool ended = agent.Follow("/events/KZQERROR", [&](const Json& event) {
    printf("%s\n", o.json ? event.dump(-1, ' ', false, Json::error_handler_t::replace).c_str()
                          : kzq::EventLine(event, o.utc).c_str());
    fflush(stdout);
  });
  return ended ? 0 : 1;
}

// A script that runs an action learns from the exit code whether the
// command succeeded, not only whether the agent answered.
int Action(CtlAgent& agent, const Options& o) {
  const auto answer = agent.Post("/actions", {{"command", o.command}});
  if (!answer) return 1;
  if (o.json) PrintJson(*answer);
  else
    for (const Json& line : answer->value("lines", Json::array())) printf("%s\n", line.value("line", "").c_str());
  const int result = answer->value("result", -1);
  if (result == 0) return 0;
  fprintf(stderr, "kzqctl: the command ended with %d\n", result);
  return 1;
}

int Blocking(CtlAgent& agent, const Options&) {
  const auto processes = agent.Sample("KZQPRCD", "");
  if (!processes) return 1;
  return PrintTable(kzq::BlockingTree(*processes), "No session waits for another.\n");
}

int Jobs(CtlAgent& agent, const Options& o) {
  // LSTRUNSTAT 0: the job's last run failed.
  const auto jobs = agent.Sample("KZQJOBD", o.failed ? "LSTRUNSTAT EQ 0" : "");
  if (!jobs) return 1;
  return PrintTable(kzq::JobTable(*jobs, o.utc), o.failed ? "No job failed its last run.\n" : "(no jobs)\n");
}

int Databases(CtlAgent& agent, const Options&) {
  const auto databases = agent.Sample("KZQDBD", "");
  if (!databases) return 1;
  return PrintTable(kzq::DatabaseTable(*databases), "(no databases)\n");
}

using Command = int (*)(CtlAgent&, const Options&);

struct CommandLine {
  CLI::App app{"kzqctl: reads the kzq agent's tables, events and actions over its HTTP endpoint", "kzqctl"};
  std::vector<std::pair<CLI::App*, Command>> commands;

  CLI::App* Add(const char* name, const char* what, Command run) {
    CLI::App* command = app.add_subcommand(name, what);
    commands.emplace_back(command, run);
    return command;
  }
};

void DescribeCommands(CommandLine& line, Options& o) {
  CLI::App& app = line.app;
  app.set_version_flag("--version", std::string("kzqctl ") + KZQ_VERSION);
  app.add_option("--instance,-i", o.instance,
                 "read the endpoint and token from this instance's settings, as its agent does (registry key, "
                 "environment, /etc/kzq/<instance>.conf or $KZQ_CONFIG_FILE)")
      ->envname("KZQ_INSTANCE");
  app.add_option("--url", o.url, "the agent's endpoint (default http://$KZQ_HTTP_LISTEN, else http://127.0.0.1:19433)");
  app.add_option("--token", o.token, "the bearer token the agent asks for (default $KZQ_HTTP_TOKEN)");
  app.add_option("--user", o.access.user, "a user of the agent's basic_auth_users; the password is read from "
                 "$KZQ_HTTP_PASSWORD")->envname("KZQ_HTTP_USER");
  app.add_option("--cacert", o.access.ca_file, "PEM file of the CA that signed the agent's certificate (https)")
      ->envname("KZQ_HTTP_CACERT");
  app.require_subcommand(1);
  app.footer("Exit codes: 0 done; 1 no agent answered, it refused the request, a sample failed or an action's\n"
             "command ended with a code other than 0; 2 bad usage.");

  line.Add("tables", "the agent's tables", Tables)->add_flag("--json", o.json, "the catalogue as JSON");
  CLI::App* sample = line.Add("sample", "a fresh sample of one table", Sample);
  sample->add_option("TABLE", o.table, "the table, e.g. KZQDBD (kzqctl tables lists them)")->required();
  sample->add_option("--filter", o.filter, "a situation filter, e.g. \"PCTDBFREE LT 10\"");
  sample->add_option("--columns", o.columns, "the columns to show, e.g. DBNAME,DBSIZE")->delimiter(',');
  sample->add_flag("--json", o.json, "the agent's JSON, as it answered");
  sample->add_flag("--utc", o.utc, "times in UTC rather than local time");
  CLI::App* events = line.Add("events", "follow the error events (Ctrl-C ends)", Events);
  events->add_flag("--json", o.json, "each event as a line of JSON");
  events->add_flag("--utc", o.utc, "times in UTC rather than local time");
  CLI::App* action = line.Add("action", "run a take-action command on the database host", Action);
  action->add_option("COMMAND", o.command, "the command line, e.g. \"kyresql select @@version\"")->required();
  action->add_flag("--json", o.json, "the agent's JSON answer");
  line.Add("blocking", "sessions that block others, with those waiting for them indented below", Blocking);
  CLI::App* jobs = line.Add("jobs", "the Agent jobs and their last run", Jobs);
  jobs->add_flag("--failed", o.failed, "only jobs whose last run failed");
  jobs->add_flag("--utc", o.utc, "times in UTC rather than local time");
  line.Add("databases", "per database: state, data and log size, free share", Databases);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CommandLine line;
  DescribeCommands(line, options);
  try {
    line.app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    // --help and --version end here too, with exit code 0.
    return line.app.exit(e) == 0 ? 0 : 2;
  }
  if (!options.instance.empty()) LoadInstanceSettings(options.instance);
  if (options.url.empty()) options.url = DefaultUrl();
  if (options.token.empty()) options.token = platform::GetEnv("KZQ_HTTP_TOKEN").value_or("");
  options.access.token = options.token;
  options.access.password = platform::GetEnv("KZQ_HTTP_PASSWORD").value_or("");
  std::string error;
  if (!CtlAgent::Supports(options.url, &error)) {
    fprintf(stderr, "kzqctl: %s\n", error.c_str());
    return 2;
  }
  CtlAgent agent(options.url, options.access);
  for (const auto& [command, run] : line.commands)
    if (command->parsed()) return run(agent, options);
  return 2;
}
