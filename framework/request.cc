#include "framework/request.h"

#include "framework/table_manager.h"

namespace framework {

int RunReportSample(const RequestDetail& detail, int* sample_result, int* dispatch_result) {
  TableManager* manager = TableManager::Find(detail.table);
  if (manager == nullptr) return kRequestUnknownTable;
  RequestDetail report = detail;
  report.type = kSampleReport;
  report.table = manager->Table();
  const ContextInfo context{manager->Application()};
  tavra* object = manager->OpenRequest(&report, &context);
  if (object == nullptr) return kRequestNoObject;
  const int sampled = object->TakeSample();
  const int dispatched = object->Dispatch();
  object->ClearRows();
  manager->CloseRequest(object);
  if (sample_result != nullptr) *sample_result = sampled;
  if (dispatch_result != nullptr) *dispatch_result = dispatched;
  return kRequestOk;
}

}  // namespace framework
