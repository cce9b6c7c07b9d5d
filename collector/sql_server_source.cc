#include "collector/sql_server_source.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "kvc/diagnostic_log.h"
#include "platform/clock.h"

namespace collector {
namespace {

constexpr uint32_t kFirstPause = 1000;
constexpr uint32_t kLongestPause = 60000;
// Texts are read up to this many bytes; the widest text field is 2048.
constexpr size_t kTextLimit = 8192;

// The session id of "SPID=<n>", or -1.
int SessionId(const std::string& statement) {
  if (statement.compare(0, 5, "SPID=") != 0) return -1;
  char* end = nullptr;
  const long id = strtol(statement.c_str() + 5, &end, 10);
  return (*end == '\0' && end != statement.c_str() + 5 && id >= 0 && id <= INT32_MAX) ? static_cast<int>(id) : -1;
}

}  // namespace

SqlServerSource::SqlServerSource(SqlServerSettings settings, SqlQueries queries, int code_page,
                                 std::string record_directory)
    : settings_(std::move(settings)),
      queries_(std::move(queries)),
      record_directory_(std::move(record_directory)),
      packer_(code_page) {}

bool SqlServerSource::Connected() {
  if (connection_.connected()) return true;
  const uint64_t now = platform::MonotonicMillis();
  if (now < next_attempt_) return false;
  std::string error;
  if (!connection_.Connect(ConnectionString(settings_, true), settings_.login_timeout, &error)) {
    ConnectionFailed(error);
    return false;
  }
  pause_ = 0;
  if (!unreachable_.empty() || !ever_connected_)
    kvc::Log('i', "col0031", "SQL Server reached: %s\n", ConnectionString(settings_, false).c_str());
  unreachable_.clear();
  ever_connected_ = true;
  return true;
}

void SqlServerSource::ConnectionFailed(const std::string& reason) {
  pause_ = pause_ == 0 ? kFirstPause : std::min(pause_ * 2, kLongestPause);
  next_attempt_ = platform::MonotonicMillis() + pause_;
  if (reason == unreachable_) return;
  unreachable_ = reason;
  kvc::Log('e', "col0030", "SQL Server unreachable (%s): %s\n", ConnectionString(settings_, false).c_str(),
           reason.c_str());
}

bool SqlServerSource::DatabaseReachable() { return Connected(); }

void SqlServerSource::TableAnswered(const kzq::TableSpec& table, const std::string& problem) {
  std::string& last = table_problems_[table.name];
  if (problem == last) return;
  if (problem.empty())
    kvc::Log('i', "col0033", "The query of %s answers again\n", table.key);
  else
    kvc::Log('e', "col0032", "The query of %s failed: %s\n", table.key, problem.c_str());
  last = problem;
}

int32_t SqlServerSource::Rows(const kzq::TableSpec& table, const std::string& statement, std::string* bytes) {
  const auto query = queries_.find(table.name);
  if (query == queries_.end()) return 0;
  if (!Connected()) return 0;
  PackContext context{settings_.server_id, platform::NowLocal(), platform::MonotonicMillis()};
  ResultSet result;
  std::string error;
  const QueryOutcome outcome = connection_.Query(BatchPrologue(settings_, SessionId(statement)) + query->second.text,
                                                 settings_.query_timeout, kTextLimit, &result, &error);
  if (outcome == QueryOutcome::kLost) {
    ConnectionFailed("connection lost: " + error);
    return 0;
  }
  if (outcome != QueryOutcome::kOk) {
    TableAnswered(table, outcome == QueryOutcome::kTimedOut ? "no answer within COLL_SQL_QUERY_TIMEOUT (" +
                                                                  std::to_string(settings_.query_timeout) + " s)"
                                                            : error);
    return 0;
  }
  std::string replay;
  std::vector<std::string> problems;
  const int32_t count = packer_.Pack(table, result, query->second.rates, context, bytes,
                                     record_directory_.empty() ? nullptr : &replay, &problems, &error);
  TableAnswered(table, count < 0 ? error : "");
  for (const std::string& problem : problems)
    if (value_problems_.insert(problem).second) kvc::Log('w', "col0034", "%s: sent without a value\n", problem.c_str());
  if (count < 0) return 0;
  if (!record_directory_.empty()) Record(table, replay);
  return count;
}

void SqlServerSource::Record(const kzq::TableSpec& table, const std::string& lines) {
  const std::filesystem::path path = std::filesystem::path(record_directory_) / (std::string(table.name) + ".jsonl");
  const std::filesystem::path temporary = path.string() + ".tmp";
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    out << lines;
    if (!out.flush()) {
      kvc::Log('e', "col0035", "Could not record %s in %s\n", table.key, temporary.string().c_str());
      return;
    }
  }
  std::error_code ec;
  std::filesystem::rename(temporary, path, ec);
  if (ec) kvc::Log('e', "col0035", "Could not record %s in %s: %s\n", table.key, path.string().c_str(), ec.message().c_str());
}

}  // namespace collector
