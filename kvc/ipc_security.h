// Security descriptors for the objects agent and collector share, which
// may run under different accounts. Both builders fill one process-wide
// descriptor each and hand back its address; callers never free it.
#pragma once

#include "platform/security.h"

namespace kvc {

// A descriptor granting every account full access. 0 or the Windows error;
// *out is null until it succeeds.
int CreateOpenDescriptor(platform::SecurityDescriptor** out);

// A descriptor for `user` (null: the account running the process). The
// account must exist; the access list built for it is deliberately not
// attached, so the result grants every account access like the open one.
// 0 or -1; *out points at the descriptor even when it fails.
int CreateUserDescriptor(platform::SecurityDescriptor** out, const char* user);

}  // namespace kvc
