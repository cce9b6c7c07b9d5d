#include "kzq/ctl_views.h"

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <set>

#include "kzq/ctl_format.h"

namespace kzq {
namespace {

using Json = nlohmann::ordered_json;

std::string Field(const Json& row, const char* name) { return Shown(row.value(name, Json())); }

// A name the collector gives in full (U...) when it has one, else the short one.
std::string FullName(const Json& row, const char* full, const char* short_name) {
  const std::string name = Field(row, full);
  return name.empty() ? Field(row, short_name) : name;
}

bool Waits(const std::string& blocker) { return !blocker.empty() && blocker != "0"; }

// Which sessions wait for each session.
class WaitGraph {
 public:
  explicit WaitGraph(const Json& rows) : rows_(rows) {
    for (size_t i = 0; i < rows.size(); ++i) by_id_[Field(rows[i], "PROCESSID")] = i;
    for (size_t i = 0; i < rows.size(); ++i) {
      const std::string blocker = Field(rows[i], "BLOCKID");
      if (Waits(blocker)) waiters_[blocker].push_back(i);
    }
  }

  // A session at the head of a chain: it blocks others and waits for no
  // session of this sample.
  bool IsHead(size_t i) const {
    const std::string blocker = Field(rows_[i], "BLOCKID");
    return waiters_.count(Field(rows_[i], "PROCESSID")) && (!Waits(blocker) || !by_id_.count(blocker));
  }
  bool InChain(size_t i) const {
    return waiters_.count(Field(rows_[i], "PROCESSID")) || Waits(Field(rows_[i], "BLOCKID"));
  }

  // Calls `each` with the session and then, one level deeper, every session
  // waiting for it, each session once.
  void Walk(size_t i, int depth, std::set<size_t>* seen, const std::function<void(size_t, int)>& each) const {
    if (!seen->insert(i).second) return;
    each(i, depth);
    const auto waiting = waiters_.find(Field(rows_[i], "PROCESSID"));
    if (waiting == waiters_.end()) return;
    for (size_t w : waiting->second) Walk(w, depth + 1, seen, each);
  }

 private:
  const Json& rows_;
  std::map<std::string, size_t> by_id_;
  std::map<std::string, std::vector<size_t>> waiters_;
};

std::string JobState(const std::string& enabled, const std::string& code) {
  if (enabled == "0") return "disabled";
  if (code == "1") return "executing";
  if (code == "2") return "queued";
  if (code == "4") return "idle";
  return code;
}

std::string JobOutcome(const std::string& code) {
  if (code == "0") return "failed";
  if (code == "1") return "succeeded";
  if (code == "3") return "canceled";
  if (code == "5") return "unknown";
  return code;
}

std::string Duration(const std::string& seconds) {
  if (seconds.empty() || seconds.find_first_not_of("0123456789") != std::string::npos) return seconds;
  const long s = strtol(seconds.c_str(), nullptr, 10);
  char text[32];
  snprintf(text, sizeof text, "%ld:%02ld:%02ld", s / 3600, s / 60 % 60, s % 60);
  return text;
}

std::string Time(const Json& row, const char* name, bool utc) {
  const std::string text = Field(row, name);
  return ReadableStamp(text, utc).value_or(text);
}

}  // namespace

TextTable BlockingTree(const Json& processes) {
  const Json rows = processes.value("rows", Json::array());
  TextTable table{{"SESSION", "BLOCKED BY", "DATABASE", "STATUS", "COMMAND", "LOGIN", "HOST", "PROGRAM", "SECONDS"}, {}};
  const WaitGraph graph(rows);
  std::set<size_t> seen;
  const auto add = [&](size_t i, int depth) {
    const Json& row = rows[i];
    const std::string blocker = Field(row, "BLOCKID");
    table.rows.push_back({std::string(2 * depth, ' ') + Field(row, "PROCESSID"), Waits(blocker) ? blocker : "",
                          FullName(row, "UDBNAME", "DBNAME"), Field(row, "STATUS"), FullName(row, "UCMDNAME", "CMDNAME"),
                          Field(row, "SRVUSER"), Field(row, "CLNTHOST"), FullName(row, "UPGMNAME", "PGMNAME"),
                          Field(row, "PROCDURSEC")});
  };
  for (size_t i = 0; i < rows.size(); ++i)
    if (graph.IsHead(i)) graph.Walk(i, 0, &seen, add);
  // What is left waits in a circle, with no head.
  for (size_t i = 0; i < rows.size(); ++i)
    if (graph.InChain(i) && !seen.count(i)) graph.Walk(i, 0, &seen, add);
  return table;
}

TextTable JobTable(const Json& jobs, bool utc) {
  TextTable table{{"JOB", "NOW", "LAST RUN", "OUTCOME", "DURATION", "ERROR", "NEXT RUN"}, {}};
  for (const Json& row : jobs.value("rows", Json::array())) {
    const std::string error = Field(row, "JOBERRCODE");
    table.rows.push_back({Field(row, "JOBNAME"), JobState(Field(row, "JOBENABLED"), Field(row, "CURSTATUS")),
                          Time(row, "LSTRUNTIME", utc),
                          JobOutcome(Field(row, "LSTRUNSTAT")), Duration(Field(row, "JOBDUR")),
                          error == "0" ? "" : error, Time(row, "NXTRUNTIME", utc)});
  }
  return table;
}

TextTable DatabaseTable(const Json& databases) {
  TextTable table{{"DATABASE", "STATE", "DATA MB", "DATA FREE %", "LOG MB", "LOG FREE %"}, {}};
  for (const Json& row : databases.value("rows", Json::array()))
    table.rows.push_back({FullName(row, "UDBNAME", "DBNAME"), Field(row, "DBSTATE"), Field(row, "DBSIZE"),
                          Field(row, "PCTDBFREE"), Field(row, "LOGSIZE"), Field(row, "PCTLOGFREE")});
  return table;
}

}  // namespace kzq
