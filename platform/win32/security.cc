#include "platform/security.h"

#include <windows.h>

#include "platform/error.h"
#include "platform/win32/errors.h"

namespace platform {

struct SecurityDescriptor {
  SECURITY_DESCRIPTOR descriptor;
  alignas(DWORD) unsigned char acl[1024];
  alignas(DWORD) unsigned char sid[226];
  char domain[256];
};

SecurityDescriptor* OpenDescriptorStorage() {
  static SecurityDescriptor descriptor;
  return &descriptor;
}

SecurityDescriptor* UserDescriptorStorage() {
  static SecurityDescriptor descriptor;
  return &descriptor;
}

int InitDescriptor(SecurityDescriptor* d) {
  return InitializeSecurityDescriptor(&d->descriptor, SECURITY_DESCRIPTOR_REVISION) ? kOk : win32::LastError();
}

int SetNullAccessList(SecurityDescriptor* d, bool defaulted) {
  return SetSecurityDescriptorDacl(&d->descriptor, TRUE, nullptr, defaulted ? TRUE : FALSE) ? kOk
                                                                                           : win32::LastError();
}

int InitAccessList(SecurityDescriptor* d) {
  return InitializeAcl(reinterpret_cast<ACL*>(d->acl), sizeof d->acl, ACL_REVISION) ? kOk : win32::LastError();
}

int CurrentUserName(std::string* name) {
  char buffer[1024];
  DWORD size = sizeof buffer;
  if (!GetUserNameA(buffer, &size)) return win32::LastError();
  *name = buffer;
  return kOk;
}

int LookupAccount(SecurityDescriptor* d, const std::string& user) {
  DWORD sid_size = sizeof d->sid;
  DWORD domain_size = sizeof d->domain;
  SID_NAME_USE use;
  return LookupAccountNameA(nullptr, user.c_str(), d->sid, &sid_size, d->domain, &domain_size, &use)
             ? kOk
             : win32::LastError();
}

int AllowAccountReadWrite(SecurityDescriptor* d) {
  return AddAccessAllowedAce(reinterpret_cast<ACL*>(d->acl), ACL_REVISION, GENERIC_READ | GENERIC_WRITE, d->sid)
             ? kOk
             : win32::LastError();
}

}  // namespace platform
