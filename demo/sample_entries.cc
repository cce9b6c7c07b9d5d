#include "demo/sample_entries.h"

#include <cstdio>
#include <iterator>
#include <utility>

#include "demo/errorlog_text.h"

namespace kzq_demo {
namespace {

// Replaces every "{}" of a text with `value`.
std::string Fill(std::string text, const std::string& value) {
  for (size_t at; (at = text.find("{}")) != std::string::npos;) text.replace(at, 2, value);
  return text;
}

struct ErrorKind {
  long error;
  int severity;
  int state;
  bool from_session;  // reported by a session (spidNN) rather than by `source`
  const char* source;
  const char* message;  // "{}" is the session id or a client's last address byte
  int weight;
};

// Errors the demo server runs into; failed logins are the most common.
constexpr ErrorKind kErrors[] = {
    {18456, 14, 8, false, "Logon",
     "Login failed for user 'sa'. Reason: Password did not match that for the login provided. [CLIENT: 10.20.4.{}]", 4},
    {18456, 14, 5, false, "Logon",
     "Login failed for user 'report'. Reason: Could not find a login matching the name provided. [CLIENT: "
     "10.20.4.{}]",
     3},
    {18456, 14, 38, false, "Logon",
     "Login failed for user 'DEMO\\jsmith'. Reason: Failed to open the explicitly specified database 'PayrollDB'. "
     "[CLIENT: 10.20.4.{}]",
     2},
    {1205, 13, 51, true, "",
     "Transaction (Process ID {}) was deadlocked on lock resources with another process and has been chosen as the "
     "deadlock victim. Rerun the transaction.",
     2},
    {3041, 16, 1, false, "Backup",
     "BACKUP failed to complete the command BACKUP LOG HRDB. Check the backup application log for detailed messages.",
     2},
    {9002, 17, 2, true, "", "The transaction log for database 'SalesDB' is full due to 'ACTIVE_TRANSACTION'.", 2},
    {1105, 17, 2, true, "",
     "Could not allocate space for object 'dbo.OrderLines'.'PK_OrderLines' in database 'SalesDB' because the "
     "'PRIMARY' filegroup is full.",
     1},
    {701, 17, 123, true, "", "There is insufficient system memory in resource pool 'default' to run this query.", 1},
    {1204, 19, 4, true, "",
     "The instance of the SQL Server Database Engine cannot obtain a LOCK resource at this time. Rerun your "
     "statement when there are fewer active users.",
     1},
    {3624, 20, 1, true, "", "A system assertion check has failed. Check the SQL Server error log for details.", 1},
    {605, 21, 3, true, "",
     "Attempt to fetch logical page (1:40412) in database 5 failed. It belongs to allocation unit "
     "72057594045595648 not to 72057594043564032.",
     1},
    {9001, 21, 5, true, "",
     "The log for database 'HRDB' is not available. Check the operating system error log for related error "
     "messages. Resolve any errors and restart the database.",
     1},
    {823, 24, 2, true, "",
     "The operating system returned error 21(The device is not ready.) to SQL Server during a read at offset "
     "0x0000013bb8000 in file 'E:\\Data\\SalesDB.mdf'.",
     1},
    {824, 24, 2, true, "",
     "SQL Server detected a logical consistency-based I/O error: incorrect checksum (expected: 0x5a1e33c2; actual: "
     "0x5a1e3bc2). It occurred during a read of page (1:40412) in database ID 5 in file 'E:\\Data\\SalesDB.mdf'.",
     1},
};

LogEntry InfoEntry(std::string source, std::vector<std::string> lines) {
  LogEntry entry;
  entry.source = std::move(source);
  entry.lines = std::move(lines);
  return entry;
}

std::string Hex(uint32_t value) {
  char text[16];
  snprintf(text, sizeof text, "%08X", static_cast<unsigned>(value));
  return text;
}

}  // namespace

int SampleEntries::Between(int low, int high) { return std::uniform_int_distribution<int>(low, high)(random_); }

LogEntry SampleEntries::Next() {
  const int pick = Between(1, 120);
  if (pick <= 3) return SymptomDump();
  if (pick <= 23) return Error();
  return Info();
}

LogEntry SampleEntries::Info() {
  const std::string session = "spid" + std::to_string(Between(51, 120));
  const std::string system = "spid" + std::to_string(Between(10, 40)) + "s";
  const std::string n = std::to_string(Between(12, 9800));
  switch (Between(0, 6)) {
    case 0:
      return InfoEntry(
          "Logon", {"Login succeeded for user 'DEMO\\jsmith'. Connection made using Windows authentication. [CLIENT: "
                    "10.20.4." +
                    std::to_string(Between(2, 250)) + "]"});
    case 1:
      return InfoEntry(
          "Backup",
          {"Log was backed up. Database: SalesDB, creation date(time): 2025/03/14(09:12:40), pages dumped: " + n +
           ", number of dump devices: 1, device information: (FILE=1, TYPE=DISK: "
           "{'F:\\Backup\\SalesDB_LOG.trn'}). This is an informational message only. No user action is required."});
    case 2:
      return InfoEntry("Backup", {"BACKUP DATABASE successfully processed " + n + " pages in 0." +
                                  std::to_string(Between(100, 999)) + " seconds (34.963 MB/sec)."});
    case 3:
      return InfoEntry(system, {"Checkpoint of database 'SalesDB' wrote " + n + " pages in 18 ms."});
    case 4:
      return InfoEntry(
          session, {"DBCC CHECKDB (HRDB) WITH no_infomsgs executed by DEMO\\svc-sqlagent found 0 errors and repaired 0 "
                    "errors. Elapsed time: 0 hours 0 minutes " +
                    std::to_string(Between(3, 59)) + " seconds."});
    case 5:
      return InfoEntry(system, {"FlushCache: cleaned up " + n + " bufs with " + std::to_string(Between(10, 900)) +
                                " writes in 204 ms (avoided 36 new dirty bufs) for db 5:0"});
    default:
      return InfoEntry(session, {"Setting database option AUTO_UPDATE_STATISTICS_ASYNC to ON for database 'SalesDB'."});
  }
}

LogEntry SampleEntries::Error() {
  int total = 0;
  for (const ErrorKind& kind : kErrors) total += kind.weight;
  int pick = Between(1, total);
  const ErrorKind* kind = std::begin(kErrors);
  while (pick > kind->weight) pick -= (kind++)->weight;
  const int session = Between(51, 120);
  LogEntry entry;
  entry.kind = EntryKind::kError;
  entry.source = kind->from_session ? "spid" + std::to_string(session) : kind->source;
  entry.error = kind->error;
  entry.severity = kind->severity;
  entry.state = kind->state;
  entry.message = Fill(kind->message, std::to_string(kind->from_session ? session : Between(2, 250)));
  entry.lines = {ErrorNumbersText(entry.error, entry.severity, entry.state), entry.message};
  return entry;
}

// A dump starts with a line the agent knows by "create symptom dump" (its
// text may lead with "severity=<n>"; else the dump counts as severity 17)
// and ends with the line naming the dump file, whose text is the message.
LogEntry SampleEntries::SymptomDump() {
  const bool access_violation = Between(0, 2) == 0;
  const std::string session = "spid" + std::to_string(Between(51, 120));
  LogEntry entry;
  entry.kind = EntryKind::kSymptomDump;
  entry.source = access_violation ? session : "Server";
  entry.severity = access_violation ? 20 : 17;
  entry.lines.push_back(
      access_violation
          ? "severity=20 Exception Address = 00007FF8A3C12F4E Module(sqlmin+0000000000A12F4E): access violation "
            "reading address 0000000000000010; SQL Server is about to create symptom dump."
          : "Process 0:0:0 (0x2b40) Worker 0x000001E4C2A0C160 appears to be non-yielding on Scheduler " +
                std::to_string(Between(0, 7)) + ". SQL Server is about to create symptom dump.");
  entry.lines.push_back("* BEGIN STACK DUMP:");
  entry.lines.push_back(access_violation ? "*   Exception Code = c0000005 EXCEPTION_ACCESS_VIOLATION"
                                         : "*   Non-yielding Scheduler");
  entry.lines.push_back("Stack Signature for the dump is 0x" + Hex(random_()) + Hex(random_()));
  char file[64];
  snprintf(file, sizeof file, "D:\\MSSQL\\Log\\SQLDump%04d.txt", ++dumps_written_);
  entry.message = StackDumpSentText(file);
  entry.lines.push_back(entry.message);
  return entry;
}

std::vector<LogEntry> SampleEntries::StartupEntries() {
  return {
      InfoEntry("Server", {"Default collation: SQL_Latin1_General_CP1_CI_AS (us_english 1033)"}),
      InfoEntry("spid10s", {"Starting up database 'master'.",
                            "Recovery is writing a checkpoint in database "
                            "'master' (1). This is an informational message only. No user action is required."}),
      InfoEntry("spid14s", {"Starting up database 'msdb'.", "Starting up database 'SalesDB'.",
                            "Starting up database 'HRDB'.", "Starting up database 'model'."}),
      InfoEntry("spid12s", {"Clearing tempdb database.", "Starting up database 'tempdb'."}),
      InfoEntry("spid10s",
                {"Recovery is complete. This is an informational message only. No user action is required."}),
      InfoEntry("spid22s", {"Server is listening on [ 'any' <ipv4> 1433].",
                            "SQL Server is now ready for client connections. This is an informational "
                            "message; no user action is required."}),
  };
}

}  // namespace kzq_demo
