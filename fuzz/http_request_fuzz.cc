// Requests as any client may send them, in pieces the first byte sizes:
// whatever is read stays within the endpoint's bounds, a refusal always
// says why, and the same bytes in one piece read the same requests.
#include <cstdint>
#include <string>
#include <vector>

#include "framework/serve/http_request.h"

namespace {

using framework::HttpRequestReader;
using Progress = HttpRequestReader::Progress;

// What the reader made of the bytes: each request's method, target and
// body, and the refusal, one text to compare.
std::string ReadAll(const uint8_t* data, size_t size, size_t piece) {
  std::string read;
  HttpRequestReader reader;
  for (size_t at = 0; at < size; at += piece) {
    Progress progress = reader.Feed(reinterpret_cast<const char*>(data) + at, std::min(piece, size - at));
    for (;;) {
      if (progress == Progress::kHeadRead) progress = reader.Feed(nullptr, 0);
      if (progress != Progress::kDone) break;
      const framework::HttpRequest request = reader.Take();
      size_t header_bytes = 0;
      for (const auto& [name, value] : request.headers) header_bytes += name.size() + value.size();
      if (request.body.size() > framework::kMaxRequestBody || header_bytes > framework::kMaxRequestHeaders ||
          request.target.size() > framework::kMaxRequestLine)
        __builtin_trap();
      read += request.method + " " + request.target + " " + std::to_string(request.body.size()) + "\n";
      progress = reader.Feed(nullptr, 0);
    }
    if (progress == Progress::kRefused) {
      if (reader.Refused().status == 0 || reader.Refused().message.empty()) __builtin_trap();
      return read + "refused " + std::to_string(reader.Refused().status);
    }
  }
  return read;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const size_t piece = 1 + data[0] % 64;
  // Bytes in one piece and in many read the same, refusal included.
  const std::string whole = ReadAll(data + 1, size - 1, size);
  const std::string pieces = ReadAll(data + 1, size - 1, piece);
  if (whole != pieces) __builtin_trap();
  return 0;
}
