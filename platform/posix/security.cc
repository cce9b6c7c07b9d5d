#include "platform/security.h"

#include <pwd.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "platform/error.h"
#include "platform/posix/errors.h"

namespace platform {


// The mode objects are created with, and the account that was checked.
struct SecurityDescriptor {
  unsigned mode = 0600;
  bool account_found = false;
  uid_t account = 0;
  bool account_allowed = false;
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
  *d = SecurityDescriptor{};
  return kOk;
}

int SetNullAccessList(SecurityDescriptor* d, bool) {
  d->mode = 0666;
  return kOk;
}

int InitAccessList(SecurityDescriptor* d) {
  d->account_allowed = false;
  return kOk;
}

int CurrentUserName(std::string* name) {
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* found = nullptr;
  const int rc = getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &found);
  if (found == nullptr) return rc != 0 ? posix::FromErrno(rc) : kErrNoneMapped;
  *name = entry.pw_name;
  return kOk;
}

int LookupAccount(SecurityDescriptor* d, const std::string& user) {
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* found = nullptr;
  const int rc = getpwnam_r(user.c_str(), &entry, buffer.data(), buffer.size(), &found);
  if (found == nullptr) return rc != 0 ? posix::FromErrno(rc) : kErrNoneMapped;
  d->account_found = true;
  d->account = entry.pw_uid;
  return kOk;
}

int AllowAccountReadWrite(SecurityDescriptor* d) {
  if (!d->account_found) return kErrInvalidParameter;
  d->account_allowed = true;
  return kOk;
}

}  // namespace platform
