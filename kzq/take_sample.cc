#include "kzq/take_sample.h"

#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "framework/agent.h"
#include "framework/trace.h"
#include "kvc/kvccomm.h"
#include "kvc/kvccomm2.h"
#include "kvc/kvcenv.h"
#include "kvc/kvcstr.h"
#include "kvc/kvcutil.h"
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

void ReportExchangeFailure(const kvc::IpcAnchor& anchor) {
  if (anchor.error_code == 0) return;
  if (g_failure_reported.exchange(0) != 0) return;
  kvc::Log('w', "AIC0003", "%s %d\n", anchor.error_text, static_cast<int>(anchor.error_code));
  if (anchor.error_code < 20)
    kvc::Log('i', "AIC0004", "(%d) %s (%d) %s\n", anchor.detail_code[0], anchor.detail_text[0].c_str(),
             anchor.detail_code[1], anchor.detail_text[1].c_str());
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

// Why a sample got no data: the channel busy with another exchange for
// longer than the caller would wait, or what the exchange said.
std::string ChannelFailure(const std::string& otherwise) {
  return kvc::LastCallFoundChannelBusy() ? "the collector channel is busy with another exchange; try again"
                                         : otherwise;
}

// A collector's rows are trusted only in the table's own row length, and
// the channel has checked that the bytes cover the count.
bool RowsFit(const TableSpec& spec, const kvc::PipeList& cursor) {
  if (cursor.numrow <= 0) return true;
  if (cursor.lenrow == CollectorRowLength(spec) && cursor.rows != nullptr) return true;
  kvc::Log('e', "kzq2310", "Rows of %s refused: %d rows of %d bytes sent, rows of %d bytes expected\n", spec.key,
           cursor.numrow, cursor.lenrow, CollectorRowLength(spec));
  return false;
}

void AddCollectorRows(tavra& object, const TableSpec& spec, const kvc::PipeList& cursor) {
  SAMPLE_TRACE(object, "Collector ROWS=%d,  (kvcsampl)\n", cursor.numrow);
  if (!RowsFit(spec, cursor)) return;
  const std::string origin = OriginNode();
  RowBuilder row(spec);
  CollectorText text(CollectorCodePage());
  for (int i = 0; i < cursor.numrow; ++i) {
    row.SetLeading(origin, i + 1, FreshTimeStamp());
    row.CopyCollectorPart(cursor.rows + static_cast<size_t>(i) * static_cast<size_t>(cursor.lenrow), text);
    if (Flowing(object)) TraceRow(spec, row, i + 1);
    if (object.CheckForException(row.Data()) != 0) {
      SAMPLE_TRACE(object, "Add collected row into agent object. (kvcsampl)\n");
      AddRow(object, row);
    } else {
      SAMPLE_TRACE(object, "Collected row NOT added into agent object. (kvcsampl)\n");
    }
  }
}

void AddInactiveRow(tavra& object, const TableSpec& spec, const kvc::IpcAnchor& anchor, const Services& services) {
  RowBuilder row(spec);
  BuildInactiveRow(row, InputsFor(services));
  const double since_start = static_cast<double>(platform::NowUnixSeconds() - AgentStartTime());
  SAMPLE_TRACE(object, "Collector Inactive, %s\n", InactiveReason(since_start, anchor.error_code));
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

// The heartbeat record holds two numbers separated by blanks; two ones
// mean the collector is healthy.
bool HeartbeatHealthy(const char* text) {
  long numbers[2] = {0, 0};
  int found = 0;
  for (const char* p = text; *p != '\0' && found < 2;) {
    while (*p == ' ') ++p;
    if (*p == '\0') break;
    numbers[found++] = atol(p);
    while (*p != '\0' && *p != ' ') ++p;
  }
  return found == 2 && numbers[0] == 1 && numbers[1] == 1;
}

// The server summary table asks for the collector's heartbeat when its own
// answer had no rows, and reports what it finds in one status row.
void AddHeartbeatRow(tavra& object, const TableSpec& spec, kvc::IpcAnchor*& anchor, const Services& services) {
  KVCCOMM("term", anchor);
  anchor = static_cast<kvc::IpcAnchor*>(KVCCOMM("init"));
  const StatusInputs in = InputsFor(services);
  RowBuilder row(spec);
  if (anchor == nullptr) {
    BuildNoDataRow(row, in, true);
    SAMPLE_TRACE(object, "SQL server down, passing back 1 row (kvcsampl)\n");
    AddRow(object, row);
    kvc::Log('e', "AIC0001", "Error Initting IPC anchor\n");
    return;
  }
  auto* heart = static_cast<kvc::PipeList*>(KVCCOMM("get", anchor, "HART4"));
  if (heart == nullptr) {
    SAMPLE_TRACE(object, "could not get heart cursor. (kvcsampl)\n");
    SAMPLE_TRACE(object, "kvccomm error message = %s. (kvcsampl)\n", anchor->error_text);
    BuildNoDataRow(row, in, false);
    SAMPLE_TRACE(object, "SQL server down, passing back 1 row (kvcsampl)\n");
    AddRow(object, row);
    return;
  }
  if (heart->numrow < 1) return;
  SAMPLE_TRACE(object, "cur_hart_ptr->rows=%d. (kvcsampl)\n", heart->numrow);
  char text[200] = {};
  const int length = heart->rows == nullptr ? 0 : (heart->lenrow < 0 ? 0 : (heart->lenrow > 199 ? 199 : heart->lenrow));
  if (length > 0) memcpy(text, heart->rows, static_cast<size_t>(length));
  SAMPLE_TRACE(object, "cur_hart_ptr->len=%d, stat=%s, len=%d. (kvcsampl)\n", heart->lenrow, text,
               static_cast<int>(strlen(text)));
  const bool healthy = HeartbeatHealthy(text);
  SAMPLE_TRACE(object, "Collector heartbeat %s. (kvcsampl)\n", healthy ? "Active" : "Unknown");
  BuildInactiveRow(row, in);
  if (Flowing(object)) {
    TRC1_Printf("Collector Inactive, passing back 1 row. (kvcsampl)\n");
    object.Dump();
    TRC1_Printf("Add data row into agent object. (kvcsampl)\n");
  }
  row.SetText("SRVSTATUS", ServerStatusText(services.database_up, services.collector_up), '\0');
  row.SetText("COLLSTATUS", services.collector_up ? "Active" : "Inactive", '\0');
  AddRow(object, row);
}

bool IsSqlTextTable(const TableSpec& spec) { return strcmp(spec.name, "kzqsql") == 0; }

}  // namespace

int TakeCollectorSample(tavra& object, const TableSpec& spec) {
  const bool full = spec.form == SampleForm::kFull;
  const Services services = full ? ProbeServices(object) : Services{};
  SAMPLE_TRACE(object, "Entered %s TakeSample. (kvcsampl)\n", object.TableName());
  if (IsSqlTextTable(spec) && Flowing(object)) TraceFilterElements(object);
  auto* anchor = static_cast<kvc::IpcAnchor*>(KVCCOMM("init"));
  if (anchor == nullptr) {
    if (full) AddNoDataRow(object, spec, services, false);
    kvc::Log('e', "aic0001", "Error Initting IPC anchor \n");
    object.ReportSampleFailure(ChannelFailure("the collector channel is not available"));
    return 0;
  }
  if (IsSqlTextTable(spec)) {
    anchor->session_id = SessionIdFromFilter(object);
    if (!anchor->session_id.empty())
      SAMPLE_TRACE(object, "Session ID is: <%s>.  (kvcsampl)\n", anchor->session_id.c_str());
  }
  auto* cursor = static_cast<kvc::PipeList*>(KVCCOMM("get", anchor, spec.key));
  ReportExchangeFailure(*anchor);
  if (cursor == nullptr)
    object.ReportSampleFailure(ChannelFailure(
        "no answer from the collector (" + CollectorServiceName() + "): " +
        std::string(anchor->error_text, strnlen(anchor->error_text, sizeof anchor->error_text)) + " (" +
        std::to_string(anchor->error_code) + ")"));
  if (cursor != nullptr) {
    AddCollectorRows(object, spec, *cursor);
    if (IsSummaryTable(spec) && cursor->numrow == 0) AddHeartbeatRow(object, spec, anchor, services);
  } else if (!full) {
    SAMPLE_TRACE(object, "%s.  (kvcsampl)\n", anchor->error_text);
  } else if (anchor->error_code != 0) {
    AddInactiveRow(object, spec, *anchor, services);
  } else {
    SAMPLE_TRACE(object, "%s.  (kvcsampl)\n", anchor->error_text);
    AddNoDataRow(object, spec, services, true);
  }
  if (anchor != nullptr) KVCCOMM("term", anchor);
  return 0;
}

}  // namespace kzq
