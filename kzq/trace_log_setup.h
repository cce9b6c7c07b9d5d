// Rewrites the trace facility's log setting before the framework starts,
// so the trace files get the agent's naming, rotation limits and an
// inventory file, in the directory the existing settings (or
// TAVRA_LOG_PATH) choose.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kzq {

struct TraceLogInputs {
  std::string trace_spec;       // KPB_TRC1
  std::string log_spec;         // KPB_TRC1_LOG
  std::string variable_prefix;  // KPB_VARPREFIX ("$" when unset)
  std::optional<std::string> tavra_log_path;  // TAVRA_LOG_PATH
  bool flow_detail = false;     // trace flow detail on
  // Looks up |NAME| segments of an output path.
  std::function<std::optional<std::string>(const std::string&)> environment;
};

struct TraceLogPlan {
  std::string trace_spec;
  std::string variable_prefix;
  std::string log_spec;  // the new KPB_TRC1_LOG
  std::vector<std::string> traces;  // the lines the set-up traces, in order
};

// The new settings for the given ones; pure, for tests and fuzzers.
TraceLogPlan PlanTraceLog(const TraceLogInputs& inputs);

// Reads KPB_TRC1, KPB_TRC1_LOG, KPB_VARPREFIX and TAVRA_LOG_PATH, and
// publishes KPB_TRC1, KPB_VARPREFIX and the new KPB_TRC1_LOG. `caller` is
// the caller's tag ("KZQENV"); it is not used.
void SetupTraceLog(const char* caller);

}  // namespace kzq
