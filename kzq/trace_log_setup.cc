#include "kzq/trace_log_setup.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "framework/bsv1.h"
#include "framework/trace.h"

namespace kzq {
namespace {

struct Parts {
  std::string path;
  std::string base;
  std::string separator = "/";
  std::string limit = "1";
  std::string maxfiles = "10";
  std::string count = "03";
};

template <typename... Args>
void Trace(TraceLogPlan* plan, const char* format, Args... args) {
  // A line without arguments is taken as it stands, never as a format.
  if constexpr (sizeof...(args) == 0) {
    plan->traces.emplace_back(format);
  } else {
    char line[2048];
    snprintf(line, sizeof line, format, args...);
    plan->traces.emplace_back(line);
  }
}

// Splits at the last '\' or '/': false when there is none.
bool SplitAtLastSeparator(const std::string& text, std::string* before, std::string* after, std::string* separator) {
  const size_t at = text.find_last_of("\\/");
  if (at == std::string::npos) return false;
  *before = text.substr(0, at);
  *after = text.substr(at + 1);
  *separator = text.substr(at, 1);
  return true;
}

void StripUnderscores(Parts* p, TraceLogPlan* plan) {
  std::string base = p->base;
  size_t at = base.find_last_of('_');
  std::string last_token;
  if (at == std::string::npos) {
    Trace(plan, "No '_' found, resetting base name.\n");
    base.clear();
  } else {
    base = base.substr(0, at);
    at = base.find_last_of('_');
    if (at == std::string::npos) {
      Trace(plan, "No second '_' found, resetting base name.\n");
      base.clear();
    } else {
      last_token = base.substr(at + 1);
      base = base.substr(0, at);
    }
  }
  Trace(plan, "After underscore processing, last token is %s  ;  base name is %s\n", last_token.c_str(),
        base.c_str());
  if (base.find("_" + last_token + "_") != std::string::npos) {
    at = base.find_last_of('_');
    if (at != std::string::npos) base = base.substr(0, at);
  }
  p->base = base + "_";
}

// The text after a keyword, less leading blanks and '=', up to the next blank.
std::string KeywordValue(const std::string& spec, const char* keyword) {
  const size_t at = spec.find(keyword);
  if (at == std::string::npos) return {};
  size_t begin = at + strlen(keyword);
  while (begin < spec.size() && (spec[begin] == ' ' || spec[begin] == '=')) ++begin;
  const size_t end = spec.find(' ', begin);
  return spec.substr(begin, end == std::string::npos ? std::string::npos : end - begin);
}

std::string DirectoryFromLogSpec(const std::string& log_spec, Parts* p, TraceLogPlan* plan) {
  Trace(plan, "trc1_log_current_value=%s\n", log_spec.c_str());
  const size_t dash = log_spec.find("-.");
  if (dash == std::string::npos) {
    Trace(plan, "No '-' found, resetting path name.\n");
    p->path.clear();
  } else {
    const std::string cut = log_spec.substr(0, dash);
    if (!SplitAtLastSeparator(cut, &p->path, &p->base, &p->separator)) p->base = cut;
    Trace(plan, "trc1_path_name.c_str(): %s\n", p->path.c_str());
    Trace(plan, "trc1_base_name.c_str(): %s\n", p->base.c_str());
    StripUnderscores(p, plan);
  }
  std::string upper = log_spec;
  BSV1_ToUpper(upper.data());
  Trace(plan, "trc1_log_current_value: %s\n", upper.c_str());
  // Each default is non-empty, so the value found always replaces it, even
  // when it is empty.
  p->limit = KeywordValue(upper, "LIMIT");
  p->maxfiles = KeywordValue(upper, "MAXFILES");
  p->count = KeywordValue(upper, "COUNT");
  Trace(plan, "limit.c_str(): %s\n", p->limit.c_str());
  Trace(plan, "maxfiles.c_str(): %s\n", p->maxfiles.c_str());
  Trace(plan, "count.c_str(): %s\n", p->count.c_str());
  return p->path;
}

std::string ExpandBars(const std::string& text, const TraceLogInputs& inputs) {
  std::string out;
  for (size_t i = 0; i < text.size();) {
    const size_t open = text.find('|', i);
    const size_t close = open == std::string::npos ? std::string::npos : text.find('|', open + 1);
    if (close == std::string::npos) {
      out += text.substr(i);
      break;
    }
    out += text.substr(i, open - i);
    const std::string name = text.substr(open + 1, close - open - 1);
    const auto value = inputs.environment ? inputs.environment(name) : std::nullopt;
    out += value.has_value() ? *value : text.substr(open, close - open + 1);
    i = close + 1;
  }
  return out;
}

std::string DirectoryFromTraceSpec(const TraceLogInputs& inputs, Parts* p, TraceLogPlan* plan) {
  if (inputs.flow_detail) Trace(plan, "trc1_log_current_value empty\n");
  const size_t arrow = inputs.trace_spec.find('>');
  if (arrow == std::string::npos) {
    Trace(plan, "Found no output file set\n");
    return inputs.tavra_log_path.value_or("");
  }
  std::string target = inputs.trace_spec.substr(arrow + 1);
  while (!target.empty() && std::string(" \t\r\n").find(target.back()) != std::string::npos) target.pop_back();
  target = ExpandBars(target, inputs);
  std::string directory, file;
  return SplitAtLastSeparator(target, &directory, &file, &p->separator) ? directory : target;
}

}  // namespace

TraceLogPlan PlanTraceLog(const TraceLogInputs& inputs) {
  TraceLogPlan plan;
  plan.trace_spec = inputs.trace_spec;
  plan.variable_prefix = inputs.variable_prefix;
  Parts p;
  const std::string directory =
      inputs.log_spec.empty() ? DirectoryFromTraceSpec(inputs, &p, &plan) : DirectoryFromLogSpec(inputs.log_spec, &p, &plan);
  if (inputs.flow_detail) Trace(&plan, "logpath: %s\n", directory.c_str());
  const std::string& v = inputs.variable_prefix;
  const std::string base = p.base + v + "(systask)";
  Trace(&plan, "newFileNameBase: %s\n", base.c_str());
  const std::string log_name = base + "_" + v + "(sysutcstart)-.log";
  const std::string inventory = base + ".inv";
  if (directory.empty()) {
    plan.log_spec = log_name + " INVENTORY=" + inventory;
  } else {
    const std::string quote = directory[0] == '"' ? "\"" : "";
    plan.log_spec = directory + p.separator + log_name + quote + " INVENTORY=" + directory + p.separator +
                    inventory + quote + " COUNT=" + p.count + " PRESERVE=0 LIMIT=" + p.limit +
                    " MAXFILES=" + p.maxfiles;
  }
  Trace(&plan, "newLogPath: %s\n", plan.log_spec.c_str());
  return plan;
}

namespace {

void Publish(const char* name, const std::string& value) {
  if (const char* old = BSV1_GetEnv(name))
    TRC1_Printf("resetting the value of %s from %s to %s", name, old, value.c_str());
  const std::string pair = std::string(name) + "=" + value;
  BSV1_PutEnv(pair.c_str());
  TRC1_Printf("Adding env variable: %s\n", pair.c_str());
}

}  // namespace

void SetupTraceLog(const char*) {
  TraceLogInputs inputs;
  inputs.trace_spec = BSV1_GetEnv("KPB_TRC1") ? BSV1_GetEnv("KPB_TRC1") : "";
  inputs.log_spec = BSV1_GetEnv("KPB_TRC1_LOG") ? BSV1_GetEnv("KPB_TRC1_LOG") : "";
  inputs.variable_prefix = BSV1_GetEnv("KPB_VARPREFIX") ? BSV1_GetEnv("KPB_VARPREFIX") : "$";
  if (const char* path = BSV1_GetEnv("TAVRA_LOG_PATH")) inputs.tavra_log_path = path;
  inputs.flow_detail = (framework::TraceLevel() & framework::kTraceFlow) != 0;
  inputs.environment = [](const std::string& name) -> std::optional<std::string> {
    const char* value = BSV1_GetEnv(name.c_str());
    return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
  };
  const TraceLogPlan plan = PlanTraceLog(inputs);
  for (const std::string& line : plan.traces) TRC1_Printf("%s", line.c_str());
  Publish("KPB_TRC1", plan.trace_spec);
  Publish("KPB_VARPREFIX", plan.variable_prefix);
  Publish("KPB_TRC1_LOG", plan.log_spec);
}

}  // namespace kzq
