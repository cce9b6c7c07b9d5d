#include "platform/tcp_socket.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

namespace platform {

namespace {

int Fd(Socket socket) { return static_cast<int>(socket); }

// A bound, listening socket for one of the host's addresses, or -1.
int ListenOn(const addrinfo& address, std::string* error) {
  const int fd = socket(address.ai_family, address.ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, address.ai_protocol);
  if (fd < 0) {
    *error = strerror(errno);
    return -1;
  }
  // SO_REUSEADDR lets a restarted listener bind beside connections in
  // TIME_WAIT; unlike SO_REUSEPORT it admits one listener per address.
  int yes = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  if (bind(fd, address.ai_addr, address.ai_addrlen) == 0 && listen(fd, SOMAXCONN) == 0) return fd;
  *error = strerror(errno);
  close(fd);
  return -1;
}

int PortOf(int fd) {
  sockaddr_storage bound{};
  socklen_t size = sizeof bound;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &size) != 0) return -1;
  if (bound.ss_family == AF_INET6) return ntohs(reinterpret_cast<const sockaddr_in6*>(&bound)->sin6_port);
  return ntohs(reinterpret_cast<const sockaddr_in*>(&bound)->sin_port);
}

}  // namespace

Socket ListenTcp(const std::string& host, int port, int* bound_port, std::string* error) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const int looked_up = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
  if (looked_up != 0) {
    *error = gai_strerror(looked_up);
    return kNoSocket;
  }
  int fd = -1;
  for (const addrinfo* a = found; a != nullptr && fd < 0; a = a->ai_next) fd = ListenOn(*a, error);
  freeaddrinfo(found);
  if (fd < 0) return kNoSocket;
  *bound_port = PortOf(fd);
  return static_cast<Socket>(fd);
}

Socket AcceptTcp(Socket listener, bool* exhausted) {
  *exhausted = false;
  for (;;) {
    const int fd = accept4(Fd(listener), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0) {
      int yes = 1;
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
      return static_cast<Socket>(fd);
    }
    if (errno == EINTR || errno == ECONNABORTED) continue;
    *exhausted = errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
    return kNoSocket;
  }
}

long ReadSocket(Socket socket, char* data, size_t size) {
  for (;;) {
    const ssize_t n = recv(Fd(socket), data, size, 0);
    if (n >= 0) return static_cast<long>(n);
    if (errno == EINTR) continue;
    return errno == EAGAIN || errno == EWOULDBLOCK ? kWouldBlock : kSocketFailed;
  }
}

long WriteSocket(Socket socket, const char* data, size_t size) {
  for (;;) {
    const ssize_t n = send(Fd(socket), data, size, MSG_NOSIGNAL);
    if (n >= 0) return static_cast<long>(n);
    if (errno == EINTR) continue;
    return errno == EAGAIN || errno == EWOULDBLOCK ? kWouldBlock : kSocketFailed;
  }
}

void ShutdownSending(Socket socket) { shutdown(Fd(socket), SHUT_WR); }

void CloseSocket(Socket socket) {
  if (socket != kNoSocket) close(Fd(socket));
}

int WaitSockets(std::vector<SocketWait>* waits, int timeout_ms) {
  std::vector<pollfd> polled(waits->size());
  for (size_t i = 0; i < waits->size(); ++i) {
    const SocketWait& w = (*waits)[i];
    polled[i] = {Fd(w.socket), static_cast<short>((w.read ? POLLIN : 0) | (w.write ? POLLOUT : 0)), 0};
  }
  const int ready = poll(polled.data(), polled.size(), timeout_ms);
  if (ready < 0) return errno == EINTR ? 0 : -1;
  for (size_t i = 0; i < waits->size(); ++i) (*waits)[i].ready = polled[i].revents != 0;
  return ready;
}

bool SocketPair(Socket pair[2]) {
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds) != 0) return false;
  pair[0] = static_cast<Socket>(fds[0]);
  pair[1] = static_cast<Socket>(fds[1]);
  return true;
}

int RaiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 1024;
  // Enough for thousands of connections; more only enlarges what every
  // child process that closes its descriptors has to walk.
  const rlim_t wanted = std::min<rlim_t>(limit.rlim_max, 65536);
  if (limit.rlim_cur < wanted) {
    limit.rlim_cur = wanted;
    setrlimit(RLIMIT_NOFILE, &limit);
    getrlimit(RLIMIT_NOFILE, &limit);
  }
  return limit.rlim_cur > INT_MAX ? INT_MAX : static_cast<int>(limit.rlim_cur);
}

}  // namespace platform
