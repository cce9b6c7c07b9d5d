#include "kvc/command_execution.h"

#include <cctype>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kvc/agent_config.h"
#include "kvc/sql_library_requests.h"
#include "kvc/string_time.h"
#include "kvc/command_temp_files.h"
#include "kvc/diagnostic_log.h"
#include "kvc/tracked_memory.h"
#include "platform/clock.h"
#include "platform/command_shell.h"
#include "platform/environment.h"
#include "platform/file_system.h"

namespace kvc {
namespace {

// Parameters of this many characters are put in single quotes, when they
// hold a quote or a blank, before they travel by file.
constexpr size_t kQuoteFrom = 226;
constexpr size_t kQuoteBelow = 569;
// Parameters go on the command's line while it stays within this many
// characters, counting 31 for the redirections it once carried; longer ones
// go by file.
constexpr size_t kInlineLimit = 256;
constexpr size_t kRedirectionAllowance = 31;
constexpr size_t kLineBuffer = 7000;  // output lines and quoted parameters, with the terminator

// "kzq" and "KZQ" exactly: this agent's prefix, whose files are kept for a
// while and whose "kzqsql" command is served in process.
bool IsAgentPrefix(const std::string& prefix) { return prefix == "kzq" || prefix == "KZQ"; }

bool IsSqlCommand(const char* command) { return strcmp(command, "kzqsql") == 0 || strcmp(command, "KZQSQL") == 0; }

// The command to run: a plain name is taken from the bin directory; "@name"
// and names with a path separator are run as given.
struct CommandName {
  std::string directory;  // the bin directory and a separator, or empty
  std::string name;
};

CommandName Locate(const std::string& bin_path, const char* command) {
  if (command[0] == '@') return {"", command + 1};
  if (strchr(command, platform::PathSeparator()) != nullptr || bin_path.empty()) return {"", command};
  return {bin_path + platform::PathSeparator(), command};
}

// The command's name must name a program and nothing else: one that an
// interpreter would split or act on (a pipe, a variable, a blank) is
// refused, so a command can only run the program it names.
bool RefusedName(const std::string& name) {
  return name.empty() || name.find_first_of(std::string(" \t") + platform::ShellSpecialCharacters()) != std::string::npos;
}

bool FitsOnLine(const CommandName& command, const char* parms) {
  return command.directory.size() + strlen(parms) + kRedirectionAllowance <= kInlineLimit &&
         strpbrk(parms, platform::ShellSpecialCharacters()) == nullptr;
}

// The parameters as written to the input file: quoted in the middle band
// of lengths, as they stand otherwise.
std::string FileParameters(const char* parms) {
  const size_t length = strlen(parms);
  if (length < kQuoteFrom || length >= kQuoteBelow) return parms;
  char quoted[kLineBuffer];
  return QuoteText(parms, '\'', ' ', quoted, sizeof quoted) < 0 ? std::string(parms) : std::string(quoted);
}

bool WriteParameters(const std::string& path, const char* parms) {
  FILE* file = fopen(path.c_str(), "w");
  if (file == nullptr) {
    Log('e', "uex3040", "Can't open parm file %s\n", path.c_str());
    return false;
  }
  fprintf(file, "%s\n", FileParameters(parms).c_str());
  fclose(file);
  KVC_DEBUG_TRACE("uex3047", "Parms written to file '%.132s'\n", path.c_str());
  return true;
}

r_exec_chain* NewNode(const char* text, size_t length) {
  r_exec_chain* node = nullptr;
  TrackedAlloc(nullptr, reinterpret_cast<void**>(&node), offsetof(r_exec_chain, text) + length + 1, kTrackUntracked,
               __FILE__, __LINE__, "r_exec_chain");
  node->next = nullptr;
  node->length = static_cast<int32_t>(length);
  memcpy(node->text, text, length);
  node->text[length] = '\0';
  return node;
}

// Every line of the file, trailing white space removed, as a chain.
r_exec_chain* ReadLines(const std::string& path) {
  FILE* file = fopen(path.c_str(), "r");
  if (file == nullptr) {
    Log('w', "uex3050", "Cannot open file %s\n", path.c_str());
    return nullptr;
  }
  r_exec_chain* head = nullptr;
  r_exec_chain** tail = &head;
  char line[kLineBuffer];
  while (fgets(line, sizeof line, file) != nullptr) {
    size_t length = strlen(line);
    if (length == 0) continue;
    while (length > 0 && isspace(static_cast<unsigned char>(line[length - 1]))) --length;
    *tail = NewNode(line, length);
    tail = &(*tail)->next;
  }
  fclose(file);
  return head;
}

// The words of parameters that hold no interpreter character: what a
// command interpreter would have made of them too.
std::vector<std::string> Words(const char* parms) {
  std::vector<std::string> words;
  std::string word;
  for (const char* p = parms;; ++p) {
    if (*p == ' ' || *p == '\t' || *p == '\0') {
      if (!word.empty()) words.push_back(word);
      word.clear();
      if (*p == '\0') return words;
    } else {
      word += *p;
    }
  }
}

// Runs the command: the agent's own SQL requests in process, everything
// else as a program of its own. Returns the command's exit code; -1 with
// *error set when nothing could run.
int Run(const ExecPlaces& places, const char* command, const char* parms, const std::string& program,
        const std::vector<std::string>& arguments, const ExecTempFiles& files, int* error) {
  if (IsAgentPrefix(places.prefix) && IsSqlCommand(command)) {
    *error = 0;
    return RunSqlRequest(parms, files.output.c_str());
  }
  const int status = platform::RunCommand(program, arguments, files.output, error,
                                          static_cast<uint32_t>(places.timeout_seconds) * 1000u);
  return status == -1 && *error != 0 ? -1 : platform::ExitCodeOf(status);
}

platform::LocalTime UtcNow() {
  const int64_t now = platform::NowUnixMillis();
  platform::LocalTime utc;
  platform::ToUtc(now / 1000, &utc);
  utc.millisecond = static_cast<int>(now % 1000);
  return utc;
}

void TraceChain(const r_exec_chain* head) {
  if (!Debug().debug) return;
  int number = 0;
  for (const r_exec_chain* node = head; node != nullptr; node = node->next)
    Log('w', "uex3050", "u_exec returning Line(%d) ptr(%d) next(%d) value(%s)\n", ++number,
        static_cast<int>(reinterpret_cast<intptr_t>(node)), static_cast<int>(reinterpret_cast<intptr_t>(node->next)),
        node->text);
}

// COLL_ACTION_TIMEOUT in seconds: 0 for no limit; unset or not all digits,
// two minutes. One command must never hold every later action.
int ActionTimeoutSeconds() {
  const std::string text = platform::GetEnv("COLL_ACTION_TIMEOUT").value_or("");
  if (text.empty() || text.size() > 6 || text.find_first_not_of("0123456789") != std::string::npos) return 120;
  return atoi(text.c_str());
}

}  // namespace

ExecPlaces CurrentExecPlaces() {
  AgentConfig& config = TheAgentConfig();
  ReadAgentEnvironment(config);
  ExecPlaces places;
  places.home = platform::GetEnv("COLL_HOME").value_or("");
  places.prefix = config.prefix != nullptr ? config.prefix : "";
  places.server_id = platform::GetEnv("COLL_SERVERID").value_or("");
  places.bin_path = config.binPath != nullptr ? config.binPath : "";
  places.delete_interval_minutes = TempFileDeleteInterval();
  places.timeout_seconds = ActionTimeoutSeconds();
  return places;
}

r_exec_chain* u_exec(const char* command, const char* parms, int* exit_code) {
  return u_exec_in(CurrentExecPlaces(), command, parms, exit_code);
}

r_exec_chain* u_exec_in(const ExecPlaces& given, const char* command, const char* parms, int* exit_code) {
  // The default prefix is a path (the log directory and the user): only its
  // last element can name a directory and files.
  ExecPlaces places = given;
  places.prefix = given.prefix.substr(given.prefix.find_last_of("\\/") + 1);
  int unused = 0;
  if (exit_code == nullptr) exit_code = &unused;
  *exit_code = -1;
  KVC_DEBUG_TRACE("uex3010", "Cmd '%s'; Parms '%s'\n", command, parms);
  const CommandName name = Locate(places.bin_path, command);
  const std::string directory = PrepareExecTempDirectory(places.home, places.prefix, places.server_id);
  const ExecTempFiles files = ExecTempFileNames(directory, places.prefix, UtcNow());
  KVC_DEBUG_TRACE("uex3047", "Output filename : %s\n", files.output.c_str());
  KVC_DEBUG_TRACE("uex3047", "Input filename : %s\n", files.input.c_str());

  if (RefusedName(name.name)) {
    Log('e', "uex3060", "Command '%.64s' refused: its name holds a character the command interpreter acts on\n",
        command);
    const std::string text = "kzq: command '" + std::string(command) +
                             "' refused: a command name may not hold blanks or characters the interpreter acts on";
    return NewNode(text.data(), text.size());
  }
  const bool inline_parms = FitsOnLine(name, parms);
  if (!inline_parms && !WriteParameters(files.input, parms)) return nullptr;
  const std::string program = name.directory + name.name;
  const std::vector<std::string> arguments =
      inline_parms ? Words(parms) : std::vector<std::string>{"-filein", files.input};
  KVC_DEBUG_TRACE("uex3047", "Command to execute %s %s\n", program.c_str(),
                  inline_parms ? parms : ("-filein " + files.input).c_str());

  int error = 0;
  const int status = Run(places, command, parms, program, arguments, files, &error);
  r_exec_chain* head = nullptr;
  if (status == -1 && error == ETIMEDOUT) {
    Log('w', "uex3049", "Command '%.64s' did not end within %d seconds and was stopped\n", command,
        places.timeout_seconds);
    head = ReadLines(files.output);
    const std::string note = "kzq: the command did not end within " + std::to_string(places.timeout_seconds) +
                             " seconds (COLL_ACTION_TIMEOUT) and was stopped";
    r_exec_chain** tail = &head;
    while (*tail != nullptr) tail = &(*tail)->next;
    *tail = NewNode(note.data(), note.size());
  } else if (status == -1 && error != 0) {
    Log('w', "uex3048", "Command error '%.20s' errno=%d %s\n", program.c_str(), error, strerror(error));
    const std::string text = "kzq: command '" + std::string(command) + "' could not be run: " + strerror(error);
    head = NewNode(text.data(), text.size());
  } else {
    head = ReadLines(files.output);
    *exit_code = status;
  }

  // A command's arguments and answer are not left behind; the agent's own
  // prefix also clears what an earlier run that ended abruptly left.
  remove(files.input.c_str());
  remove(files.output.c_str());
  if (IsAgentPrefix(places.prefix))
    CleanExecTempFiles(directory, places.prefix, platform::NowUnixMillis(), places.delete_interval_minutes);
  TraceChain(head);
  return head;
}

void free_exec_chain(r_exec_chain* head) {
  while (head != nullptr) {
    r_exec_chain* next = head->next;
    TrackedFree(nullptr, reinterpret_cast<void**>(&head), kTrackUntracked, __FILE__, __LINE__, "r_exec_chain");
    head = next;
  }
}

}  // namespace kvc
