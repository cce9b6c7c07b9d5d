#include "collector/odbc_client.h"

#include <sql.h>
#include <sqlext.h>

#include <cstring>
#include <vector>

#include "platform/text.h"

static_assert(sizeof(SQLWCHAR) == sizeof(char16_t), "the driver manager's wide characters are UTF-16 units");

namespace collector {
namespace {

// datetimeoffset, which the ODBC headers of the driver manager do not name.
constexpr SQLSMALLINT kTimestampWithOffset = -155;
// Wide characters read per call for long texts.
constexpr SQLLEN kTextChunk = 4096;

std::u16string Wide(const std::string& utf8) { return platform::Utf8ToUtf16(utf8); }

SQLWCHAR* WideArgument(std::u16string& text) { return reinterpret_cast<SQLWCHAR*>(text.data()); }

// Every diagnostic record of a handle as "[SQLSTATE] text; ...", and
// their SQLSTATEs.
std::string Diagnostics(SQLSMALLINT type, SQLHANDLE handle, std::vector<std::string>* states) {
  std::string all;
  for (SQLSMALLINT record = 1; record <= 8; ++record) {
    SQLWCHAR state[6] = {};
    SQLWCHAR message[1024] = {};
    SQLINTEGER native = 0;
    SQLSMALLINT length = 0;
    const SQLRETURN rc = SQLGetDiagRecW(type, handle, record, state, &native, message,
                                        static_cast<SQLSMALLINT>(sizeof message / sizeof message[0]), &length);
    if (!SQL_SUCCEEDED(rc)) break;
    const std::string state_text = platform::Utf16ToUtf8(std::u16string_view(reinterpret_cast<char16_t*>(state), 5));
    if (states != nullptr) states->push_back(state_text);
    std::string text = platform::Utf16ToUtf8(reinterpret_cast<char16_t*>(message));
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    if (!all.empty()) all += "; ";
    all += "[" + state_text + "] " + text;
  }
  return all.empty() ? "no diagnostics from the driver" : all;
}

CellKind KindOf(SQLSMALLINT type) {
  switch (type) {
    case SQL_BIT:
    case SQL_TINYINT:
    case SQL_SMALLINT:
    case SQL_INTEGER:
    case SQL_BIGINT:
      return CellKind::kInteger;
    case SQL_DECIMAL:
    case SQL_NUMERIC:
    case SQL_FLOAT:
    case SQL_REAL:
    case SQL_DOUBLE:
      return CellKind::kReal;
    case SQL_TYPE_DATE:
    case SQL_TYPE_TIMESTAMP:
    case SQL_DATETIME:
    case SQL_TIMESTAMP:
    case kTimestampWithOffset:
      return CellKind::kTime;
    default:
      return CellKind::kText;
  }
}

// Reads a text column in chunks until its end, keeping at most `limit`
// bytes of UTF-8 (more is read and dropped, as the driver needs).
SQLRETURN ReadText(SQLHSTMT statement, SQLUSMALLINT column, size_t limit, Cell* cell) {
  std::u16string units;
  std::vector<SQLWCHAR> buffer(static_cast<size_t>(kTextChunk) + 1);
  for (;;) {
    SQLLEN indicator = 0;
    const SQLRETURN rc = SQLGetData(statement, column, SQL_C_WCHAR, buffer.data(),
                                    static_cast<SQLLEN>(buffer.size() * sizeof(SQLWCHAR)), &indicator);
    if (rc == SQL_NO_DATA) break;
    if (!SQL_SUCCEEDED(rc)) return rc;
    if (indicator == SQL_NULL_DATA) return SQL_SUCCESS;  // cell stays null
    size_t got = 0;
    while (got < buffer.size() - 1 && buffer[got] != 0) ++got;
    if (units.size() < limit) units.append(reinterpret_cast<const char16_t*>(buffer.data()), got);
    if (rc == SQL_SUCCESS) break;  // the whole rest fitted
  }
  cell->kind = CellKind::kText;
  cell->text = platform::Utf16ToUtf8(units);
  if (cell->text.size() > limit) cell->text.resize(limit);  // the packer cuts at a character
  return SQL_SUCCESS;
}

SQLRETURN ReadCell(SQLHSTMT statement, SQLUSMALLINT column, CellKind kind, size_t text_limit, Cell* cell) {
  SQLLEN indicator = 0;
  SQLRETURN rc = SQL_SUCCESS;
  switch (kind) {
    case CellKind::kInteger:
      rc = SQLGetData(statement, column, SQL_C_SBIGINT, &cell->integer, sizeof cell->integer, &indicator);
      break;
    case CellKind::kReal:
      rc = SQLGetData(statement, column, SQL_C_DOUBLE, &cell->real, sizeof cell->real, &indicator);
      break;
    case CellKind::kTime: {
      SQL_TIMESTAMP_STRUCT t{};
      rc = SQLGetData(statement, column, SQL_C_TYPE_TIMESTAMP, &t, sizeof t, &indicator);
      cell->time.year = t.year;
      cell->time.month = t.month;
      cell->time.day = t.day;
      cell->time.hour = t.hour;
      cell->time.minute = t.minute;
      cell->time.second = t.second;
      cell->time.millisecond = static_cast<int>(t.fraction / 1000000);
      break;
    }
    default:
      return ReadText(statement, column, text_limit, cell);
  }
  if (SQL_SUCCEEDED(rc) && indicator != SQL_NULL_DATA) cell->kind = kind;
  return rc;
}

// Moves to the batch's first result with columns; SQL_NO_DATA when none.
SQLRETURN FirstResultWithColumns(SQLHSTMT statement, SQLRETURN rc, SQLSMALLINT* columns) {
  while (SQL_SUCCEEDED(rc)) {
    rc = SQLNumResultCols(statement, columns);
    if (!SQL_SUCCEEDED(rc) || *columns > 0) return rc;
    rc = SQLMoreResults(statement);
  }
  return rc;
}

bool ReadColumns(SQLHSTMT statement, SQLSMALLINT count, ResultSet* result, std::vector<CellKind>* kinds) {
  for (SQLUSMALLINT c = 1; c <= static_cast<SQLUSMALLINT>(count); ++c) {
    SQLWCHAR name[256] = {};
    SQLSMALLINT name_length = 0, type = 0, digits = 0, nullable = 0;
    SQLULEN size = 0;
    if (!SQL_SUCCEEDED(SQLDescribeColW(statement, c, name, static_cast<SQLSMALLINT>(sizeof name / sizeof name[0]),
                                       &name_length, &type, &size, &digits, &nullable)))
      return false;
    result->columns.push_back(platform::Utf16ToUtf8(reinterpret_cast<char16_t*>(name)));
    kinds->push_back(KindOf(type));
  }
  return true;
}

// A driver may put a warning before the record that tells what happened
// (a lost link after "unexpected end of data"), so every record counts.
QueryOutcome Classify(const std::vector<std::string>& states) {
  QueryOutcome outcome = QueryOutcome::kFailed;
  for (const std::string& state : states) {
    if (state.compare(0, 2, "08") == 0) return QueryOutcome::kLost;
    if (state == "HYT00" || state == "HYT01") outcome = QueryOutcome::kTimedOut;
  }
  return outcome;
}

}  // namespace

OdbcConnection::OdbcConnection() {
  SQLHENV environment = SQL_NULL_HENV;
  if (SQL_SUCCEEDED(SQLAllocHandle(SQL_HANDLE_ENV, SQL_NULL_HANDLE, &environment))) {
    SQLSetEnvAttr(environment, SQL_ATTR_ODBC_VERSION, reinterpret_cast<SQLPOINTER>(SQL_OV_ODBC3), 0);
    environment_ = environment;
  }
}

OdbcConnection::~OdbcConnection() {
  Disconnect();
  if (environment_ != nullptr) SQLFreeHandle(SQL_HANDLE_ENV, environment_);
}

bool OdbcConnection::Connect(const std::string& connection_string, int login_timeout_seconds, std::string* error) {
  Disconnect();
  if (environment_ == nullptr) {
    *error = "the ODBC driver manager could not be initialised";
    return false;
  }
  SQLHDBC connection = SQL_NULL_HDBC;
  if (!SQL_SUCCEEDED(SQLAllocHandle(SQL_HANDLE_DBC, environment_, &connection))) {
    *error = Diagnostics(SQL_HANDLE_ENV, environment_, nullptr);
    return false;
  }
  const auto timeout = reinterpret_cast<SQLPOINTER>(static_cast<SQLULEN>(login_timeout_seconds));
  SQLSetConnectAttr(connection, SQL_ATTR_LOGIN_TIMEOUT, timeout, 0);
  SQLSetConnectAttr(connection, SQL_ATTR_CONNECTION_TIMEOUT, timeout, 0);
  std::u16string text = Wide(connection_string);
  const SQLRETURN rc = SQLDriverConnectW(connection, nullptr, WideArgument(text), static_cast<SQLSMALLINT>(text.size()),
                                         nullptr, 0, nullptr, SQL_DRIVER_NOPROMPT);
  if (!SQL_SUCCEEDED(rc)) {
    *error = Diagnostics(SQL_HANDLE_DBC, connection, nullptr);
    SQLFreeHandle(SQL_HANDLE_DBC, connection);
    return false;
  }
  connection_ = connection;
  return true;
}

void OdbcConnection::Disconnect() {
  if (connection_ == nullptr) return;
  SQLDisconnect(connection_);
  SQLFreeHandle(SQL_HANDLE_DBC, connection_);
  connection_ = nullptr;
}

QueryOutcome OdbcConnection::Query(const std::string& batch, int timeout_seconds, size_t text_limit,
                                   ResultSet* result, std::string* error) {
  *result = ResultSet{};
  SQLHSTMT statement = SQL_NULL_HSTMT;
  if (connection_ == nullptr || !SQL_SUCCEEDED(SQLAllocHandle(SQL_HANDLE_STMT, connection_, &statement))) {
    *error = connection_ == nullptr ? "not connected" : Diagnostics(SQL_HANDLE_DBC, connection_, nullptr);
    Disconnect();
    return QueryOutcome::kLost;
  }
  SQLSetStmtAttr(statement, SQL_ATTR_QUERY_TIMEOUT,
                 reinterpret_cast<SQLPOINTER>(static_cast<SQLULEN>(timeout_seconds)), 0);
  std::u16string text = Wide(batch);
  SQLSMALLINT count = 0;
  SQLRETURN rc = FirstResultWithColumns(
      statement, SQLExecDirectW(statement, WideArgument(text), static_cast<SQLINTEGER>(text.size())), &count);
  std::vector<CellKind> kinds;
  if (rc != SQL_NO_DATA && SQL_SUCCEEDED(rc) && !ReadColumns(statement, count, result, &kinds)) rc = SQL_ERROR;
  while (rc != SQL_NO_DATA && SQL_SUCCEEDED(rc) && SQL_SUCCEEDED(rc = SQLFetch(statement))) {
    std::vector<Cell> row(kinds.size());
    for (size_t c = 0; c < kinds.size() && SQL_SUCCEEDED(rc); ++c)
      rc = ReadCell(statement, static_cast<SQLUSMALLINT>(c + 1), kinds[c], text_limit, &row[c]);
    if (SQL_SUCCEEDED(rc)) result->rows.push_back(std::move(row));
  }
  QueryOutcome outcome = QueryOutcome::kOk;
  if (rc != SQL_NO_DATA && !SQL_SUCCEEDED(rc)) {
    std::vector<std::string> states;
    *error = Diagnostics(SQL_HANDLE_STMT, statement, &states);
    outcome = Classify(states);
    // A result cut short may report only a warning; the driver knows
    // whether the link itself is gone.
    SQLUINTEGER dead = SQL_CD_FALSE;
    if (outcome == QueryOutcome::kFailed &&
        SQL_SUCCEEDED(SQLGetConnectAttr(connection_, SQL_ATTR_CONNECTION_DEAD, &dead, 0, nullptr)) &&
        dead == SQL_CD_TRUE)
      outcome = QueryOutcome::kLost;
  }
  SQLFreeHandle(SQL_HANDLE_STMT, statement);
  if (outcome == QueryOutcome::kTimedOut || outcome == QueryOutcome::kLost) Disconnect();
  return outcome;
}

}  // namespace collector
