// The one place where Win32 failures become the layer's results, and the
// security attributes for objects that other users must open.
#pragma once

#include <windows.h>

#include "platform/security.h"

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

// A descriptor whose access list grants everything to the process's own
// account and nothing to anyone else.
class OwnerSecurity {
 public:
  OwnerSecurity();
  SECURITY_ATTRIBUTES* Attributes() { return ready_ ? &attributes_ : nullptr; }

 private:
  bool ready_ = false;
  SECURITY_DESCRIPTOR descriptor_;
  alignas(DWORD) unsigned char acl_[512];
  alignas(DWORD) unsigned char user_[512];
  SECURITY_ATTRIBUTES attributes_;
};

// The attributes an object of the given access is created with.
class ObjectSecurity {
 public:
  explicit ObjectSecurity(const ObjectAccess& access) : open_access_(access.open) {}
  SECURITY_ATTRIBUTES* Attributes();

 private:
  const bool open_access_;
  OpenSecurity open_;
  OwnerSecurity owner_;
};

}  // namespace platform::win32
