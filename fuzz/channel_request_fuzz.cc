// The request area as an agent leaves it, read by the collector's side of
// the channel and turned into the request it answers.
#include <cstdint>

#include "fuzz/channel_area.h"
#include "kvc/channel_dispatch.h"
#include "kvc/shared_memory_exchange.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static fuzz::PeerArea agent("KVCReqShm", "KVCReqSemFill", kvc::area::kRequestSize);
  agent.Leave(data, size);
  kvc::IpcAnchor* anchor = kvc::NewAnchor('C');
  if (anchor == nullptr) __builtin_trap();
  const kvc::PipeList* request = kvc::GetRequestOn(anchor, nullptr);
  if (request != nullptr && request->word.size() > kvc::area::kReqNameWidth) __builtin_trap();
  kvc::FreeAnchor(anchor);
  return 0;
}
