// Running requests against registered tables.
#pragma once

#include "framework/tavra.h"

namespace framework {

enum RequestResult : int {
  kRequestOk = 0,
  kRequestUnknownTable = 1,
  kRequestNoObject = 2,  // the manager could not make a table object
};

// One report sample: a fresh table object takes its sample, its rows pass
// the request's filter and go to the request's consumer. *sample_result
// (when given) receives TakeSample's result, *dispatch_result the
// consumer's.
int RunReportSample(const RequestDetail& detail, int* sample_result, int* dispatch_result);

}  // namespace framework
