#include "kvc/take_action.h"

#include <cctype>
#include <cstdio>

#include "framework/action_log.h"
#include "framework/tavra.h"
#include "framework/trace.h"
#include "kvc/command_execution.h"

namespace kvc {
namespace {

constexpr size_t kCommandTextLimit = 1024;
constexpr char kActionLogId[] = "KVCACT002";
constexpr char kLastLineTitle[] = "Database Action";

bool SameIgnoringCase(const std::string& a, const char* b) {
  size_t i = 0;
  for (; i < a.size() && b[i] != '\0'; ++i)
    if (tolower(static_cast<unsigned char>(a[i])) != tolower(static_cast<unsigned char>(b[i]))) return false;
  return i == a.size() && b[i] == '\0';
}

void Report(const char* line, const char* title, bool detail) {
  printf("KVCACTION response=%s\n", line);
  if (detail) TRC1_Printf("%s\n", line);
  TAVRA_insert_log(kActionLogId, line, title);
}

}  // namespace

ActionCommand SplitActionCommand(const std::string& text) {
  const size_t blank = text.find(' ');
  ActionCommand command;
  command.name = text.substr(0, blank);
  command.arguments = blank == std::string::npos ? " " : text.substr(blank + 1);
  if (SameIgnoringCase(command.name, "kyresql")) command.name = "kyresql.cmd";
  return command;
}

int kvcaction(framework::TavraAutomationCapsule* capsule) {
  const bool detail = (framework::TraceLevel() & framework::kTraceDetail) != 0;
  const std::string text = capsule->command.substr(0, kCommandTextLimit);
  if (detail) TRC1_Printf("Entered kvcaction %s\n", text.c_str());
  printf("KVCACTION command=%s\n", text.c_str());
  const ActionCommand command = SplitActionCommand(text);
  int exit_code = -1;
  r_exec_chain* lines = u_exec(command.name.c_str(), command.arguments.c_str(), &exit_code);
  if (lines == nullptr) Report("no response", kLastLineTitle, detail);
  for (const r_exec_chain* line = lines; line != nullptr; line = line->next)
    Report(line->text, line->next == nullptr ? kLastLineTitle : " ", detail);
  free_exec_chain(lines);
  // The command's exit code: a failed command must not look like one that
  // worked (-1: it could not be run, or was refused).
  capsule->result = exit_code;
  if (capsule->table != nullptr) capsule->table->FinishedAutomationCommand(capsule);
  return 0;
}

}  // namespace kvc
