#include "kzq/setting_list.h"

#include <cerrno>
#include <cstdlib>
#include <string_view>

#include "framework/serve/http_settings.h"

namespace kzq {
namespace {

using K = SettingKind;
constexpr int64_t kInt32Max = 2147483647;

SettingSpec Text(const char* name, const char* default_text, const char* meaning) {
  return {name, K::kText, default_text, meaning};
}
SettingSpec Secret(const char* name, const char* meaning) { return {name, K::kSecret, "", meaning}; }
SettingSpec Option(const char* name, const char* meaning) { return {name, K::kOption, "0", meaning}; }
SettingSpec Number(const char* name, const char* default_text, int64_t low, int64_t high, const char* meaning,
                   bool reloadable = false) {
  return {name, K::kNumber, default_text, meaning, low, high, "", reloadable};
}
SettingSpec Choice(const char* name, const char* default_text, const char* choices, const char* meaning) {
  return {name, K::kChoice, default_text, meaning, 0, 0, choices};
}

std::vector<SettingSpec> MakeList() {
  return {
      // What both programs read.
      Text("COLL_SERVERID", "", "the server (instance) this agent watches; part of every name of the instance"),
      Number("COLL_SERVICENUMBER", "0", 0, 9999, "number of the collector service, KZQCOLL<n>"),
      Text("KVCLOGDIR", "the current directory", "where col.log and agt.out go"),
      Number("COLL_WRAPLINES", "30000", -kInt32Max, kInt32Max, "lines written to col.log before it starts again; 0 or below never wraps"),
      Number("COLL_NUMOUTBAK", "1", 0, 99, "numbered backups of the message output file"),
      Option("COLL_ZEROMEM", "1 zeroes every tracked allocation"),
      Option("COLL_TRACE_DETAIL", "trace lines of level h, time-parsing traces, source positions"),
      Option("COLL_LENGTH_WARN", "trace texts that reach their length bound"),
      Option("COLL_ALLOC_TRACE", "trace every tracked block checked on free"),
      Option("COLL_CHAIN_TRACE", "trace chain insertions"),
      Option("COLL_CHAIN_REMOVE_TRACE", "trace chain removals"),
      Text("COLL_MEMDUMP_FILE", "", "file that receives allocation traces instead of the log"),
      Text("PATHEXT", "", "extensions tried for a command named without one"),
      Text("KZQ_RUNTIME_DIR", "$XDG_RUNTIME_DIR/kzq, else /tmp/kzq-<uid>", "POSIX: lock and pid files"),
      Text("KZQ_REGISTRY_ROOT", "/etc/kzq/registry", "POSIX: root of the file-backed registry"),
      Text("KZQ_SERVICE_UNITS", "MSSQLSERVER=mssql-server", "POSIX: NAME=unit[,NAME=unit...] the probe maps"),
      Text("KZQ_CGROUP_ROOT", "/sys/fs/cgroup", "POSIX: where the probe finds the units' cgroups"),
      Text("KZQ_CONFIG_FILE", "/etc/kzq/<COLL_SERVERID>.conf", "this instance's configuration file"),
      // The agent's own.
      {"KZQ_HTTP_LISTEN", K::kListen, framework::kDefaultListen, "where the HTTP endpoint listens: host:port, [v6]:port or off"},
      Choice("KZQ_CHANNEL_ACCESS", "private", "private|open", "open: the channel admits every local account"),
      {"KZQ_HTTP_TOKEN", K::kSecret, "", "bearer token every HTTP request must carry", 0, 0, "", true},
      Text("KZQ_WEB_CONFIG", "", "web configuration file: basic-auth users (read again on a reload) and TLS"),
      Choice("KZQ_COLLECTOR_SOURCE", "replay", "replay|sql", "kzqcoll: where rows come from"),
      Text("KZQ_REPLAY_DIR", "", "kzqcoll: directory of <table>.jsonl files to replay"),
      Number("KZQ_SAMPLE_INTERVAL", "30", 1, 86400, "seconds between the scheduler's samples", true),
      Choice("KZQ_METRICS_RAW", "0", "0|1", "1: /metrics also carries the raw per-table gauges"),
      Number("KZQ_NAMED_INSTANCE", "0", -kInt32Max, kInt32Max, "non-zero: SQL Server runs as MSSQL$<COLL_SERVERID>"),
      Text("COLL_DBVERSION", "", "SQL Server version shown in status rows"),
      Number("COLL_CODEPAGE", "1252", 1, 65535, "Windows code page of the collector's texts"),
      Text("COLL_HOSTNAME", "COMPUTERNAME", "the host name the agent reports"),
      Text("COLL_VERSION", "kvc", "first part of the channel's object names"),
      Text("COLL_HOME", "the current directory", "home directory (state)"),
      Text("COLL_CTL_HOME", "the current directory", "control directory"),
      Text("KVCCFGDIR", "COLL_CTL_HOME", "configuration directory"),
      Text("COLL_BINPATH", "", "appended to PATH at start"),
      Text("COLL_LOGON", "", "database login (take action, the SQL source)"),
      Text("COLL_LOGONID", "", "database login when COLL_LOGON is not set"),
      Secret("COLL_PASSWORD", "the login's password"),
      Number("COLL_ACTION_TIMEOUT", "120", 0, kInt32Max, "seconds a take-action command may run; 0 for no limit"),
      Text("COLL_PREFIX", "KVCLOGDIR + separator + user", "file prefix"),
      Text("COLL_PREFIX_LOCAL", "COLL_PREFIX", "local file prefix"),
      Text("COLL_OUT", "COLL_HOME", "output directory"),
      Text("COLL_ERRORLOG", "", "path of SQL Server's ERRORLOG"),
      {"COLL_ALERT_SEV", K::kNumber, "17", "lowest severity reported as an event", 0, 25, "", true},
      Number("COLL_ERRORLOG_MAX_EVENT_ROW", "50", 0, 1000000, "errors kept for report samples"),
      Number("COLL_ERRORLOG_STARTUP_MAX_TIME", "0", 0, kInt32Max, "start-up scan: minutes back (0 off, 1 no limit)"),
      Number("COLL_ERRORLOG_STARTUP_MAX_EVENT_ROW", "0", 0, kInt32Max, "start-up scan: errors queued (0 off, 1 no limit)"),
      Number("MAXREADSZ_ERRORLOG", "20480000", 1, kInt32Max, "bytes of one ERRORLOG file a scan back reads at most"),
      Text("COLL_USESHM", "shared memory", "a value not starting with 1 turns the channel off"),
      Text("COLL_DEBUG", "", "debug word: d, then one letter per level"),
      Text("USERNAME", "sys", "the account name used in file names"),
      Text("TEMP", "the system's temporary directory", "temporary files"),
      Text("HOMEDRIVE", "", "home drive"),
      Text("HOMEPATH", "", "home path"),
      Number("WAIT_TIMEOUT", "45", 1, 86400, "seconds the agent waits on the channel"),
      Number("COLL_WAIT_TIMEOUT", "5", 1, 86400, "seconds the collector waits on the channel"),
      Text("KPB_TRC1", "errors only", "trace levels and, after >, an output file"),
      Text("KPB_TRC1_LOG", "", "rolling trace files"),
      Text("KPB_VARPREFIX", "$", "introduces (systask) and (sysutcstart) in trace file names"),
      Text("TAVRA_LOG_PATH", "", "trace directory"),
      // The collector's SQL Server source.
      Text("COLL_SQL_SERVER", "COLL_HOSTNAME, else localhost", "the server's host name or address"),
      Number("COLL_SQL_PORT", "1433", 0, 65535, "TCP port (none with a named instance)"),
      Text("COLL_SQL_DRIVER", "FreeTDS (Windows: SQL Server)", "the ODBC driver's name"),
      Choice("COLL_SQL_ENCRYPT", "request", "off|request|require", "encryption of the SQL Server connection"),
      Option("COLL_SQL_TRUST_CERT", "TrustServerCertificate=yes (drivers other than FreeTDS)"),
      Text("COLL_SQL_OPTIONS", "", "more key=value; pairs for the connection string"),
      Number("COLL_SQL_LOGIN_TIMEOUT", "15", 1, 600, "seconds to connect and log in"),
      Number("COLL_SQL_QUERY_TIMEOUT", "30", 1, 3600, "seconds one table's batch may run"),
      Number("COLL_SQL_LOCK_TIMEOUT", "5000", 0, 600000, "milliseconds a batch waits for a lock"),
      Number("COLL_SQL_MAX_ROWS", "1000", 1, 1000000, "rows of a table that can have many"),
  };
}

std::string NumberProblem(const SettingSpec& spec, const std::string& value) {
  const std::string range = "a whole number from " + std::to_string(spec.low) + " to " + std::to_string(spec.high);
  if (value.empty()) return "";
  if (value[0] != '-' && value[0] != '+' && (value[0] < '0' || value[0] > '9')) return "is not " + range;
  errno = 0;
  char* end = nullptr;
  const long long n = strtoll(value.c_str(), &end, 10);
  if (end == value.c_str() || *end != '\0' || errno == ERANGE || n < spec.low || n > spec.high)
    return "is not " + range;
  return "";
}

std::string ChoiceProblem(const SettingSpec& spec, const std::string& value) {
  std::string_view rest = spec.choices;
  for (;;) {
    const size_t bar = rest.find('|');
    if (rest.substr(0, bar) == value) return "";
    if (bar == std::string_view::npos) break;
    rest.remove_prefix(bar + 1);
  }
  std::string words = spec.choices;
  for (char& c : words)
    if (c == '|') c = ',';
  return "is not one of " + words;
}

}  // namespace

const std::vector<SettingSpec>& SettingList() {
  static const std::vector<SettingSpec> list = MakeList();
  return list;
}

const SettingSpec* FindSetting(const std::string& name) {
  for (const SettingSpec& spec : SettingList())
    if (name == spec.name) return &spec;
  return nullptr;
}

std::string SettingProblem(const SettingSpec& spec, const std::string& value) {
  switch (spec.kind) {
    case K::kNumber: return NumberProblem(spec, value);
    case K::kChoice: return value.empty() ? "" : ChoiceProblem(spec, value);
    case K::kListen: {
      if (value.empty() || value == "off") return "";
      framework::HttpSettings parsed;
      std::string error;
      return framework::ParseListen(value, &parsed, &error) ? "" : "is not host:port, [v6]:port or off (" + error + ")";
    }
    default: return "";
  }
}

std::string ShownValue(const SettingSpec& spec, const std::string& value) {
  return spec.kind == K::kSecret && !value.empty() ? "***" : value;
}

}  // namespace kzq
