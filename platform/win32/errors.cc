#include "platform/win32/errors.h"

#include "platform/error.h"

namespace platform::win32 {

int LastError() {
  const DWORD err = GetLastError();
  return err == 0 ? kErrGeneric : static_cast<int>(err);
}

OpenSecurity::OpenSecurity() {
  InitializeSecurityDescriptor(&descriptor_, SECURITY_DESCRIPTOR_REVISION);
  SetSecurityDescriptorDacl(&descriptor_, TRUE, nullptr, FALSE);
  attributes_.nLength = sizeof attributes_;
  attributes_.lpSecurityDescriptor = &descriptor_;
  attributes_.bInheritHandle = FALSE;
}

}  // namespace platform::win32
