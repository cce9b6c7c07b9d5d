// The one place where Win32 failures become the layer's results.
#pragma once

#include <windows.h>

namespace platform::win32 {

// GetLastError() of the failed call, never 0.
int LastError();

}  // namespace platform::win32
