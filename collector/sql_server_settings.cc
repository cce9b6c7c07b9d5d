#include "collector/sql_server_settings.h"

#include <cerrno>
#include <cstdlib>
#include <optional>

#include "platform/environment.h"

namespace collector {
namespace {

// The driver every installation of the platform has: the system's own on
// Windows, the Debian package's on Linux (set by the build).
constexpr const char* kDefaultDriver = KZQ_DEFAULT_ODBC_DRIVER;

std::string Setting(const char* name) { return platform::GetEnv(name).value_or(""); }

// A whole number in [low, high] from a setting; the default when unset, and
// a problem when set to anything else.
int Number(const char* name, int low, int high, int fallback, std::vector<std::string>* problems) {
  const std::string text = Setting(name);
  if (text.empty()) return fallback;
  char* end = nullptr;
  errno = 0;
  const long value = strtol(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || value < low || value > high) {
    problems->push_back(std::string(name) + "='" + text + "' is not a number from " + std::to_string(low) + " to " +
                        std::to_string(high) + "; " + std::to_string(fallback) + " is used");
    return fallback;
  }
  return static_cast<int>(value);
}

bool IsOn(const std::string& value) { return !value.empty() && value != "0"; }

// A connection string value in braces, so that ';' and '=' in it are data.
std::string Braced(const std::string& value) {
  std::string out = "{";
  for (char c : value) {
    out += c;
    if (c == '}') out += '}';
  }
  return out + "}";
}

bool IsFreeTds(const std::string& driver) { return driver.find("FreeTDS") != std::string::npos; }

}  // namespace

SqlServerSettings ReadSqlServerSettings(std::vector<std::string>* problems) {
  SqlServerSettings s;
  s.driver = Setting("COLL_SQL_DRIVER");
  if (s.driver.empty()) s.driver = kDefaultDriver;
  s.server = Setting("COLL_SQL_SERVER");
  if (s.server.empty()) s.server = Setting("COLL_HOSTNAME");
  if (s.server.empty()) s.server = "localhost";
  s.port = Number("COLL_SQL_PORT", 0, 65535, 0, problems);
  s.server_id = Setting("COLL_SERVERID");
  if (IsOn(Setting("KZQ_NAMED_INSTANCE"))) s.instance = s.server_id;
  s.login = Setting("COLL_LOGON");
  if (s.login.empty()) s.login = Setting("COLL_LOGONID");
  s.password = Setting("COLL_PASSWORD");
  s.encrypt = Setting("COLL_SQL_ENCRYPT");
  if (s.encrypt.empty()) s.encrypt = "request";
  if (s.encrypt != "off" && s.encrypt != "request" && s.encrypt != "require") {
    problems->push_back("COLL_SQL_ENCRYPT='" + s.encrypt + "' is not off, request or require; request is used");
    s.encrypt = "request";
  }
  s.trust_certificate = IsOn(Setting("COLL_SQL_TRUST_CERT"));
  s.options = Setting("COLL_SQL_OPTIONS");
  // The FreeTDS driver reads a value in braces up to the first '}', so it
  // cannot be given one that holds it; say so rather than fail the login.
  for (const auto& [name, value] : {std::pair<const char*, const std::string*>{"COLL_LOGON", &s.login},
                                    {"COLL_PASSWORD", &s.password}})
    if (IsFreeTds(s.driver) && value->find('}') != std::string::npos)
      problems->push_back(std::string(name) + " holds a '}', which the FreeTDS driver cannot take: the login will fail");
  s.login_timeout = Number("COLL_SQL_LOGIN_TIMEOUT", 1, 600, s.login_timeout, problems);
  s.query_timeout = Number("COLL_SQL_QUERY_TIMEOUT", 1, 3600, s.query_timeout, problems);
  s.lock_timeout_ms = Number("COLL_SQL_LOCK_TIMEOUT", 0, 600000, s.lock_timeout_ms, problems);
  s.max_rows = Number("COLL_SQL_MAX_ROWS", 1, 1000000, s.max_rows, problems);
  return s;
}

std::string ConnectionString(const SqlServerSettings& s, bool with_password) {
  const bool free_tds = IsFreeTds(s.driver);
  std::string text = "Driver=" + Braced(s.driver) + ";";
  std::string server = s.server;
  if (!s.instance.empty() && s.port == 0) {
    server += "\\" + s.instance;
  } else if (!free_tds) {
    server += "," + std::to_string(s.port == 0 ? 1433 : s.port);
  }
  text += "Server=" + Braced(server) + ";";
  if (free_tds && (s.instance.empty() || s.port != 0))
    text += "Port=" + std::to_string(s.port == 0 ? 1433 : s.port) + ";TDS_Version=7.4;";
  if (free_tds) text += "ClientCharset=UTF-8;";
  text += "Database=master;APP=kzqcoll;";
  if (s.login.empty()) {
    text += "Trusted_Connection=Yes;";
  } else {
    text += "UID=" + Braced(s.login) + ";PWD=" + (with_password ? Braced(s.password) : "***") + ";";
  }
  if (free_tds) {
    text += "Encryption=" + s.encrypt + ";";
  } else {
    text += std::string("Encrypt=") + (s.encrypt == "require" ? "yes" : "no") + ";";
    if (s.trust_certificate) text += "TrustServerCertificate=yes;";
  }
  return text + s.options;
}

std::string BatchPrologue(const SqlServerSettings& s, int session_id) {
  return "SET NOCOUNT ON; SET TRANSACTION ISOLATION LEVEL READ UNCOMMITTED; SET DEADLOCK_PRIORITY LOW; "
         "SET LOCK_TIMEOUT " +
         std::to_string(s.lock_timeout_ms) + "; DECLARE @max_rows int = " + std::to_string(s.max_rows) +
         "; DECLARE @spid int = " + (session_id < 0 ? std::string("NULL") : std::to_string(session_id)) + ";\n";
}

}  // namespace collector
