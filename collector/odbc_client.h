// One connection to SQL Server through the platform's ODBC driver manager
// (unixODBC on Linux, odbc32 on Windows). One thread at a time.
#pragma once

#include <string>

#include "collector/result_set.h"

namespace collector {

// How a query ended.
enum class QueryOutcome {
  kOk,
  kFailed,    // the server refused the batch (error text in *error)
  kTimedOut,  // no answer within the time-out; the connection is closed
  kLost,      // the connection broke; it is closed
};

class OdbcConnection {
 public:
  OdbcConnection();
  ~OdbcConnection();
  OdbcConnection(const OdbcConnection&) = delete;
  OdbcConnection& operator=(const OdbcConnection&) = delete;

  // Connects with a full connection string; false with *error, the
  // driver's diagnostics (never the connection string).
  bool Connect(const std::string& connection_string, int login_timeout_seconds, std::string* error);
  bool connected() const { return connection_ != nullptr; }
  void Disconnect();

  // Runs a batch and reads its first result set that has columns. Texts
  // longer than `text_limit` bytes are cut there.
  QueryOutcome Query(const std::string& batch, int timeout_seconds, size_t text_limit, ResultSet* result,
                     std::string* error);

 private:
  void* environment_ = nullptr;  // SQLHENV
  void* connection_ = nullptr;   // SQLHDBC
};

}  // namespace collector
