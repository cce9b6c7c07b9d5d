// How the server moves one connection's bytes: as they are, or through
// TLS. Non-blocking either way; a connection's io is used by one thread at
// a time (the server's waiting thread, or the stream thread it hands the
// connection to).
#pragma once

#include <cstddef>
#include <memory>

#include "platform/tcp_socket.h"

namespace framework {

class ConnectionIo {
 public:
  explicit ConnectionIo(platform::Socket socket) : socket_(socket) {}
  virtual ~ConnectionIo() = default;
  ConnectionIo(const ConnectionIo&) = delete;
  ConnectionIo& operator=(const ConnectionIo&) = delete;

  platform::Socket Socket() const { return socket_; }

  // As platform::ReadSocket and WriteSocket: the bytes moved, 0 for a read
  // at the peer's end, platform::kWouldBlock or platform::kSocketFailed.
  virtual long Read(char* data, size_t size) = 0;
  virtual long Write(const char* data, size_t size) = 0;
  // After kWouldBlock from a read (writing false) or a write (true): wait
  // for the socket to become writable (true) or readable (false). TLS may
  // need to write to read and the reverse.
  virtual bool WaitsForWritable(bool writing) const { return writing; }
  // Read() has bytes for the caller without the socket becoming readable.
  virtual bool Buffered() const { return false; }
  // A byte of a TLS handshake has arrived: the connection's first
  // request has begun, though none of its bytes can be read yet.
  virtual bool HandshakeStarted() const { return false; }
  // No answer can be sent yet: a TLS handshake is under way.
  virtual bool Establishing() const { return false; }

  // Why the last Read() failed, where the counters care.
  enum class Failure { kNone, kHandshake, kPlainHttp };
  virtual Failure LastFailure() const { return Failure::kNone; }

  // Ends what this side sends (TLS: says so first); reads still work.
  virtual void ShutdownSending() = 0;

 private:
  platform::Socket socket_;
};

// The socket's bytes as they are.
std::unique_ptr<ConnectionIo> PlainIo(platform::Socket socket);

}  // namespace framework
