#include "kzq/agent_loader.h"

#include <atomic>
#include <cstdio>
#include <string>

#include "framework/agent.h"
#include "framework/trace.h"
#include "kvc/collector_channel.h"
#include "kvc/take_action.h"
#include "kvc/agent_config.h"
#include "kvc/string_time.h"
#include "kvc/diagnostic_log.h"
#include "kzq/agent_data_paths.h"
#include "kzq/instance_names.h"
#include "kzq/metrics_map.h"
#include "kzq/status_page.h"
#include "kzq/service_status.h"
#include "kzq/table_descriptions.h"
#include "kzq/tables.h"
#include "platform/clock.h"

namespace kzq {
namespace {

std::atomic<int64_t> g_start_time{0};
FILE* g_message_output = nullptr;  // the agent's message output file, open for its life

using TableInit = uint32_t (*)(RowSource&, EventRequestListener*);

struct Registration {
  const char* name;
  TableInit init;
};

// The order in which the tables become known to the framework.
constexpr Registration kRegistrationOrder[] = {
    {"kzqsrvr", kzqsrvr_init},   {"kzqsrvs", kzqsrvs_init},   {"kzqsrvd", kzqsrvd_init},
    {"kzqdbs", kzqdbs_init},     {"kzqdbd", kzqdbd_init},     {"kzqdevd", kzqdevd_init},
    {"kzqlocks", kzqlocks_init}, {"kzqlock", kzqlock_init},   {"kzqprcs", kzqprcs_init},
    {"kzqprcd", kzqprcd_init},   {"kzqprobs", kzqprobs_init}, {"kzqprobd", kzqprobd_init},
    {"kzqstats", kzqstats_init}, {"kzqstatd", kzqstatd_init}, {"kzqscfg", kzqscfg_init},
    {"kzqsrvre", kzqsrvre_init}, {"kzqsql", kzqsql_init},     {"kzqtbld", kzqtbld_init},
    {"kzqloksu", kzqloksu_init}, {"kzqjobd", kzqjobd_init},   {"kzqjobs", kzqjobs_init},
    {"kzqsrvcd", kzqsrvcd_init}, {"kzqfgrpd", kzqfgrpd_init}, {"kzqlrts", kzqlrts_init},
    {"kzqwlgs", kzqwlgs_init},   {"kzqrpool", kzqrpool_init}, {"kzqdbmir", kzqdbmir_init},
    {"kzqmemgr", kzqmemgr_init}, {"kzqlsdbd", kzqlsdbd_init}, {"kzqlserr", kzqlserr_init},
    {"kzqlsjbd", kzqlsjbd_init}, {"kzqbtchs", kzqbtchs_init}, {"kzqerror", kzqerror_init},
};
static_assert(sizeof kRegistrationOrder / sizeof kRegistrationOrder[0] == kTableCount);

// What consumers are told beyond rows: the catalogue, the two services the
// agent depends on, and the monitor's counters.
framework::AgentDescription Description(AgentDataPaths& paths) {
  framework::AgentDescription description;
  description.tables = TableDescriptions();
  description.probe = [&paths] {
    const std::string collector = CollectorServiceName();
    const std::string database = DatabaseServiceName();
    return std::vector<framework::ServiceState>{
        {"collector", collector, ServiceRuns(collector.c_str())},
        {"sqlserver", database, ServiceRuns(database.c_str()), paths.DatabaseReachable()}};
  };
  description.counters = paths.Counters();
  description.status_page = StatusPageHtml();
  description.apply_settings = [&paths](const framework::SettingValues& values) {
    const auto severity = values.find("COLL_ALERT_SEV");
    if (severity != values.end()) paths.Monitor().SetMinSeverity(atoi(severity->second.c_str()));
  };
  // The map is checked by its tests; should a bad entry slip through, the
  // endpoint serves the agent's health without the table families.
  std::string error;
  if (auto metrics = BuildMetricsMap(MetricEntries(), description.tables, &error))
    description.metrics = std::move(*metrics);
  else
    kvc::Log('e', "kzq2330", "the metrics map is not usable, /metrics leaves the tables out: %s\n", error.c_str());
  return description;
}

std::string Text(const char* value) { return value != nullptr ? value : ""; }

// The message output file says once what this agent watches and where it
// reports, which is what an operator checks first when nothing arrives.
void AnnounceStart(const kvc::AgentConfig& config) {
  if (g_message_output == nullptr) return;
  fprintf(g_message_output,
          "%s kzqagent started: server '%s', host '%s', collector service %s, database service %s, errorlog '%s'\n",
          kvc::FormatNow(nullptr, 1), Text(config.serverId).c_str(), Text(config.hostName).c_str(),
          CollectorServiceName().c_str(), DatabaseServiceName().c_str(), Text(config.errorLog).c_str());
  fflush(g_message_output);
}

}  // namespace

void RegisterAllTables(AgentDataPaths& paths) {
  const bool flow = (framework::TraceLevel() & framework::kTraceFlow) != 0;
  for (const Registration& r : kRegistrationOrder) {
    // The two rows where the newer tables begin are traced.
    if (flow && (r.init == kzqsrvcd_init || r.init == kzqfgrpd_init)) TRC1_Printf("Calling %s_init()\n", r.name);
    if (FindTable(r.name)->form == SampleForm::kPushed)
      r.init(paths.ErrorEventRows(), &paths.Monitor());
    else
      r.init(paths.CollectorRows(), nullptr);
  }
  // A take-action command may arrive on any table; every one runs it the same way.
  for (framework::TableManager* manager : framework::TableManager::Registered())
    manager->SetCommandHandler(kvc::kvcaction);
}

int AgentLoader() {
  if (framework::TraceLevel() & framework::kTraceFlow) TRC1_Printf("Entering AgentLoader\n");
  g_message_output = kvc::OpenOutputFile("agt.out");
  SetAgentStartTime(platform::NowUnixSeconds());
  for (const char* affinity : {"AFF_MS_SQL_SERVER", "AFF_V9", "AFF_FEAT_INTERNATIONALIZATION", "AFF_FEAT_DM_PARITY",
                               "AFF_FEAT_AGENT_MGMT"})
    AVR_SetAffinity(affinity);
  AVR_SetCurrency(1, 0);
  kvc::AgentConfig& config = kvc::TheAgentConfig();
  kvc::ReadAgentEnvironment(config);
  if (config.hostName != nullptr) AVR_SetHostname(config.hostName);
  if (config.serverId != nullptr) AVR_SetSubsystemId(config.serverId);
  AVR_SetNodeType("MSS");
  AnnounceStart(config);
  // Never destroyed: the monitor's threads and the framework's use it
  // until the process exits.
  kvc::SharedChannel().SetCollectorProbe(
      [collector = CollectorServiceName()] { return ServiceRuns(collector.c_str()); });
  auto* paths = new AgentDataPaths(kvc::SharedChannel());
  RegisterAllTables(*paths);
  framework::DescribeAgent(Description(*paths));
  return 0;
}

int64_t AgentStartTime() { return g_start_time.load(); }
void SetAgentStartTime(int64_t seconds) { g_start_time = seconds; }

}  // namespace kzq
