#include "platform/listen_socket.h"

#include <winsock2.h>

namespace platform {

int MakeListenerExclusive(uintptr_t socket) {
  BOOL yes = TRUE;
  if (setsockopt(static_cast<SOCKET>(socket), SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&yes),
                 sizeof yes) != 0)
    return WSAGetLastError();
  return 0;
}

}  // namespace platform
