// How the endpoint reads requests: the same however the bytes are split,
// one after another on a connection, and refused as soon as a bound breaks.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "framework/serve/http_request.h"

namespace {

using framework::HttpRequest;
using framework::HttpRequestReader;
using Progress = HttpRequestReader::Progress;

// Feeds `bytes` in pieces of `piece` bytes; the requests read, and the
// refusal's status if the reader refused (0 if not).
struct Read {
  std::vector<HttpRequest> requests;
  int refused = 0;
  std::string reason;
};

Read ReadAll(const std::string& bytes, size_t piece) {
  Read read;
  HttpRequestReader reader;
  for (size_t at = 0; at < bytes.size() && read.refused == 0; at += piece) {
    Progress progress = reader.Feed(bytes.data() + at, std::min(piece, bytes.size() - at));
    for (;;) {
      if (progress == Progress::kHeadRead) progress = reader.Feed(nullptr, 0);
      if (progress != Progress::kDone) break;
      read.requests.push_back(reader.Take());
      progress = reader.Feed(nullptr, 0);
    }
    if (progress == Progress::kRefused) {
      read.refused = reader.Refused().status;
      read.reason = reader.Refused().reason;
    }
  }
  return read;
}

TEST(HttpRequestReader, ReadsTheSameRequestsHoweverTheBytesAreSplit) {
  const std::string bytes =
      "\r\nGET /tables/KZQDBD?filter=DBNAME%20EQ%20%27a%2Bb%27&x=1+2&flag HTTP/1.1\r\n"
      "Host: 127.0.0.1:9\r\nAuthorization:   Bearer t0ken  \r\n\r\n"
      "POST /actions HTTP/1.1\r\nContent-Length: 5\r\nContent-Type: text/plain\r\n\r\nhello"
      "POST /actions HTTP/1.0\nTransfer-Encoding: chunked\nConnection: keep-alive\n\n"
      "3;ext=1\r\nabc\r\n0002\r\nde\r\n0\r\nTrailer: x\r\n\r\n"
      "GET /metrics HTTP/1.1\r\nConnection: close\r\n\r\n";
  for (size_t piece : {bytes.size(), size_t{1}, size_t{7}}) {
    const Read read = ReadAll(bytes, piece);
    ASSERT_EQ(read.refused, 0) << piece;
    ASSERT_EQ(read.requests.size(), 4u) << piece;
    const HttpRequest& sample = read.requests[0];
    EXPECT_EQ(sample.path, "/tables/KZQDBD");
    EXPECT_EQ(sample.Param("filter"), "DBNAME EQ 'a+b'");
    EXPECT_EQ(sample.Param("x"), "1 2");
    EXPECT_TRUE(sample.HasParam("flag"));
    EXPECT_EQ(sample.Header("host"), "127.0.0.1:9");
    // Blanks after a token are part of it: the token check compares exactly.
    EXPECT_EQ(sample.Header("Authorization"), "Bearer t0ken  ");
    EXPECT_EQ(read.requests[1].body, "hello");
    EXPECT_EQ(read.requests[2].body, "abcde");
    EXPECT_TRUE(read.requests[2].keep_alive);
    EXPECT_TRUE(read.requests[1].keep_alive);
    EXPECT_FALSE(read.requests[3].keep_alive);
  }
}

TEST(HttpRequestReader, RefusesWhatBreaksABoundBeforeReadingPastIt) {
  const std::string line(framework::kMaxRequestLine + 1, 'a');
  const std::string header = "X: " + std::string(framework::kMaxRequestHeaders, 'b');
  struct Case {
    std::string bytes;
    int status;
    const char* reason;
  };
  const Case cases[] = {
      {"GET /" + line, 414, "line"},
      {"GET / HTTP/1.1\r\n" + header, 431, "headers"},
      {"GET / HTTP/1.1\r\nContent-Length: 65537\r\n\r\n", 413, "body"},
      {"POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n10000\r\n" + std::string(65536, 'c') + "\r\n1\r\n", 413,
       "body"},
      {"POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nffffffffffffffffff\r\n", 413, "body"},
      {"POST / HTTP/1.1\r\nContent-Length: 3\r\nTransfer-Encoding: chunked\r\n\r\n", 400, "malformed"},
      {"POST / HTTP/1.1\r\nContent-Length: 3\r\nContent-Length: 4\r\n\r\n", 400, "malformed"},
      {"POST / HTTP/1.1\r\nContent-Length: -1\r\n\r\n", 400, "malformed"},
      {"POST / HTTP/1.1\r\nTransfer-Encoding: gzip, chunked\r\n\r\n", 501, "malformed"},
      {"POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabcd\r\n", 400, "malformed"},
      {"GET / HTTP/1.1\r\nX: 1\r\n folded\r\n\r\n", 400, "malformed"},
      {"GET / HTTP/2.0\r\n\r\n", 505, "malformed"},
      {"GET /%zz HTTP/1.1\r\n\r\n", 400, "malformed"},
      {"GET http://other/ HTTP/1.1\r\n\r\n", 400, "malformed"},
  };
  for (const Case& c : cases) {
    for (size_t piece : {c.bytes.size(), size_t{4096}}) {
      const Read read = ReadAll(c.bytes, piece);
      EXPECT_EQ(read.refused, c.status) << c.bytes.substr(0, 80);
      EXPECT_EQ(read.reason, c.reason) << c.bytes.substr(0, 80);
    }
  }
  // A request without a length has no body: what follows is the next request.
  const Read unsized = ReadAll("POST /actions HTTP/1.1\r\n\r\nGET / HTTP/1.1\r\n\r\n", 3);
  ASSERT_EQ(unsized.requests.size(), 2u);
  EXPECT_EQ(unsized.requests[0].body, "");
}

TEST(HttpRequestReader, AsksForTheBodyOnlyWhenOneIsComingAndKnowsWhenARequestHasBegun) {
  HttpRequestReader reader;
  EXPECT_FALSE(reader.Started());
  const std::string head = "POST /actions HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 2\r\n\r\n";
  EXPECT_EQ(reader.Feed(head.data(), 3), Progress::kNeedMore);
  EXPECT_TRUE(reader.Started());
  EXPECT_EQ(reader.Feed(head.data() + 3, head.size() - 3), Progress::kHeadRead);
  EXPECT_TRUE(reader.ExpectsContinue());
  EXPECT_EQ(reader.Feed(nullptr, 0), Progress::kNeedMore);
  EXPECT_EQ(reader.Feed("ok", 2), Progress::kDone);
  EXPECT_EQ(reader.Take().body, "ok");
  EXPECT_FALSE(reader.Started());
  EXPECT_EQ(reader.Feed("GET / HTTP/1.1\r\n\r\n", 18), Progress::kDone);
}

}  // namespace
