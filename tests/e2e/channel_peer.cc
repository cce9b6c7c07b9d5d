// The collector side of the channel tests, run as a process of its own.
//   kvc_channel_peer <first> <second> answer <rows> <length>
//       answers one request with rows x length pattern bytes
//   kvc_channel_peer <first> <second> echo
//       answers with the request's attribute names, 20 bytes each
//   kvc_channel_peer <first> <second> wrong-unique
//       answers one row under a unique name that was not asked for
//   kvc_channel_peer <first> <second> die <rows> <length>
//       writes the first chunk of its answer, takes the area for the
//       second once the agent has read the first, and dies holding it
//   kvc_channel_peer <first> <second> short <rows> <length> <sent>
//       answers with a header of rows x length and `sent` bytes of rows
//   kvc_channel_peer <first> <second> behind <rows> <length> <seconds>
//       writes the first chunk of its answer, falls `seconds` behind, and
//       then answers the next request with one row of `length` bytes
//   kvc_channel_peer <first> <second> mute
//       takes every request and answers none, until it is killed
// Exit codes: 0 answered, 3 request discarded, 4 no request in time,
// 5 the answer could not be sent.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kvc/channel_dispatch.h"
#include "kvc/shared_memory_exchange.h"
#include "platform/clock.h"
#include "platform/semaphore.h"
#include "tests/e2e/channel_pattern.h"

namespace {

constexpr int kWaitSeconds = 20;

// Writes the first chunk of an answer the way any collector would, through
// the named objects of the contract, with `payload` bytes in it whatever the
// header claims. A dying peer then takes the area for the second chunk and
// dies holding it: the worst moment, as nobody else may write the area then.
enum class Then { kExit, kDie, kGoOn };
void WriteFirstChunk(const std::string& prefix, const std::string& unique, int32_t rows, int32_t length,
                     int32_t payload, Then then) {
  int error = 0;
  auto avail = platform::OpenNamedSemaphore(prefix + "KVCDataSemAvail", 1, platform::ObjectAccess{}, &error);
  auto fill = platform::OpenNamedSemaphore(prefix + "KVCDataSemFill", 0, platform::ObjectAccess{}, &error);
  if (avail == nullptr || fill == nullptr || avail->Wait(kWaitSeconds * 1000) != 0) std::_Exit(5);
  unsigned char* view = static_cast<kvc::ShareCommObject*>(kvc::DataEndpoint())->View();
  const int32_t reading = 0;
  memcpy(view + kvc::area::kDataReaderFinished, &reading, 4);
  memset(view + kvc::area::kDataUnique, 0, kvc::area::kDataUniqueWidth);
  memcpy(view + kvc::area::kDataUnique, unique.data(), unique.size());
  memcpy(view + kvc::area::kDataRows, &rows, 4);
  memcpy(view + kvc::area::kDataRowLength, &length, 4);
  const std::string first = kzq_test::PatternBytes(static_cast<size_t>(payload));
  memcpy(view + kvc::area::kDataPayload, first.data(), first.size());
  memcpy(view + kvc::area::kDataChunkBytes, &payload, 4);
  fill->Release();
  if (then == Then::kGoOn) return;
  if (then == Then::kExit) std::_Exit(0);
  avail->Wait(kWaitSeconds * 1000);
  std::_Exit(9);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4 || kvc::InitShareMemory(argv[1], argv[2]) != 0) return 2;
  // Tells a waiting test that the channel is open (process start-up under
  // Wine takes longer than an agent's wait for its answer).
  if (const char* ready = getenv("KVC_PEER_READY_FILE")) {
    if (FILE* file = fopen(ready, "w")) fclose(file);
  }
  const std::string mode = argv[3];
  std::string name, unique, statement;
  std::vector<std::string> attributes;
  if (mode == "mute")
    for (;;) kvc::RequestEndpoint()->GetRequest(&name, &unique, &attributes, &statement, kWaitSeconds);
  const int got = kvc::RequestEndpoint()->GetRequest(&name, &unique, &attributes, &statement, kWaitSeconds);
  if (got == kvc::kCommFailed) return 3;
  if (got != kvc::kCommOk) return 4;
  int32_t rows = 1;
  int32_t length = 16;
  std::string bytes;
  if (mode == "answer" || mode == "die" || mode == "short" || mode == "behind") {
    rows = atoi(argv[4]);
    length = atoi(argv[5]);
    // A dying peer's header may claim any numbers: only its first chunk is real.
    if (mode == "answer") bytes = kzq_test::PatternBytes(static_cast<size_t>(rows) * static_cast<size_t>(length));
  } else if (mode == "echo") {
    rows = static_cast<int32_t>(attributes.size());
    length = 20;
    for (const std::string& a : attributes) bytes += a + std::string(20 - a.size(), '\0');
  } else if (mode == "wrong-unique") {
    unique = "someone_else";
    bytes = kzq_test::PatternBytes(16);
  }
  const std::string prefix = std::string(argv[1]) + "_" + argv[2];
  if (mode == "die") WriteFirstChunk(prefix, unique, rows, length, kvc::area::kChunk, Then::kDie);
  if (mode == "short" && argc == 7) WriteFirstChunk(prefix, unique, rows, length, atoi(argv[6]), Then::kExit);
  if (mode == "behind" && argc == 7) {
    WriteFirstChunk(prefix, unique, rows, length, kvc::area::kChunk, Then::kGoOn);
    platform::SleepMillis(static_cast<uint32_t>(atoi(argv[6])) * 1000);
    if (kvc::RequestEndpoint()->GetRequest(&name, &unique, &attributes, &statement, kWaitSeconds) != kvc::kCommOk)
      return 4;
    rows = 1;
    bytes = kzq_test::PatternBytes(static_cast<size_t>(length));
  }
  const int sent = kvc::DataEndpoint()->SendData(unique.c_str(), rows, length, bytes.data(), kWaitSeconds);
  return sent == kvc::kCommOk ? 0 : 5;
}
