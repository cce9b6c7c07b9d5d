#include "kzq/sql_filter_walk.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include "framework/trace.h"

namespace kzq {
namespace {

const char* OperatorName(int code) {
  static const char* const kNames[] = {"None", "EQ", "NE", "GE", "LE", "LT", "GT", "OR", "AND", "NOT", "LIKE"};
  return code >= 0 && code <= 10 ? kNames[code] : "illegal";
}

const char* FunctionName(int code) {
  static const char* const kNames[] = {"None",   "PARMA",   "MATCH",  "FIRST",   "LAST",    "EVENT",
                                       "STRSCAN", "SUBSTR", "MKTIME", "TRIM",    "TARGET",  "HISTORY",
                                       "SEARCH",  "REGE",   "REGESUB", "CHGRATE", "CHGPCT"};
  return code >= 0 && code <= 16 ? kNames[code] : "illegal";
}

// Integers print as numbers; texts are cut to 19 characters.
std::string ValueText(const framework::FilterInfo& info) {
  if (info.data_type == framework::kFilterInteger) return std::to_string(atoi(info.value));
  const size_t limit = info.value_length < 20 ? static_cast<size_t>(info.value_length) : 19;
  return std::string(info.value, strnlen(info.value, limit));
}

}  // namespace

void TraceFilterElements(framework::tavra& object) {
  framework::FilterInfo info;
  TRC1_Printf("Processing Filter\n");
  while (object.GetFilterInfo(&info) == 0) {
    TRC1_Printf("filter element: logicalOp = %s, compareOp = %s, funcType=%s, colName=%s, dataType=%d, valLen=%d, "
                "value=%s\n",
                OperatorName(info.logical_op), OperatorName(info.compare_op), FunctionName(info.function),
                info.column, info.data_type, info.value_length, ValueText(info).c_str());
  }
  object.ResetFilterIndex();
}

std::string SessionIdFromFilter(framework::tavra& object) {
  framework::FilterInfo info;
  std::string session;
  while (object.GetFilterInfo(&info) == 0) {
    if (strcmp(info.column, "PID") != 0) continue;
    session = std::to_string(atoi(info.value));
    break;
  }
  object.ResetFilterIndex();
  return session;
}

}  // namespace kzq
