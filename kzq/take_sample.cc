#include "kzq/take_sample.h"

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "framework/agent.h"
#include "framework/trace.h"
#include "kvc/collector_channel.h"
#include "kvc/channel_dispatch.h"
#include "kvc/shared_memory_exchange.h"
#include "kvc/agent_config.h"
#include "kvc/string_time.h"
#include "kvc/diagnostic_log.h"
#include "kzq/agent_loader.h"
#include "kzq/sample_rows.h"
#include "kzq/instance_names.h"
#include "kzq/service_status.h"
#include "kzq/sql_filter_walk.h"
#include "kzq/table_pattern.h"
#include "platform/clock.h"
#include "platform/environment.h"

namespace kzq {
namespace {

using framework::tavra;

// One toggle for all tables: a failure that repeats is reported on every
// second sample, whichever table meets it.
std::atomic<int> g_failure_reported{0};

#define SAMPLE_TRACE(object, ...) \
  do {                            \
    if (Flowing(object)) TRC1_Printf(__VA_ARGS__); \
  } while (0)

bool Flowing(const tavra& object) { return (object.TraceLevel() & framework::kTraceFlow) != 0; }

std::string Env(const char* name) { return platform::GetEnv(name).value_or(""); }

struct Services {
  bool collector_up = false;
  bool database_up = false;
};

Services ProbeServices(tavra& object) {
  Services s;
  const std::string collector = CollectorServiceName();
  s.collector_up = check_service_status(collector.c_str()) != 0;
  if (s.collector_up)
    SAMPLE_TRACE(object, "Collector service : <%s> is running.(kvcsampl)\n", collector.c_str());
  else
    SAMPLE_TRACE(object, "Collector service : <%s> is down.(kvcsampl)\n", collector.c_str());
  const std::string database = DatabaseServiceName();
  s.database_up = check_service_status(database.c_str()) != 0;
  if (s.database_up)
    SAMPLE_TRACE(object, "set (SQL server service [%s] is up now ) \n", database.c_str());
  else
    SAMPLE_TRACE(object, "(SQL server service [%s] down) tblname = [%s]\n", database.c_str(), object.TableName());
  return s;
}

// The collector's identity as status rows show it, read once.
struct Identity {
  std::string server_id;  // at most 32 characters
  std::string host_name;  // at most 64
};

const Identity& CollectorIdentity() {
  static const Identity identity = [] {
    const kvc::AgentConfig& config = kvc::TheAgentConfig();
    Identity id;
    if (config.serverId != nullptr) id.server_id = std::string(config.serverId).substr(0, 32);
    if (config.hostName != nullptr) id.host_name = std::string(config.hostName).substr(0, 64);
    return id;
  }();
  return identity;
}

std::string OriginNode() {
  char host[64];
  DetermineLocalHost(host, sizeof host);
  return host;
}

std::string FreshTimeStamp() {
  char stamp[64];
  return kvc::FormatNow(stamp, 4);
}

StatusInputs InputsFor(const Services& services) {
  StatusInputs in;
  in.collector_up = services.collector_up;
  in.database_up = services.database_up;
  in.origin_node = OriginNode();
  in.server_id = CollectorIdentity().server_id;
  in.host_name = CollectorIdentity().host_name;
  in.time_stamp = FreshTimeStamp();
  in.db_version = Env("COLL_DBVERSION");
  return in;
}

void AddRow(tavra& object, const RowBuilder& row) { object.AddRows(row.Data(), 1); }

// What a failed exchange says, in the channel's status codes: 20 when the
// request or its answer timed out, 21 when an area operation failed, 0
// when nothing was said (the exchange was not made).
struct ExchangeStatus {
  uint32_t code = 0;
  std::string text;
  int step_result = 0;
  std::string step;
};

ExchangeStatus StatusOf(const kvc::ChannelAnswer& answer) {
  ExchangeStatus status;
  if (answer.failed_step.empty()) return status;
  status.step_result = answer.result;
  status.step = answer.failed_step;
  if (answer.result == kvc::kCommTimeout) {
    status.code = kvc::kAnchorTimeout;
    status.text = "Share memory time out";
  } else if (answer.result == kvc::kCommFailed) {
    status.code = kvc::kAnchorGenericError;
    status.text = "Share memory generic error";
  }
  return status;
}

void ReportExchangeFailure(const ExchangeStatus& status, const char* table) {
  if (status.code == 0) return;
  if (g_failure_reported.exchange(0) != 0) return;
  kvc::Log('w', "AIC0003", "%s %d\n", status.text.c_str(), static_cast<int>(status.code));
  if (status.code < 20)
    kvc::Log('i', "AIC0004", "(%d) %s (%d) %s\n", status.step_result, status.step.c_str(), 0, table);
  g_failure_reported = 1;
}

void TraceRow(const TableSpec& spec, const RowBuilder& row, int number) {
  TRC1_Printf("----------- Row #%d data ------- (kvcsampl)\n", number);
  for (int i = 0; i < spec.attribute_count; ++i) {
    const char* name = spec.lower_names[i].data();
    const int offset = spec.offsets[i];
    const char* field = reinterpret_cast<const char*>(row.Data()) + offset;
    if (spec.attributes[i].type == kTypeInt32) {
      int32_t value;
      memcpy(&value, field, sizeof value);
      TRC1_Printf("%s=%d (offest=%d)\n", name, value, offset);
    } else {
      TRC1_Printf("%s=\"%.*s\"(offest=%d)\n", name, spec.attributes[i].width, field, offset);
    }
  }
}

// Why a sample got no data: the channel not open, busy with another
// exchange for longer than the caller would wait, or what the exchange said.
std::string ChannelFailure(const kvc::ChannelAnswer& answer, const ExchangeStatus& status) {
  if (answer.unavailable) return "the collector channel is not available";
  if (answer.busy) return "the collector channel is busy with another exchange; try again";
  if (answer.skipped)
    return "the collector (" + CollectorServiceName() + ") is not running and did not answer the last request";
  return "no answer from the collector (" + CollectorServiceName() + "): " + status.text + " (" +
         std::to_string(status.code) + ")";
}

// A collector's rows are trusted only in the table's own row length, and
// the channel has checked that the bytes cover the count.
bool RowsFit(kvc::CollectorChannel& channel, const TableSpec& spec, const kvc::ChannelAnswer& answer) {
  if (answer.numrow <= 0 || answer.lenrow == CollectorRowLength(spec)) return true;
  kvc::Log('e', "kzq2310", "Rows of %s refused: %d rows of %d bytes sent, rows of %d bytes expected\n", spec.key,
           answer.numrow, answer.lenrow, CollectorRowLength(spec));
  channel.CountRefused();
  return false;
}

void AddCollectorRows(kvc::CollectorChannel& channel, tavra& object, const TableSpec& spec,
                      const kvc::ChannelAnswer& answer) {
  SAMPLE_TRACE(object, "Collector ROWS=%d,  (kvcsampl)\n", answer.numrow);
  if (!RowsFit(channel, spec, answer)) return;
  const std::string origin = OriginNode();
  RowBuilder row(spec);
  CollectorText text(CollectorCodePage());
  for (int i = 0; i < answer.numrow; ++i) {
    row.SetLeading(origin, i + 1, FreshTimeStamp());
    row.CopyCollectorPart(answer.rows.data() + static_cast<size_t>(i) * static_cast<size_t>(answer.lenrow), text);
    if (Flowing(object)) TraceRow(spec, row, i + 1);
    if (object.CheckForException(row.Data()) != 0) {
      SAMPLE_TRACE(object, "Add collected row into agent object. (kvcsampl)\n");
      AddRow(object, row);
    } else {
      SAMPLE_TRACE(object, "Collected row NOT added into agent object. (kvcsampl)\n");
    }
  }
}

void AddInactiveRow(tavra& object, const TableSpec& spec, const ExchangeStatus& status, const Services& services) {
  RowBuilder row(spec);
  BuildInactiveRow(row, InputsFor(services));
  const double since_start = static_cast<double>(platform::NowUnixSeconds() - AgentStartTime());
  SAMPLE_TRACE(object, "Collector Inactive, %s\n", InactiveReason(since_start, status.code));
  if (Flowing(object)) {
    TRC1_Printf("Collector Inactive, passing back 1 row (kvcsampl)\n");
    object.Dump();
    TRC1_Printf("Add data row into agent object. (kvcsampl)\n");
  }
  AddRow(object, row);
}

void AddNoDataRow(tavra& object, const TableSpec& spec, const Services& services, bool zero_fill) {
  RowBuilder row(spec);
  BuildNoDataRow(row, InputsFor(services), zero_fill);
  SAMPLE_TRACE(object, "SQL server down, passing back 1 row (kvcsampl)\n");
  AddRow(object, row);
}

// The heartbeat record holds two numbers separated by blanks: the
// collector's state and the database's. Two ones mean healthy; "1 0" a
// collector that runs but cannot reach SQL Server.
struct Heartbeat {
  bool healthy = false;
  bool database_unreachable = false;
};

Heartbeat ReadHeartbeat(const char* text) {
  long numbers[2] = {0, 0};
  int found = 0;
  for (const char* p = text; *p != '\0' && found < 2;) {
    while (*p == ' ') ++p;
    if (*p == '\0') break;
    numbers[found++] = atol(p);
    while (*p != '\0' && *p != ' ') ++p;
  }
  return {found == 2 && numbers[0] == 1 && numbers[1] == 1, found == 2 && numbers[0] == 1 && numbers[1] == 0};
}

// The server summary table asks for the collector's heartbeat when its own
// answer had no rows, and reports what it finds in one status row.
void AddHeartbeatRow(kvc::CollectorChannel& channel, tavra& object, const TableSpec& spec,
                     const Services& services, DatabaseReach& reach) {
  const StatusInputs in = InputsFor(services);
  RowBuilder row(spec);
  const kvc::ChannelAnswer heart = channel.Exchange("HART4", "");
  if (heart.unavailable) {
    BuildNoDataRow(row, in, true);
    SAMPLE_TRACE(object, "SQL server down, passing back 1 row (kvcsampl)\n");
    AddRow(object, row);
    kvc::Log('e', "AIC0001", "Error Initting IPC anchor\n");
    return;
  }
  if (!heart.Succeeded()) {
    SAMPLE_TRACE(object, "could not get heart cursor. (kvcsampl)\n");
    SAMPLE_TRACE(object, "kvccomm error message = %s. (kvcsampl)\n", StatusOf(heart).text.c_str());
    BuildNoDataRow(row, in, false);
    SAMPLE_TRACE(object, "SQL server down, passing back 1 row (kvcsampl)\n");
    AddRow(object, row);
    return;
  }
  if (heart.numrow < 1) return;
  SAMPLE_TRACE(object, "cur_hart_ptr->rows=%d. (kvcsampl)\n", heart.numrow);
  char text[200] = {};
  memcpy(text, heart.rows.data(), std::min<size_t>(heart.rows.size(), 199));
  SAMPLE_TRACE(object, "cur_hart_ptr->len=%d, stat=%s, len=%d. (kvcsampl)\n", heart.lenrow, text,
               static_cast<int>(strlen(text)));
  const Heartbeat heartbeat = ReadHeartbeat(text);
  SAMPLE_TRACE(object, "Collector heartbeat %s. (kvcsampl)\n", heartbeat.healthy ? "Active" : "Unknown");
  if (heartbeat.healthy || heartbeat.database_unreachable) reach.Set(heartbeat.healthy ? 1 : 0);
  BuildInactiveRow(row, in);
  if (Flowing(object)) {
    TRC1_Printf("Collector Inactive, passing back 1 row. (kvcsampl)\n");
    object.Dump();
    TRC1_Printf("Add data row into agent object. (kvcsampl)\n");
  }
  // A server whose service runs but which the collector cannot reach (the
  // network, the login, the server refusing work) is told apart from one
  // that is stopped.
  row.SetText("SRVSTATUS",
              services.database_up && heartbeat.database_unreachable
                  ? kServerUnreachable
                  : ServerStatusText(services.database_up, services.collector_up),
              '\0');
  row.SetText("COLLSTATUS", services.collector_up ? "Active" : "Inactive", '\0');
  AddRow(object, row);
}

bool IsSqlTextTable(const TableSpec& spec) { return strcmp(spec.name, "kzqsql") == 0; }

}  // namespace

int TakeCollectorSample(kvc::CollectorChannel& channel, tavra& object, const TableSpec& spec, DatabaseReach& reach) {
  const bool full = spec.form == SampleForm::kFull;
  const Services services = full ? ProbeServices(object) : Services{};
  SAMPLE_TRACE(object, "Entered %s TakeSample. (kvcsampl)\n", object.TableName());
  if (IsSqlTextTable(spec) && Flowing(object)) TraceFilterElements(object);
  std::string session;
  if (IsSqlTextTable(spec)) {
    session = SessionIdFromFilter(object);
    if (!session.empty()) SAMPLE_TRACE(object, "Session ID is: <%s>.  (kvcsampl)\n", session.c_str());
  }
  const kvc::ChannelAnswer answer = channel.Exchange(spec.key, session);
  const ExchangeStatus status = StatusOf(answer);
  if (answer.unavailable) {
    if (full) AddNoDataRow(object, spec, services, false);
    kvc::Log('e', "aic0001", "Error Initting IPC anchor \n");
    object.ReportSampleFailure(ChannelFailure(answer, status));
    return 0;
  }
  ReportExchangeFailure(status, spec.key);
  if (answer.Succeeded()) {
    if (answer.numrow > 0) reach.Set(1);
    AddCollectorRows(channel, object, spec, answer);
    if (IsSummaryTable(spec) && answer.numrow == 0) AddHeartbeatRow(channel, object, spec, services, reach);
    return 0;
  }
  if (!answer.busy) reach.Set(DatabaseReach::kUnknown);
  object.ReportSampleFailure(ChannelFailure(answer, status));
  if (!full) {
    SAMPLE_TRACE(object, "%s.  (kvcsampl)\n", status.text.c_str());
  } else if (status.code != 0) {
    AddInactiveRow(object, spec, status, services);
  } else {
    SAMPLE_TRACE(object, "%s.  (kvcsampl)\n", status.text.c_str());
    AddNoDataRow(object, spec, services, true);
  }
  return 0;
}

}  // namespace kzq
