#include "platform/stop_signal.h"

#include <windows.h>

namespace platform {
namespace {

void (*g_stop)() = nullptr;

BOOL WINAPI OnConsoleControl(DWORD control) {
  if (control != CTRL_C_EVENT && control != CTRL_BREAK_EVENT && control != CTRL_CLOSE_EVENT) return FALSE;
  if (g_stop != nullptr) g_stop();
  return TRUE;
}

}  // namespace

// Windows runs console control handlers on a thread of their own.
void InstallStopHandler(void (*stop)()) {
  g_stop = stop;
  SetConsoleCtrlHandler(OnConsoleControl, TRUE);
}

void InstallReloadHandler(void (*)()) {}

}  // namespace platform
