// The data area as a collector leaves it, read by the agent's endpoint and
// taken as the rows of a request: the header's counts are not to be trusted
// beyond the bytes that came.
#include <cstdint>
#include <string>

#include "fuzz/channel_area.h"
#include "kvc/collector_channel.h"
#include "kvc/shared_memory_exchange.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static fuzz::PeerArea collector("KVCDataShm", "KVCDataSemFill", kvc::area::kDataSize);
  collector.Leave(data, size);
  std::string unique;
  std::string bytes;
  int32_t rows = 0;
  int32_t length = 0;
  // No wait: an answer longer than one chunk ends in a timeout here, as it
  // does when a collector stops half-way.
  if (kvc::DataEndpoint()->GetData("KZQDBD_1_1_1", &unique, &rows, &length, &bytes, 0) != kvc::kCommOk) return 0;
  kvc::ChannelAnswer answer;
  answer.numrow = rows;
  answer.lenrow = length;
  answer.rows = bytes;
  kvc::AcceptRows("KZQDBD", &answer);
  if (answer.numrow != 0) {
    if (answer.numrow < 0 || answer.lenrow <= 0) __builtin_trap();
    if (static_cast<uint64_t>(answer.numrow) * static_cast<uint64_t>(answer.lenrow) != answer.rows.size())
      __builtin_trap();
  }
  return 0;
}
