#include "platform/tcp_socket.h"

#include <winsock2.h>
#include <ws2tcpip.h>

#include <algorithm>
#include <mutex>

namespace platform {

namespace {

SOCKET Handle(Socket socket) { return static_cast<SOCKET>(socket); }

void StartWinsock() {
  static std::once_flag once;
  std::call_once(once, [] {
    WSADATA data;
    WSAStartup(MAKEWORD(2, 2), &data);
  });
}

std::string LastError() { return "Windows socket error " + std::to_string(WSAGetLastError()); }

void MakeNonBlocking(SOCKET s) {
  u_long yes = 1;
  ioctlsocket(s, FIONBIO, &yes);
}

// A bound, listening socket for one of the host's addresses, or INVALID_SOCKET.
SOCKET ListenOn(const addrinfo& address, std::string* error) {
  const SOCKET s = WSASocketW(address.ai_family, address.ai_socktype, address.ai_protocol, nullptr, 0,
                              WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
  if (s == INVALID_SOCKET) {
    *error = LastError();
    return s;
  }
  // Windows lets a second socket bind an address in use unless the first
  // claims it exclusively.
  BOOL yes = TRUE;
  setsockopt(s, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&yes), sizeof yes);
  if (bind(s, address.ai_addr, static_cast<int>(address.ai_addrlen)) == 0 && listen(s, SOMAXCONN) == 0) {
    MakeNonBlocking(s);
    return s;
  }
  *error = LastError();
  closesocket(s);
  return INVALID_SOCKET;
}

int PortOf(SOCKET s) {
  sockaddr_storage bound{};
  int size = sizeof bound;
  if (getsockname(s, reinterpret_cast<sockaddr*>(&bound), &size) != 0) return -1;
  if (bound.ss_family == AF_INET6) return ntohs(reinterpret_cast<const sockaddr_in6*>(&bound)->sin6_port);
  return ntohs(reinterpret_cast<const sockaddr_in*>(&bound)->sin_port);
}

long Result(int n) {
  if (n >= 0) return n;
  return WSAGetLastError() == WSAEWOULDBLOCK ? kWouldBlock : kSocketFailed;
}

}  // namespace

Socket ListenTcp(const std::string& host, int port, int* bound_port, std::string* error) {
  StartWinsock();
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) {
    *error = LastError();
    return kNoSocket;
  }
  SOCKET s = INVALID_SOCKET;
  for (const addrinfo* a = found; a != nullptr && s == INVALID_SOCKET; a = a->ai_next) s = ListenOn(*a, error);
  freeaddrinfo(found);
  if (s == INVALID_SOCKET) return kNoSocket;
  *bound_port = PortOf(s);
  return static_cast<Socket>(s);
}

Socket AcceptTcp(Socket listener, bool* exhausted) {
  *exhausted = false;
  const SOCKET s = accept(Handle(listener), nullptr, nullptr);
  if (s == INVALID_SOCKET) {
    const int error = WSAGetLastError();
    *exhausted = error == WSAEMFILE || error == WSAENOBUFS;
    return kNoSocket;
  }
  // A command the agent runs must not hold the connection open.
  SetHandleInformation(reinterpret_cast<HANDLE>(s), HANDLE_FLAG_INHERIT, 0);
  MakeNonBlocking(s);
  BOOL yes = TRUE;
  setsockopt(s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&yes), sizeof yes);
  return static_cast<Socket>(s);
}

long ReadSocket(Socket socket, char* data, size_t size) {
  return Result(recv(Handle(socket), data, static_cast<int>(std::min<size_t>(size, 1 << 30)), 0));
}

long WriteSocket(Socket socket, const char* data, size_t size) {
  return Result(send(Handle(socket), data, static_cast<int>(std::min<size_t>(size, 1 << 30)), 0));
}

void ShutdownSending(Socket socket) { shutdown(Handle(socket), SD_SEND); }

void CloseSocket(Socket socket) {
  if (socket != kNoSocket) closesocket(Handle(socket));
}

int WaitSockets(std::vector<SocketWait>* waits, int timeout_ms) {
  std::vector<WSAPOLLFD> polled(waits->size());
  for (size_t i = 0; i < waits->size(); ++i) {
    const SocketWait& w = (*waits)[i];
    polled[i].fd = Handle(w.socket);
    polled[i].events = static_cast<SHORT>((w.read ? POLLRDNORM : 0) | (w.write ? POLLWRNORM : 0));
    polled[i].revents = 0;
  }
  const int ready = WSAPoll(polled.data(), static_cast<ULONG>(polled.size()), timeout_ms);
  if (ready == SOCKET_ERROR) return -1;
  for (size_t i = 0; i < waits->size(); ++i) (*waits)[i].ready = polled[i].revents != 0;
  return ready;
}

// Windows has no socketpair: a loopback listener on a free port accepts
// the one connection made to it and is closed again.
bool SocketPair(Socket pair[2]) {
  int port = 0;
  std::string error;
  const Socket listener = ListenTcp("127.0.0.1", 0, &port, &error);
  if (listener == kNoSocket) return false;
  u_long no = 0;
  ioctlsocket(Handle(listener), FIONBIO, &no);
  const SOCKET writer = WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_NO_HANDLE_INHERIT);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<u_short>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool connected =
      writer != INVALID_SOCKET && connect(writer, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  const SOCKET reader = connected ? accept(Handle(listener), nullptr, nullptr) : INVALID_SOCKET;
  closesocket(Handle(listener));
  if (reader == INVALID_SOCKET) {
    if (writer != INVALID_SOCKET) closesocket(writer);
    return false;
  }
  SetHandleInformation(reinterpret_cast<HANDLE>(reader), HANDLE_FLAG_INHERIT, 0);
  MakeNonBlocking(reader);
  MakeNonBlocking(writer);
  BOOL yes = TRUE;
  setsockopt(writer, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&yes), sizeof yes);
  pair[0] = static_cast<Socket>(reader);
  pair[1] = static_cast<Socket>(writer);
  return true;
}

int RaiseDescriptorLimit() { return 1 << 20; }

}  // namespace platform
