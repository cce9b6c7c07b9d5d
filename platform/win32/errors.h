// The one place where Win32 failures become the layer's results, and the
// security attributes for objects that other users must open.
#pragma once

#include <windows.h>

namespace platform::win32 {

// GetLastError() of the failed call, never 0.
int LastError();

// Holds a descriptor with a null DACL, which grants everyone access.
class OpenSecurity {
 public:
  OpenSecurity();
  SECURITY_ATTRIBUTES* Attributes() { return &attributes_; }

 private:
  SECURITY_DESCRIPTOR descriptor_;
  SECURITY_ATTRIBUTES attributes_;
};

}  // namespace platform::win32
