// The agent's configuration: environment variables (mostly COLL_*) cached
// in one process-wide record, with the rules by which each is defaulted.
#pragma once

#include <cstdint>

namespace kvc {

// Every text field is a heap copy kept for the life of the process; null
// means not known yet, and the next ReadAgentEnvironment tries again.
struct AgentConfig {
  char* home = nullptr;         // COLL_HOME, else the current directory
  char* ctlHome = nullptr;      // COLL_CTL_HOME, else the current directory
  char* binPath = nullptr;      // COLL_BINPATH
  char* outDir = nullptr;       // COLL_OUT, else home or the local prefix
  char* hostName = nullptr;     // COLL_HOSTNAME, else COMPUTERNAME
  char* userName = nullptr;     // USERNAME, else "sys"
  char* serverId = nullptr;     // COLL_SERVERID
  char* logon = nullptr;        // COLL_LOGON, else COLL_LOGONID
  char* password = nullptr;     // COLL_PASSWORD
  char* errorLog = nullptr;     // COLL_ERRORLOG
  char* version = nullptr;      // COLL_VERSION, else COLL_VERSION_HOME, else "kvc"
  char* prefix = nullptr;       // COLL_PREFIX, else <log dir or temp dir><sep><user>
  char* prefixLocal = nullptr;  // COLL_PREFIX_LOCAL, else prefix
  int32_t maxReadErrorLog = 0;  // MAXREADSZ_ERRORLOG, else 20480000
  char* useShm = nullptr;       // COLL_USESHM
  int32_t noSignals = 0;        // COLL_NOSIGNALS
  char* noSec = nullptr;        // COLL_NOSEC
  char* cfgDir = nullptr;       // KVCCFGDIR, else ctlHome
  char* dbHome = nullptr;       // COLL_DBHOME
  char* dbVersion = nullptr;    // COLL_DBVERSION
  uint16_t debugFlag = 0;       // set by a debug word starting with 'd'
  uint16_t DebugLevels[10] = {};
};

// The process's record.
AgentConfig& TheAgentConfig();

// Values kept beside the record, each filled once.
struct AgentPlaces {
  const char* homeDirectory = nullptr;  // HOMEDRIVE + HOMEPATH, or ""
  const char* currentDirectory = nullptr;
  const char* tempDirectory = nullptr;  // TEMP, else the platform's fallback
  const char* disableCursors = nullptr;  // COLL_DISABLE_CURSORS
};
const AgentPlaces& TheAgentPlaces();

// Fills every field of `config` that is still unset. Always 1.
int ReadAgentEnvironment(AgentConfig& config);

// Modes of GetEnvDefault.
inline constexpr int kEnvPlain = 0;
inline constexpr int kEnvReport = 1;    // report a missing variable and the default used
inline constexpr int kEnvExport = -1;   // export the default when the variable is unset
inline constexpr int kEnvNoTrace = -2;  // never trace

// The variable's value as a heap copy (or, in export mode, the text inside
// the exported pair), the default when it is unset or empty and the
// default is not empty, else null.
char* GetEnvDefault(const char* name, int mode, const char* defaultValue);

// Exports name=value (the name alone when value is null). Returns the
// value's text inside the exported string, which is never freed, or null.
char* PutEnvPair(const char* name, const char* value);

}  // namespace kvc
