#include "platform/win32/object_access.h"

#include <aclapi.h>

#include "platform/error.h"
#include "platform/win32/errors.h"

namespace platform::win32 {

namespace {

// The SID a token query of `kind` (TokenUser or TokenOwner: a structure that
// starts with the SID's address) returns, copied into *sid.
int TokenSid(HANDLE token, TOKEN_INFORMATION_CLASS kind, std::vector<unsigned char>* sid) {
  std::vector<unsigned char> info(sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE);
  DWORD size = 0;
  if (!GetTokenInformation(token, kind, info.data(), static_cast<DWORD>(info.size()), &size)) return LastError();
  const PSID found = *reinterpret_cast<PSID*>(info.data());
  const auto* bytes = static_cast<const unsigned char*>(found);
  sid->assign(bytes, bytes + GetLengthSid(found));
  return kOk;
}

}  // namespace

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

ChannelSecurity::ChannelSecurity(const ObjectAccess& access) : open_(access.open) {
  if (open_) return;
  error_ = AddWellKnown(WinLocalSystemSid);
  if (error_ == kOk) error_ = AddWellKnown(WinBuiltinAdministratorsSid);
  if (error_ == kOk) error_ = AddProcessAccount();
  for (const std::string& service : access.services) AddService(service);
  if (error_ == kOk) error_ = BuildAccessList();
}

SECURITY_ATTRIBUTES* ChannelSecurity::Attributes() {
  if (open_) return open_security_.Attributes();
  return error_ == kOk ? &attributes_ : nullptr;
}

int ChannelSecurity::AddWellKnown(WELL_KNOWN_SID_TYPE type) {
  std::vector<unsigned char> sid(SECURITY_MAX_SID_SIZE);
  DWORD size = static_cast<DWORD>(sid.size());
  if (!CreateWellKnownSid(type, nullptr, sid.data(), &size)) return LastError();
  trusted_.push_back(std::move(sid));
  return kOk;
}

int ChannelSecurity::AddProcessAccount() {
  HANDLE token = nullptr;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) return LastError();
  std::vector<unsigned char> user;
  int error = TokenSid(token, TokenUser, &user);
  if (error == kOk) error = TokenSid(token, TokenOwner, &default_owner_);
  CloseHandle(token);
  if (error == kOk) trusted_.push_back(std::move(user));
  return error;
}

// A service's SID resolves only where the service is installed; without it
// the entry would grant nothing, so it is left out.
void ChannelSecurity::AddService(const std::string& name) {
  std::vector<unsigned char> sid(SECURITY_MAX_SID_SIZE);
  DWORD sid_size = static_cast<DWORD>(sid.size());
  char domain[256];
  DWORD domain_size = sizeof domain;
  SID_NAME_USE use;
  if (LookupAccountNameA(nullptr, ("NT SERVICE\\" + name).c_str(), sid.data(), &sid_size, domain, &domain_size, &use))
    trusted_.push_back(std::move(sid));
}

int ChannelSecurity::BuildAccessList() {
  DWORD size = sizeof(ACL);
  for (const auto& sid : trusted_) size += sizeof(ACCESS_ALLOWED_ACE) - sizeof(DWORD) + GetLengthSid(PSID(sid.data()));
  acl_.assign((size + sizeof(DWORD) - 1) & ~(sizeof(DWORD) - 1), 0);
  ACL* acl = reinterpret_cast<ACL*>(acl_.data());
  if (!InitializeAcl(acl, static_cast<DWORD>(acl_.size()), ACL_REVISION)) return LastError();
  for (auto& sid : trusted_)
    if (!AddAccessAllowedAce(acl, ACL_REVISION, GENERIC_ALL, sid.data())) return LastError();
  if (!InitializeSecurityDescriptor(&descriptor_, SECURITY_DESCRIPTOR_REVISION) ||
      !SetSecurityDescriptorDacl(&descriptor_, TRUE, acl, FALSE))
    return LastError();
  attributes_.nLength = sizeof attributes_;
  attributes_.lpSecurityDescriptor = &descriptor_;
  attributes_.bInheritHandle = FALSE;
  return kOk;
}

bool ChannelSecurity::Trusted(PSID sid) const {
  for (const auto& trusted : trusted_)
    if (EqualSid(sid, PSID(trusted.data()))) return true;
  return false;
}

bool ChannelSecurity::TrustedOwner(PSID sid) const { return Trusted(sid) || EqualSid(sid, PSID(default_owner_.data())); }

// A null list lets everyone in; an entry that allows an account outside the
// trusted ones, or one of a kind this check does not read, lets others in.
bool ChannelSecurity::OpenToOthers(const ACL* acl) const {
  if (acl == nullptr) return true;
  for (DWORD i = 0; i < acl->AceCount; ++i) {
    void* entry = nullptr;
    if (!GetAce(const_cast<ACL*>(acl), i, &entry)) return true;
    const auto* header = static_cast<const ACE_HEADER*>(entry);
    if (header->AceType == ACCESS_DENIED_ACE_TYPE) continue;
    if (header->AceType != ACCESS_ALLOWED_ACE_TYPE) return true;
    if (!Trusted(PSID(&static_cast<ACCESS_ALLOWED_ACE*>(entry)->SidStart))) return true;
  }
  return false;
}

int ChannelSecurity::Admit(HANDLE object) {
  if (open_) return kOk;
  if (error_ != kOk) return error_;
  PSID owner = nullptr;
  ACL* acl = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  const DWORD rc = GetSecurityInfo(object, SE_KERNEL_OBJECT, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
                                   &owner, nullptr, &acl, nullptr, &descriptor);
  if (rc != ERROR_SUCCESS) return static_cast<int>(rc);
  const bool trusted_owner = owner != nullptr && TrustedOwner(owner);
  const bool open_to_others = OpenToOthers(acl);
  LocalFree(descriptor);
  // Another account's object stays in its hands whatever its list says
  // (an owner may always rewrite the list), so it is never used.
  if (!trusted_owner) return kErrInvalidOwner;
  if (!open_to_others) return kOk;
  // An open one left by an earlier open-mode run is made private when this
  // account may change its list (its owner's account, or an administrator).
  const DWORD set = SetSecurityInfo(object, SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr,
                                    reinterpret_cast<ACL*>(acl_.data()), nullptr);
  return set == ERROR_SUCCESS ? kOk : kErrInvalidOwner;
}

HANDLE CreateSharedObject(const ObjectAccess& access, const std::function<HANDLE(SECURITY_ATTRIBUTES*)>& create,
                          int* error) {
  ChannelSecurity security(access);
  if (security.Error() != kOk) {
    *error = security.Error();
    return nullptr;
  }
  HANDLE object = create(security.Attributes());
  if (object == nullptr) {
    *error = LastError();
    return nullptr;
  }
  if (GetLastError() != ERROR_ALREADY_EXISTS) {
    *error = kOk;
    return object;
  }
  *error = security.Admit(object);
  if (*error == kOk) {
    *error = kErrAlreadyExists;
    return object;
  }
  CloseHandle(object);
  return nullptr;
}

}  // namespace platform::win32
