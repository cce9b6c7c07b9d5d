#include "framework/serve/connection_io.h"

namespace framework {
namespace {

class Plain : public ConnectionIo {
 public:
  using ConnectionIo::ConnectionIo;
  long Read(char* data, size_t size) override { return platform::ReadSocket(Socket(), data, size); }
  long Write(const char* data, size_t size) override { return platform::WriteSocket(Socket(), data, size); }
  void ShutdownSending() override { platform::ShutdownSending(Socket()); }
};

}  // namespace

std::unique_ptr<ConnectionIo> PlainIo(platform::Socket socket) { return std::make_unique<Plain>(socket); }

}  // namespace framework
