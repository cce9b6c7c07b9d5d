#include "kvc/sql_library_requests.h"

#include <memory>
#include <mutex>

#include "kvc/agent_config.h"
#include "kvc/diagnostic_log.h"
#include "kvc/kzqsqld.h"
#include "platform/shared_library.h"

namespace kvc {
namespace {

struct SqlLibrary {
  std::mutex lock;
  std::unique_ptr<platform::SharedLibrary> library;
  kzqsqld_set_debug_levels set_debug_levels = nullptr;
  kzqsqld_exec_sql_request exec_sql_request = nullptr;
};

SqlLibrary& TheSqlLibrary() {
  static SqlLibrary* library = new SqlLibrary;  // kept for the life of the process
  return *library;
}

// Loads the library and finds both entries; false, logged, when either fails.
bool Load(SqlLibrary& sql) {
  if (sql.exec_sql_request != nullptr) return true;
  sql.library = platform::LoadSharedLibrary("kzqsqld");
  if (sql.library == nullptr) {
    // The message has always named this file, whatever was loaded.
    Log('w', "uex3047b", "LoadLibray(kzqdbdll.dll) failed");
    return false;
  }
  sql.set_debug_levels = reinterpret_cast<kzqsqld_set_debug_levels>(sql.library->Entry("setDebugLevels"));
  sql.exec_sql_request = reinterpret_cast<kzqsqld_exec_sql_request>(sql.library->Entry("execSqlRequest"));
  if (sql.set_debug_levels != nullptr && sql.exec_sql_request != nullptr) return true;
  Log('w', "uex3047a", "DLL routines not found");
  sql.set_debug_levels = nullptr;
  sql.exec_sql_request = nullptr;
  sql.library.reset();
  return false;
}

const char* OrEmpty(const char* text) { return text != nullptr ? text : ""; }

}  // namespace

int RunSqlRequest(const char* request, const char* output_path) {
  SqlLibrary& sql = TheSqlLibrary();
  // One request at a time: the library is not asked to be thread-safe.
  std::lock_guard<std::mutex> guard(sql.lock);
  if (!Load(sql)) return -1;
  AgentConfig& config = TheAgentConfig();
  ReadAgentEnvironment(config);
  sql.set_debug_levels(config.debugFlag, config.DebugLevels, 10);
  const int rc = sql.exec_sql_request(request, output_path, OrEmpty(config.hostName), OrEmpty(config.serverId),
                                      OrEmpty(config.logon), OrEmpty(config.password));
  if (rc == 0) return 0;
  KVC_DEBUG_TRACE("uex3047a", "DLL returned %d", rc);
  return -1;
}

}  // namespace kvc
