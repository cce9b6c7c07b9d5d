#include "kvc/ipc_security.h"

#include <string>

#include "kvc/debug_switches.h"
#include "kvc/diagnostic_log.h"

namespace kvc {

int CreateOpenDescriptor(platform::SecurityDescriptor** out) {
  *out = nullptr;
  platform::SecurityDescriptor* d = platform::OpenDescriptorStorage();
  int rc = platform::InitDescriptor(d);
  if (rc == 0) rc = platform::SetNullAccessList(d, false);
  if (rc == 0) *out = d;
  return rc;
}

int CreateUserDescriptor(platform::SecurityDescriptor** out, const char* user) {
  platform::SecurityDescriptor* d = platform::UserDescriptorStorage();
  *out = d;
  int rc = platform::InitDescriptor(d);
  if (rc != 0) {
    Log('e', "nts0005", "Unable to initialize security descriptor. Error %d\n", rc);
    return -1;
  }
  if ((rc = platform::InitAccessList(d)) != 0) {
    Log('e', "nts0010", "Unable to Initialize Acl. Error %d\n", rc);
    return -1;
  }
  std::string name = user != nullptr ? user : "";
  if (user == nullptr) {
    if ((rc = platform::CurrentUserName(&name)) != 0) {
      Log('e', "nts0020", "Unable to get current user name. Error %d\n", rc);
      return -1;
    }
    if (Options().trace_detail) Log('e', "nts0030", "current user name: %s\n", name.c_str());
  }
  if ((rc = platform::LookupAccount(d, name)) != 0) {
    Log('e', "nts0040", "Unable to check account info: '%s'. Error %d\n", name.c_str(), rc);
    return -1;
  }
  if ((rc = platform::AllowAccountReadWrite(d)) != 0) {
    Log('e', "nts0050", "Unable to AddAccessAllowedAce. Error %d\n", rc);
    return -1;
  }
  if ((rc = platform::SetNullAccessList(d, true)) != 0) {
    Log('e', "nts0060", "Unable to SetSecurityDescriptorDacl. Error %d\n", rc);
    return -1;
  }
  return 0;
}

}  // namespace kvc
