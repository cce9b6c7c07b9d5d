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

OwnerSecurity::OwnerSecurity() {
  HANDLE token = nullptr;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) return;
  DWORD size = 0;
  const bool have_user = GetTokenInformation(token, TokenUser, user_, sizeof user_, &size);
  CloseHandle(token);
  if (!have_user) return;
  PSID sid = reinterpret_cast<TOKEN_USER*>(user_)->User.Sid;
  ACL* acl = reinterpret_cast<ACL*>(acl_);
  ready_ = InitializeAcl(acl, sizeof acl_, ACL_REVISION) && AddAccessAllowedAce(acl, ACL_REVISION, GENERIC_ALL, sid) &&
           InitializeSecurityDescriptor(&descriptor_, SECURITY_DESCRIPTOR_REVISION) &&
           SetSecurityDescriptorDacl(&descriptor_, TRUE, acl, FALSE);
  attributes_.nLength = sizeof attributes_;
  attributes_.lpSecurityDescriptor = &descriptor_;
  attributes_.bInheritHandle = FALSE;
}

SECURITY_ATTRIBUTES* ObjectSecurity::Attributes() { return open_access_ ? open_.Attributes() : owner_.Attributes(); }

}  // namespace platform::win32
