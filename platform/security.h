// Access given to named objects that two processes share, and the
// descriptors that state it.
#pragma once

#include <string>
#include <vector>

namespace platform {

// Who may use a named object that two processes share. Private objects admit
// the running account, the system's own (root; SYSTEM and Administrators)
// and the sharers named below, whoever creates them; an existing private
// object that another account owns or that is open to others is refused
// with kErrInvalidOwner (one the running account owns is made private).
struct ObjectAccess {
  // Every local account may open and use the object: the opt-out for
  // installations whose two programs share no account, group or service.
  bool open = false;
  // POSIX: the group whose members share the objects (mode 0660 with it;
  // 0600 when it does not exist or this process may not give it).
  std::string group;
  // Windows: the services whose accounts (their service SIDs) share them.
  std::vector<std::string> services;
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
