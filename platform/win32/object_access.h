// Who may use the kernel objects that processes share on Windows: the
// security attributes a new object is created with, and the check of one
// that already exists (see platform::ObjectAccess).
#pragma once

#include <windows.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/security.h"

namespace platform::win32 {

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

// The accounts a private object admits - SYSTEM, Administrators, the
// process's own account and the service SIDs of ObjectAccess::services that
// exist on this machine - and the descriptor that grants them, and them
// alone, full access. Open access: a null DACL, and every object admitted.
// Made for one open of an object and used by the thread that opens it.
class ChannelSecurity {
 public:
  explicit ChannelSecurity(const ObjectAccess& access);
  ChannelSecurity(const ChannelSecurity&) = delete;
  ChannelSecurity& operator=(const ChannelSecurity&) = delete;
  // What a new object is created with; nullptr when Error() is not 0.
  SECURITY_ATTRIBUTES* Attributes();
  // 0, or why the private descriptor could not be built.
  int Error() const { return error_; }
  // Admits an existing object open on `object`: 0, kErrInvalidOwner for one
  // an untrusted account owns or that is open to others and may not be
  // made private here, or the error of a failed check. One a trusted
  // account owns that is open to others is given this descriptor's list.
  int Admit(HANDLE object);

 private:
  int AddWellKnown(WELL_KNOWN_SID_TYPE type);
  int AddProcessAccount();
  void AddService(const std::string& name);
  int BuildAccessList();
  bool Trusted(PSID sid) const;
  bool TrustedOwner(PSID sid) const;
  bool OpenToOthers(const ACL* acl) const;

  const bool open_;
  int error_ = 0;
  std::vector<std::vector<unsigned char>> trusted_;
  // The owner this process gives the objects it creates: its account, or a
  // group of its token such as Administrators.
  std::vector<unsigned char> default_owner_;
  std::vector<unsigned char> acl_;
  OpenSecurity open_security_;
  SECURITY_DESCRIPTOR descriptor_{};
  SECURITY_ATTRIBUTES attributes_{};
};

// Creates a named object through `create`, which is given the attributes of
// `access` and returns the handle (nullptr on failure, as the Create*A calls
// do), and admits the object when it existed. Returns the handle with
// *error 0 (created) or 183 (existing and admitted), or nullptr with *error
// set (the object's handle closed when it was refused).
HANDLE CreateSharedObject(const ObjectAccess& access, const std::function<HANDLE(SECURITY_ATTRIBUTES*)>& create,
                          int* error);

}  // namespace platform::win32
