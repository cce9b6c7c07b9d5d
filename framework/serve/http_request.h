// An HTTP/1.x request as the endpoint reads it from a client: read a piece
// at a time, never holding more than the limits below, whatever the client
// sends.
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace framework {

// Longest request line, all header lines together (trailers of a chunked
// body included) and body the endpoint reads; past them it refuses.
inline constexpr size_t kMaxRequestLine = 8 * 1024;
inline constexpr size_t kMaxRequestHeaders = 64 * 1024;
inline constexpr size_t kMaxRequestBody = 64 * 1024;

struct HttpRequest {
  std::string method;
  std::string target;  // as sent: path and query
  std::string path;    // the target up to '?', percent-decoded
  std::vector<std::pair<std::string, std::string>> params;   // the query, decoded
  std::vector<std::pair<std::string, std::string>> headers;  // values without leading blanks
  std::string body;
  bool keep_alive = true;
  bool expects_continue = false;  // "Expect: 100-continue": the client waits before its body

  // The first header or parameter of that name (headers: in any case); ""
  // when there is none.
  bool HasHeader(const std::string& name) const;
  std::string Header(const std::string& name) const;
  bool HasParam(const std::string& name) const;
  std::string Param(const std::string& name) const;
};

// Reads requests one after another from the bytes of one connection.
// Feed() may be given any split of the bytes; a request's head is scanned
// once, however slowly it arrives. Not shared between threads.
class HttpRequestReader {
 public:
  enum class Progress { kNeedMore, kHeadRead, kDone, kRefused };

  // Takes the bytes that arrived and reads as far as they go. kHeadRead
  // once, when the head is whole and a body is still to come (the caller
  // may then answer "100 Continue"); kDone when the request is whole (the
  // bytes after it stay for the next); kRefused when the request breaks a
  // limit or the protocol: Refusal() says how to answer, and the connection
  // must end.
  Progress Feed(const char* data, size_t size);
  // The whole request; the reader then reads the next from what is left.
  HttpRequest Take();
  // Some byte of a request has arrived that is not yet a whole request.
  bool Started() const { return started_; }
  // The head just read asks for "100 Continue" before its body.
  bool ExpectsContinue() const { return request_.expects_continue; }

  struct Refusal {
    int status = 0;
    std::string reason;  // the counter's label: malformed, line, headers, body
    std::string message;
  };
  const Refusal& Refused() const { return refusal_; }

 private:
  enum class Part { kRequestLine, kHeaders, kBody, kChunkSize, kChunkData, kChunkEnd, kTrailers, kDone };

  Progress Step();
  size_t HeaderRoom() const;
  bool NextLine(size_t limit, const char* what, std::string* line);
  bool RequestLine(const std::string& line);
  bool HeaderLine(const std::string& line);
  bool HeadEnded();
  bool ChunkSize(const std::string& line);
  Progress Refuse(int status, const char* reason, std::string message);

  std::string buffer_;  // bytes not yet read
  size_t scanned_ = 0;  // of buffer_, searched for a line end without one
  Part part_ = Part::kRequestLine;
  HttpRequest request_;
  size_t header_bytes_ = 0;
  size_t body_left_ = 0;  // of the stated length, or of the current chunk
  bool chunked_ = false;
  bool started_ = false;
  bool head_reported_ = false;
  Refusal refusal_;
};

}  // namespace framework
