// TLS for the endpoint's connections, from the web configuration's
// tls_server_config. Built with OpenSSL on Linux; the Windows build has no
// TLS, and Create() says so.
#pragma once

#include <memory>
#include <string>

#include "framework/serve/connection_io.h"
#include "framework/serve/web_config.h"

namespace framework {

class TlsServer {
 public:
  // Loads the certificate, its key and the client CAs; null with *error
  // naming the file and what is wrong with it.
  static std::unique_ptr<TlsServer> Create(const TlsServerConfig& config, std::string* error);
  virtual ~TlsServer() = default;

  // The io of a connection just accepted on `socket`: a server-side
  // handshake, then the request's bytes. Any thread.
  virtual std::unique_ptr<ConnectionIo> Accept(platform::Socket socket) = 0;
};

}  // namespace framework
