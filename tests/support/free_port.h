// A loopback TCP port nobody listens on at the moment of asking.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kzq_test {

inline int FreePort() {
  const int s = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address);
  getsockname(s, reinterpret_cast<sockaddr*>(&address), &length);
  close(s);
  return ntohs(address.sin_port);
}

}  // namespace kzq_test
