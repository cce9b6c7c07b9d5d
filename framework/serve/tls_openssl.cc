#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <cstdint>
#include <map>

#include "framework/serve/tls_server.h"

namespace framework {
namespace {

std::string OpenSslError() {
  const unsigned long code = ERR_get_error();
  ERR_clear_error();
  if (code == 0) return "unknown error";
  char text[256];
  ERR_error_string_n(code, text, sizeof text);
  return text;
}

// A TLS connection over the server's own non-blocking socket calls, so
// that a write to a peer that left never raises SIGPIPE.
class TlsIo : public ConnectionIo {
 public:
  TlsIo(platform::Socket socket, SSL_CTX* context, BIO_METHOD* method) : ConnectionIo(socket) {
    ssl_ = SSL_new(context);
    BIO* bio = BIO_new(method);
    BIO_set_data(bio, this);
    BIO_set_init(bio, 1);
    SSL_set_bio(ssl_, bio, bio);
    SSL_set_accept_state(ssl_);
  }
  ~TlsIo() override { SSL_free(ssl_); }

  long Read(char* data, size_t size) override {
    failure_ = Failure::kNone;
    ERR_clear_error();
    const int n = SSL_read(ssl_, data, static_cast<int>(std::min<size_t>(size, INT32_MAX)));
    if (n > 0) return Moved(n);
    const long result = Blocked(n, false);
    if (result == platform::kSocketFailed && Establishing() && started_)
      failure_ = first_byte_ >= 'A' && first_byte_ <= 'Z' ? Failure::kPlainHttp : Failure::kHandshake;
    return result;
  }

  long Write(const char* data, size_t size) override {
    ERR_clear_error();
    const int n = SSL_write(ssl_, data, static_cast<int>(std::min<size_t>(size, INT32_MAX)));
    return n > 0 ? Moved(n) : Blocked(n, true);
  }

  bool WaitsForWritable(bool writing) const override { return blocked_ ? blocked_on_write_ : writing; }
  bool Buffered() const override { return SSL_pending(ssl_) > 0; }
  bool HandshakeStarted() const override { return started_; }
  bool Establishing() const override { return !SSL_is_init_finished(ssl_); }
  Failure LastFailure() const override { return failure_; }

  void ShutdownSending() override {
    if (!Establishing()) {
      ERR_clear_error();
      SSL_shutdown(ssl_);  // sends close_notify; the peer's is not waited for
    }
    platform::ShutdownSending(Socket());
  }

  static int BioRead(BIO* bio, char* data, int size) {
    auto* io = static_cast<TlsIo*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    const long n = platform::ReadSocket(io->Socket(), data, static_cast<size_t>(size));
    if (n == platform::kWouldBlock) BIO_set_retry_read(bio);
    if (n > 0 && !io->started_) {
      io->started_ = true;
      io->first_byte_ = data[0];
    }
    return n >= 0 ? static_cast<int>(n) : -1;
  }

  static int BioWrite(BIO* bio, const char* data, int size) {
    auto* io = static_cast<TlsIo*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    const long n = platform::WriteSocket(io->Socket(), data, static_cast<size_t>(size));
    if (n == platform::kWouldBlock) BIO_set_retry_write(bio);
    return n >= 0 ? static_cast<int>(n) : -1;
  }

 private:
  long Moved(int n) {
    blocked_ = false;
    return n;
  }

  long Blocked(int n, bool writing) {
    switch (SSL_get_error(ssl_, n)) {
      case SSL_ERROR_WANT_READ:
        blocked_ = true;
        blocked_on_write_ = false;
        return platform::kWouldBlock;
      case SSL_ERROR_WANT_WRITE:
        blocked_ = true;
        blocked_on_write_ = true;
        return platform::kWouldBlock;
      case SSL_ERROR_ZERO_RETURN:
        return 0;  // the peer said it ends
      default:
        // A peer that closes without saying so ends the stream as well.
        if (!writing && !Establishing() && ERR_peek_error() == 0) return 0;
        ERR_clear_error();
        return platform::kSocketFailed;
    }
  }

  SSL* ssl_ = nullptr;
  bool started_ = false;
  char first_byte_ = 0;
  bool blocked_ = false;
  bool blocked_on_write_ = false;
  Failure failure_ = Failure::kNone;
};

int AcceptAnyCertificate(int, X509_STORE_CTX*) { return 1; }

class OpenSslServer : public TlsServer {
 public:
  OpenSslServer(SSL_CTX* context, BIO_METHOD* method) : context_(context), method_(method) {}
  ~OpenSslServer() override {
    SSL_CTX_free(context_);
    BIO_meth_free(method_);
  }

  std::unique_ptr<ConnectionIo> Accept(platform::Socket socket) override {
    return std::make_unique<TlsIo>(socket, context_, method_);
  }

 private:
  SSL_CTX* context_;
  BIO_METHOD* method_;
};

bool Configure(SSL_CTX* context, const TlsServerConfig& config, std::string* error) {
  static const std::map<std::string, int> kVersions = {
      {"TLS10", TLS1_VERSION}, {"TLS11", TLS1_1_VERSION}, {"TLS12", TLS1_2_VERSION}, {"TLS13", TLS1_3_VERSION}};
  SSL_CTX_set_min_proto_version(context, kVersions.at(config.min_version));
  // A write may take part of what it was given, and be repeated from
  // another place of the same answer.
  SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION | SSL_OP_IGNORE_UNEXPECTED_EOF);
  if (SSL_CTX_use_certificate_chain_file(context, config.cert_file.c_str()) != 1) {
    *error = "cannot use cert_file " + config.cert_file + ": " + OpenSslError();
    return false;
  }
  if (SSL_CTX_use_PrivateKey_file(context, config.key_file.c_str(), SSL_FILETYPE_PEM) != 1) {
    *error = "cannot use key_file " + config.key_file + ": " + OpenSslError();
    return false;
  }
  if (SSL_CTX_check_private_key(context) != 1) {
    *error = "key_file " + config.key_file + " is not the key of cert_file " + config.cert_file;
    return false;
  }
  const std::string& type = config.client_auth_type;
  if (type == "NoClientCert") return true;
  if (!config.client_ca_file.empty()) {
    STACK_OF(X509_NAME)* names = SSL_load_client_CA_file(config.client_ca_file.c_str());
    if (names == nullptr || SSL_CTX_load_verify_locations(context, config.client_ca_file.c_str(), nullptr) != 1) {
      if (names != nullptr) sk_X509_NAME_pop_free(names, X509_NAME_free);
      *error = "cannot use client_ca_file " + config.client_ca_file + ": " + OpenSslError();
      return false;
    }
    SSL_CTX_set_client_CA_list(context, names);
  }
  const bool verify = type.find("Verify") != std::string::npos;
  const bool require = type.rfind("Require", 0) == 0;
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER | (require ? SSL_VERIFY_FAIL_IF_NO_PEER_CERT : 0),
                     verify ? nullptr : AcceptAnyCertificate);
  return true;
}

}  // namespace

std::unique_ptr<TlsServer> TlsServer::Create(const TlsServerConfig& config, std::string* error) {
  SSL_CTX* context = SSL_CTX_new(TLS_server_method());
  BIO_METHOD* method = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "kzq socket");
  if (context == nullptr || method == nullptr) {
    *error = "cannot set up TLS: " + OpenSslError();
    SSL_CTX_free(context);
    BIO_meth_free(method);
    return nullptr;
  }
  BIO_meth_set_read(method, TlsIo::BioRead);
  BIO_meth_set_write(method, TlsIo::BioWrite);
  BIO_meth_set_ctrl(method, [](BIO*, int command, long, void*) -> long { return command == BIO_CTRL_FLUSH ? 1 : 0; });
  auto server = std::make_unique<OpenSslServer>(context, method);
  if (!Configure(context, config, error)) return nullptr;
  return server;
}

}  // namespace framework
