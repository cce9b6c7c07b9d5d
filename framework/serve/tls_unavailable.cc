#include "framework/serve/tls_server.h"

namespace framework {

std::unique_ptr<TlsServer> TlsServer::Create(const TlsServerConfig&, std::string* error) {
  *error = "TLS is not available in the Windows build of the agent: remove tls_server_config from the web "
           "configuration (KZQ_WEB_CONFIG), or put a TLS proxy in front of the endpoint";
  return nullptr;
}

}  // namespace framework
