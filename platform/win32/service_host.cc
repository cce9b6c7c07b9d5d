#include "platform/service_host.h"

#include <windows.h>

#include <atomic>

namespace platform {
namespace {

std::atomic<ServiceEntry> g_entry{nullptr};
const char* g_dispatcher_name = "";
std::atomic<ServiceControlHandler> g_handler{nullptr};

// The service manager passes the service's name and its start arguments;
// the entry takes its configuration from the process's command line.
void WINAPI ServiceMainTrampoline(DWORD argc, LPSTR* argv) {
  const char* name = argc > 0 && argv[0] != nullptr ? argv[0] : g_dispatcher_name;
  if (ServiceEntry entry = g_entry.load()) entry(name);
}

void WINAPI HandlerTrampoline(DWORD control) {
  if (ServiceControlHandler handler = g_handler.load()) handler(control);
}

}  // namespace

bool RunServiceDispatcher(const char* name, ServiceEntry entry, int* error) {
  g_entry = entry;
  g_dispatcher_name = name;
  SERVICE_TABLE_ENTRYA table[] = {{const_cast<LPSTR>(name), ServiceMainTrampoline}, {nullptr, nullptr}};
  if (StartServiceCtrlDispatcherA(table)) return true;
  *error = static_cast<int>(GetLastError());
  return false;
}

ServiceStatusHandle RegisterServiceControlHandler(const char* name, ServiceControlHandler handler, int* error) {
  g_handler = handler;
  SERVICE_STATUS_HANDLE handle = RegisterServiceCtrlHandlerA(name, HandlerTrampoline);
  if (handle == nullptr) *error = static_cast<int>(GetLastError());
  return reinterpret_cast<ServiceStatusHandle>(handle);
}

bool SetServiceStatus(ServiceStatusHandle handle, const ServiceStatus& status, int* error) {
  SERVICE_STATUS raw = {};
  raw.dwServiceType = status.type;
  raw.dwCurrentState = status.state;
  raw.dwControlsAccepted = status.controls_accepted;
  raw.dwWin32ExitCode = status.win32_exit_code;
  raw.dwServiceSpecificExitCode = status.specific_exit_code;
  raw.dwCheckPoint = status.check_point;
  raw.dwWaitHint = status.wait_hint;
  if (::SetServiceStatus(reinterpret_cast<SERVICE_STATUS_HANDLE>(handle), &raw)) return true;
  *error = static_cast<int>(GetLastError());
  return false;
}

void ReportServiceFailure(const char* service_name, const std::string& text) {
  HANDLE source = RegisterEventSourceA(nullptr, service_name);
  if (source == nullptr) return;
  const char* strings[] = {text.c_str()};
  ReportEventA(source, EVENTLOG_ERROR_TYPE, 0, 0, nullptr, 1, 0, strings, nullptr);
  DeregisterEventSource(source);
}

}  // namespace platform
