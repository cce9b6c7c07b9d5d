// The web configuration file (KZQ_WEB_CONFIG): basic-auth users with
// bcrypt password hashes and the TLS server settings, in the YAML form
// Prometheus exporters read:
//
//   tls_server_config:
//     cert_file: server.crt
//     key_file: server.key
//   basic_auth_users:
//     prometheus: $2y$10$...
//
// Only that form's block mappings, two levels deep, with plain, 'single'
// or "double" quoted scalars and # comments, are read. Anything else - a
// setting this agent cannot honour included - is an error naming the file
// and line, so a file is never half obeyed.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace framework {

struct TlsServerConfig {
  std::string cert_file;       // PEM; relative paths are read beside the web configuration file
  std::string key_file;        // PEM, unencrypted
  std::string client_ca_file;  // PEM; the CAs a client certificate must come from
  // NoClientCert, RequestClientCert, RequireAnyClientCert,
  // VerifyClientCertIfGiven or RequireAndVerifyClientCert.
  std::string client_auth_type = "NoClientCert";
  std::string min_version = "TLS12";  // TLS10, TLS11, TLS12 or TLS13
};

struct WebConfig {
  std::map<std::string, std::string> users;  // user name -> bcrypt hash
  std::optional<TlsServerConfig> tls;
};

// Reads `text` as the content of the file named `file`; nothing, with
// "<file>:<line>: <problem>" in *error, when it cannot be honoured.
std::optional<WebConfig> ParseWebConfig(std::string_view text, const std::string& file, std::string* error);

// Reads the file at `path` and parses it.
std::optional<WebConfig> ReadWebConfig(const std::string& path, std::string* error);

}  // namespace framework
