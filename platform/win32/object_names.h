// Names of the kernel objects that processes of one instance share.
#pragma once

#include <string>

namespace platform::win32 {

// The machine-wide name of a shared object: services run in session 0 and
// console programs in a user's session, and only names in the global
// namespace are the same in both.
inline std::string GlobalObjectName(const std::string& name) { return "Global\\" + name; }

}  // namespace platform::win32
