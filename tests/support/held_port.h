// A loopback port held by a listener of the test's own until Release(): a
// port another program must find taken, or (released at once) one that
// nobody else was handed.
#pragma once

#include <httplib.h>

#include <string>
#include <thread>

#include "tests/support/eventually.h"

namespace kzq_test {

class HeldPort {
 public:
  HeldPort() {
    port_ = server_.bind_to_any_port("127.0.0.1");
    listener_ = std::thread([this] { server_.listen_after_bind(); });
    Eventually([this] { return server_.is_running(); });
  }
  ~HeldPort() { Release(); }
  void Release() {
    if (!listener_.joinable()) return;
    server_.stop();
    listener_.join();
  }
  std::string Address() const { return "127.0.0.1:" + std::to_string(port_); }

 private:
  httplib::Server server_;
  std::thread listener_;
  int port_ = 0;
};

}  // namespace kzq_test
