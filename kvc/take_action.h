// The database action: the take-action command handler that the agent
// registers with the framework. It runs the operator's command and reports
// every line it printed to the framework's action log.
#pragma once

#include <string>

#include "framework/table_manager.h"

namespace kvc {

// The command text's first word is the command, the rest its arguments
// (" " when there are none); "kyresql" in any case is the database action
// script "kyresql.cmd".
struct ActionCommand {
  std::string name;
  std::string arguments;
};

ActionCommand SplitActionCommand(const std::string& text);

// Runs the capsule's command on the calling thread, adds one "KVCACT002"
// action-log entry per output line (the last one titled "Database Action")
// or a single "no response" entry, and hands the capsule back finished with
// result 0. Always returns 0.
int kvcaction(framework::TavraAutomationCapsule* capsule);

}  // namespace kvc
