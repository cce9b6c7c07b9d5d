// Named shared areas.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "platform/security.h"

namespace platform {

class SharedArea {
 public:
  virtual ~SharedArea() = default;
  // Start of the mapped bytes; valid for the life of this object.
  virtual unsigned char* Address() = 0;
  // Mapped size: the requested size rounded up to whole pages. Fields that
  // live past the nominal size of an area are inside this.
  virtual size_t Size() const = 0;
};

// Creates the named area, or opens it when it already exists and `access`
// admits it. On success *error is 0 (created, zero-filled) or 183 (opened an
// existing area). On failure returns nullptr with *error set
// (kErrInvalidOwner: an existing area `access` refuses).
std::unique_ptr<SharedArea> OpenSharedArea(const std::string& name, size_t size,
                                           const ObjectAccess& access, int* error);

// Removes a named area so that the next open creates it afresh. Windows
// objects vanish with their last handle, so this does nothing there.
void RemoveSharedArea(const std::string& name);

}  // namespace platform
