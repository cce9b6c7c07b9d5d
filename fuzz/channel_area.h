// A real channel for a fuzz target: this process's request and data areas
// under a prefix of its own, a second mapping of one area through which
// the target writes what a peer would have left there, and the peer's
// handle on that area's Fill semaphore to announce it.
#pragma once

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <unistd.h>

#include "kvc/shared_memory_exchange.h"
#include "platform/semaphore.h"
#include "platform/shared_memory.h"

namespace fuzz {

class PeerArea {
 public:
  PeerArea(const char* area_suffix, const char* semaphore_suffix, size_t size) {
    prefix_ = "kzqfuzz" + std::to_string(getpid()) + "_";
    kvc::SetChannelConsoleMode(true);
    if (kvc::CreateObjects(prefix_) != 1) abort();
    int error = 0;
    area_ = platform::OpenSharedArea(prefix_ + area_suffix, size, platform::ObjectAccess{}, &error);
    fill_ = platform::OpenNamedSemaphore(prefix_ + semaphore_suffix, 0, platform::ObjectAccess{}, &error);
    if (area_ == nullptr || fill_ == nullptr) abort();
    atexit([] { RemoveAll(); });
  }

  // Makes the area hold `data` from its start and zeros after it (what
  // does not fit is dropped), then posts Fill as a peer does after writing;
  // a Fill still posted from before stays posted.
  void Leave(const uint8_t* data, size_t size) {
    const size_t n = size < area_->Size() ? size : area_->Size();
    memset(area_->Address(), 0, area_->Size());
    memcpy(area_->Address(), data, n);
    (void)fill_->Release();
  }

 private:
  static void RemoveAll() {
    const std::string prefix = "kzqfuzz" + std::to_string(getpid()) + "_";
    kvc::DestroyShareMemory();
    for (const std::string& name : kvc::ChannelObjectNames(prefix)) {
      platform::RemoveSharedArea(name);
      platform::RemoveSemaphore(name);
    }
  }

  std::string prefix_;
  std::unique_ptr<platform::SharedArea> area_;
  std::unique_ptr<platform::Semaphore> fill_;
};

}  // namespace fuzz
