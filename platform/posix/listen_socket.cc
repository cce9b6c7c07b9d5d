#include "platform/listen_socket.h"

#include <sys/socket.h>

#include <cerrno>

#include "platform/posix/errors.h"

namespace platform {

int MakeListenerExclusive(uintptr_t socket) {
  int yes = 1;
  if (setsockopt(static_cast<int>(socket), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes) != 0)
    return posix::FromErrno(errno);
  return 0;
}

}  // namespace platform
