// A loopback TCP port nobody listens on at the moment of asking, for a
// program that must be told its port in advance. It is taken below the
// kernel's ephemeral range, so the agents that other tests start on port 0
// at the same time cannot be handed it.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <random>

namespace kzq_test {

inline int FreePort() {
  static std::mt19937 pick{std::random_device{}()};
  for (;;) {
    const int port = std::uniform_int_distribution<int>(20000, 30000)(pick);
    const int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    const bool free = bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    close(s);
    if (free) return port;
  }
}

}  // namespace kzq_test
