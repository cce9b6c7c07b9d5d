// How the collector reaches SQL Server: read from the instance's settings
// (the environment, after the registry's values were imported), checked,
// and turned into an ODBC connection string.
#pragma once

#include <string>
#include <vector>

namespace collector {

struct SqlServerSettings {
  std::string driver;    // COLL_SQL_DRIVER
  std::string server;    // COLL_SQL_SERVER, else COLL_HOSTNAME, else localhost
  int port = 0;          // COLL_SQL_PORT; 0: the instance's, or 1433
  std::string instance;  // KZQ_NAMED_INSTANCE: COLL_SERVERID
  std::string login;     // COLL_LOGON (COLL_LOGONID); empty: integrated (Windows only)
  std::string password;  // COLL_PASSWORD
  std::string encrypt;   // COLL_SQL_ENCRYPT: off, request, require
  bool trust_certificate = false;  // COLL_SQL_TRUST_CERT
  std::string options;             // COLL_SQL_OPTIONS: more "key=value;" for the driver
  int login_timeout = 15;          // COLL_SQL_LOGIN_TIMEOUT, seconds
  int query_timeout = 30;          // COLL_SQL_QUERY_TIMEOUT, seconds
  int lock_timeout_ms = 5000;      // COLL_SQL_LOCK_TIMEOUT
  int max_rows = 1000;             // COLL_SQL_MAX_ROWS: rows of a many-row table
  std::string server_id;           // COLL_SERVERID
};

// The settings; each value that is not valid is named in *problems and its
// default kept.
SqlServerSettings ReadSqlServerSettings(std::vector<std::string>* problems);

// The connection string; the password shown as "***" unless `with_password`.
std::string ConnectionString(const SqlServerSettings& settings, bool with_password);

// What every batch starts with: session settings that keep the queries
// from blocking or being chosen as a deadlock victim's cause, and the
// values the queries use (@max_rows, @spid; NULL when `session_id` < 0).
std::string BatchPrologue(const SqlServerSettings& settings, int session_id);

}  // namespace collector
