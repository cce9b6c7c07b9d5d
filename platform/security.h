// Access given to named objects that two processes share, and the
// descriptors that state it.
#pragma once

#include <string>

namespace platform {

enum class ObjectAccess {
  kDefault,  // the creating user's default access
  kOpen,     // anyone on the machine may open and use the object
  kOwner,    // only the account that runs the process, whatever its defaults
};

// A security descriptor: the OS's own record on Windows; on POSIX the
// creation mode and the account it was checked against.
struct SecurityDescriptor;

// The two process-wide descriptors; never freed.
SecurityDescriptor* OpenDescriptorStorage();
SecurityDescriptor* UserDescriptorStorage();

// The building steps; each returns 0 or a Windows error number.
int InitDescriptor(SecurityDescriptor* descriptor);
// A present but empty (null) access list: every account has full access.
int SetNullAccessList(SecurityDescriptor* descriptor, bool defaulted);
int InitAccessList(SecurityDescriptor* descriptor);
int CurrentUserName(std::string* name);
// Finds the account on this machine (unknown: 1332, none mapped).
int LookupAccount(SecurityDescriptor* descriptor, const std::string& user);
// Grants the looked-up account read and write in the access list.
int AllowAccountReadWrite(SecurityDescriptor* descriptor);

}  // namespace platform
