// Options of a listening TCP socket.
#pragma once

#include <cstdint>

namespace platform {

// Makes `socket` (a socket handle or descriptor) the address's only
// listener: a second process that binds the same address fails instead of
// sharing the connections. A listener restarted while connections of its
// predecessor linger in TIME_WAIT still binds (POSIX SO_REUSEADDR, which
// unlike SO_REUSEPORT admits one listener; SO_EXCLUSIVEADDRUSE on Windows).
// Returns 0 or a Windows error number.
int MakeListenerExclusive(uintptr_t socket);

}  // namespace platform
