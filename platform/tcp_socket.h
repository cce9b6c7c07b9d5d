// Non-blocking TCP sockets for a server that waits on many connections
// from one thread. Every call may be made from any thread on a socket that
// thread owns; errors of the operating system become the results below.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace platform {

// A socket handle (a descriptor on POSIX); kNoSocket when there is none.
using Socket = uintptr_t;
inline constexpr Socket kNoSocket = ~Socket{0};

// Listens on host:port (port 0: a free one, put into *bound_port) as the
// address's only listener: a second process that binds the same address
// fails instead of sharing its connections, while a listener restarted
// beside its predecessor's lingering connections still binds. The socket
// is non-blocking and not inherited by child processes. kNoSocket with
// *error set when the address cannot be had.
Socket ListenTcp(const std::string& host, int port, int* bound_port, std::string* error);

// A connection waiting on `listener`, non-blocking, not inherited, with
// Nagle's algorithm off (a small answer must not wait for the client's
// delayed acknowledgement). kNoSocket when none waits; *exhausted is set
// when one waits but the process has no descriptor left for it.
Socket AcceptTcp(Socket listener, bool* exhausted);

// Reads or writes what the socket takes now: the number of bytes, 0 for a
// read at the peer's end, kWouldBlock when nothing can move now, or
// kSocketFailed. Writes never raise a signal.
inline constexpr long kWouldBlock = -1;
inline constexpr long kSocketFailed = -2;
long ReadSocket(Socket socket, char* data, size_t size);
long WriteSocket(Socket socket, const char* data, size_t size);

// Sends the peer its end of the stream; reads still work.
void ShutdownSending(Socket socket);
void CloseSocket(Socket socket);

struct SocketWait {
  Socket socket = kNoSocket;
  bool read = false;   // wait until it can be read (or the peer is gone)
  bool write = false;  // wait until it can be written (or the peer is gone)
  bool ready = false;  // set: what was waited for, an error or a hang-up
};
// Waits up to `timeout_ms` (-1: no limit) until some socket is ready and
// sets `ready` on each that is; the number ready, 0 on time-out, -1 on error.
int WaitSockets(std::vector<SocketWait>* waits, int timeout_ms);

// Two connected sockets: a byte written to pair[1] makes pair[0] readable,
// so one thread can wake another waiting in WaitSockets. False on failure.
bool SocketPair(Socket pair[2]);

// Raises this process's limit of open descriptors as far as it may go and
// returns the limit (on Windows sockets have none of their own: a large
// number).
int RaiseDescriptorLimit();

}  // namespace platform
