#include "platform/service_probe.h"

#include <windows.h>

#include <memory>
#include <type_traits>

#include "platform/win32/errors.h"

namespace platform {
namespace {

struct ServiceHandleCloser {
  void operator()(SC_HANDLE handle) const { CloseServiceHandle(handle); }
};
using ServiceHandle = std::unique_ptr<std::remove_pointer_t<SC_HANDLE>, ServiceHandleCloser>;

ServiceProbe Failed(ServiceProbeStep step) {
  ServiceProbe probe;
  probe.failed_step = step;
  probe.error = win32::LastError();
  return probe;
}

}  // namespace

ServiceProbe QueryService(const char* name) {
  const ServiceHandle manager(OpenSCManagerA(nullptr, nullptr, GENERIC_READ));
  if (!manager) return Failed(ServiceProbeStep::kOpenManager);
  const ServiceHandle service(OpenServiceA(manager.get(), name, SERVICE_QUERY_STATUS));
  if (!service) return Failed(ServiceProbeStep::kOpenService);
  SERVICE_STATUS_PROCESS status = {};
  DWORD needed = 0;
  if (!QueryServiceStatusEx(service.get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                            sizeof status, &needed))
    return Failed(ServiceProbeStep::kQueryStatus);
  ServiceProbe probe;
  probe.ok = true;
  probe.state = status.dwCurrentState;
  probe.process_id = status.dwProcessId;
  return probe;
}

}  // namespace platform
