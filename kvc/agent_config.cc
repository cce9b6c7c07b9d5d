#include "kvc/agent_config.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "kvc/debug_switches.h"
#include "kvc/diagnostic_log.h"
#include "platform/environment.h"
#include "platform/file_system.h"

namespace kvc {
namespace {

constexpr int32_t kDefaultMaxReadErrorLog = 20480000;

bool LevelOn(int level) { return Debug().levels[level] != 0; }

// A heap copy kept for the life of the process; null (and reported) when
// memory is exhausted.
char* Keep(const std::string& text) {
  char* copy = new (std::nothrow) char[text.size() + 1];
  if (copy == nullptr) {
    Log('s', "utm5400", "Memory allocation error at:%s.%d - %s for %d bytes \n", __FILE__, __LINE__,
        "strlen(ret)+1", static_cast<int>(text.size() + 1));
    return nullptr;
  }
  memcpy(copy, text.c_str(), text.size() + 1);
  return copy;
}

// The variable, with an empty value counting as unset.
std::string Value(const char* name) {
  return platform::GetEnv(name).value_or("");
}

void TraceRead(const char* name, const char* value) {
  if (!LevelOn(3)) return;
  if (value != nullptr)
    Log('t', "uen0025", "Env var %s=%s.\n", name, value);
  else
    Log('t', "uen0026", "Env var %s was not set.\n", name);
}

// A field from a variable (else a fallback variable), traced.
void Fill(char*& field, const char* name, const char* fallback_name = nullptr) {
  if (field != nullptr) return;
  std::string value = Value(name);
  if (value.empty() && fallback_name != nullptr) value = Value(fallback_name);
  if (!value.empty()) field = Keep(value);
  TraceRead(name, field);
}

AgentPlaces& Places() {
  static AgentPlaces places;
  return places;
}

void FillPlaces(AgentConfig& config) {
  AgentPlaces& p = Places();
  if (p.homeDirectory == nullptr) {
    const std::string debug = Value("COLL_DEBUG");
    if (!debug.empty()) {
      ParseDebugWord(debug.c_str(), &Debug());
      config.debugFlag = Debug().debug ? 1 : 0;
      memcpy(config.DebugLevels, Debug().levels, sizeof config.DebugLevels);
    }
    const std::string drive = Value("HOMEDRIVE");
    p.homeDirectory = Keep(drive.empty() ? std::string() : drive + Value("HOMEPATH"));
  }
  if (p.currentDirectory == nullptr) {
    int error = 0;
    const std::string current = platform::CurrentDirectory(&error);
    if (error != 0) Log('e', "uti2051", "Error in GetCurrentDirectory() . Error code:%ld\n", static_cast<long>(error));
    p.currentDirectory = Keep(current);
  }
  if (p.tempDirectory == nullptr) {
    const std::string temp = Value("TEMP");
    p.tempDirectory = Keep(temp.empty() ? platform::FallbackTempDirectory() : temp);
  }
}

void FillPrefixes(AgentConfig& config) {
  if (config.prefix == nullptr) {
    const std::string value = Value("COLL_PREFIX");
    if (!value.empty()) {
      config.prefix = Keep(value);
    } else {
      const std::string log_dir = Value("KVCLOGDIR");
      const std::string base = log_dir.empty() ? Places().tempDirectory : log_dir;
      config.prefix = Keep(base + platform::PathSeparator() + (config.userName ? config.userName : ""));
    }
  }
  if (config.prefixLocal == nullptr) {
    const std::string value = Value("COLL_PREFIX_LOCAL");
    config.prefixLocal = Keep(value.empty() ? std::string(config.prefix ? config.prefix : "") : value);
  }
  if (config.outDir == nullptr) {
    const std::string value = Value("COLL_OUT");
    const bool same = config.prefix != nullptr && config.prefixLocal != nullptr &&
                      strcmp(config.prefix, config.prefixLocal) == 0;
    const char* fallback = same ? config.home : config.prefixLocal;
    if (!value.empty())
      config.outDir = Keep(value);
    else if (fallback != nullptr)
      config.outDir = Keep(fallback);
  }
}

void FillNumbers(AgentConfig& config) {
  if (config.maxReadErrorLog == 0) {
    const std::string value = Value("MAXREADSZ_ERRORLOG");
    if (!value.empty()) {
      config.maxReadErrorLog = atoi(value.c_str());
    } else {
      config.maxReadErrorLog = kDefaultMaxReadErrorLog;
      if (LevelOn(6))
        Log('t', "uen0021", "'%s' not set, using default of %d\n", "MAXREADSZ_ERRORLOG", kDefaultMaxReadErrorLog);
    }
  }
  const std::string signals = Value("COLL_NOSIGNALS");
  if (!signals.empty()) config.noSignals = atoi(signals.c_str());
}

}  // namespace

AgentConfig& TheAgentConfig() {
  static AgentConfig config;
  return config;
}

const AgentPlaces& TheAgentPlaces() { return Places(); }

int ReadAgentEnvironment(AgentConfig& config) {
  FillPlaces(config);
  if (config.userName == nullptr) {
    const std::string user = Value("USERNAME");
    config.userName = Keep(user.empty() ? "sys" : user);
  }
  if (config.home == nullptr) config.home = GetEnvDefault("COLL_HOME", kEnvPlain, Places().currentDirectory);
  if (config.ctlHome == nullptr) config.ctlHome = GetEnvDefault("COLL_CTL_HOME", kEnvPlain, Places().currentDirectory);
  Fill(config.binPath, "COLL_BINPATH");
  Fill(config.hostName, "COLL_HOSTNAME", "COMPUTERNAME");
  Fill(config.serverId, "COLL_SERVERID");
  Fill(config.logon, "COLL_LOGON", "COLL_LOGONID");
  Fill(config.password, "COLL_PASSWORD");
  if (config.version == nullptr) {
    Fill(config.version, "COLL_VERSION", "COLL_VERSION_HOME");
    if (config.version == nullptr) config.version = Keep("kvc");
  }
  FillPrefixes(config);
  if (Places().disableCursors == nullptr) {
    const std::string cursors = Value("COLL_DISABLE_CURSORS");
    if (!cursors.empty()) Places().disableCursors = Keep(cursors);
  }
  Fill(config.errorLog, "COLL_ERRORLOG");
  Fill(config.dbVersion, "COLL_DBVERSION");
  FillNumbers(config);
  Fill(config.useShm, "COLL_USESHM");
  Fill(config.dbHome, "COLL_DBHOME");
  Fill(config.noSec, "COLL_NOSEC");
  if (config.cfgDir == nullptr) config.cfgDir = GetEnvDefault("KVCCFGDIR", kEnvPlain, config.ctlHome);
  return 1;
}

char* GetEnvDefault(const char* name, int mode, const char* defaultValue) {
  const bool has_default = defaultValue != nullptr && *defaultValue != '\0';
  const auto raw = platform::GetEnv(name);
  std::string value = raw.value_or("");
  if (raw.has_value() && value.empty() && mode == kEnvReport)
    Log(has_default ? 'i' : 'w', "uen0010", "Environment variable \"%s\" is not available\n", name);
  if (!raw.has_value() && mode == kEnvReport)
    Log(has_default ? 'i' : 'w', "uen0015", "Environment variable \"%s\" not set\n", name);
  char* result = nullptr;
  if (value.empty() && has_default) {
    if (mode == kEnvReport) Log('i', "uen0020", "Using default of %s\n", defaultValue);
    result = mode == kEnvExport ? PutEnvPair(name, defaultValue) : Keep(defaultValue);
  } else if (!value.empty()) {
    result = Keep(value);
  }
  if (mode != kEnvReport && mode != kEnvNoTrace) TraceRead(name, result);
  return result;
}

char* PutEnvPair(const char* name, const char* value) {
  const size_t name_length = strlen(name);
  const size_t size = name_length + (value ? strlen(value) : 0) + 2;
  char* pair = new (std::nothrow) char[size];
  if (pair == nullptr) {
    Log('s', "utm5400", "Memory allocation error at:%s.%d - %s for %d bytes \n", __FILE__, __LINE__, "size+1+1",
        static_cast<int>(size));
    return nullptr;
  }
  snprintf(pair, size, value ? "%s=%s" : "%s", name, value ? value : "");
  if (!platform::PutEnvPair(pair)) {
    Log('e', "uen0045", "Environment variable \"%s\" could not be set.", name);
    delete[] pair;
    return nullptr;
  }
  if (LevelOn(0)) Log('t', "uen0046", "Set environment variable \"%s\".", name);
  return value ? pair + name_length + 1 : pair + name_length;
}

}  // namespace kvc
