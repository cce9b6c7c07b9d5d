#include "platform/win32/errors.h"

#include "platform/error.h"

namespace platform::win32 {

int LastError() {
  const DWORD err = GetLastError();
  return err == 0 ? kErrGeneric : static_cast<int>(err);
}

}  // namespace platform::win32
