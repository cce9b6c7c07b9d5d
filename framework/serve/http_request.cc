#include "framework/serve/http_request.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace framework {

namespace {

// The longest chunk-size line: hex digits and perhaps an extension.
constexpr size_t kMaxChunkLine = 1024;

bool SameName(const std::string& a, const std::string& b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
         });
}

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

bool IsTokenChar(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 || std::strchr("!#$%&'*+-.^_`|~", c) != nullptr;
}

bool IsToken(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), IsTokenChar);
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

// Percent-decodes `text` (and '+' as a blank in a query); false when an
// escape is broken.
bool Decode(const std::string& text, bool plus_is_blank, std::string* out) {
  out->clear();
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%') {
      if (i + 2 >= text.size()) return false;
      const int high = HexValue(text[i + 1]);
      const int low = HexValue(text[i + 2]);
      if (high < 0 || low < 0) return false;
      out->push_back(static_cast<char>(high * 16 + low));
      i += 2;
    } else {
      out->push_back(plus_is_blank && text[i] == '+' ? ' ' : text[i]);
    }
  }
  return true;
}

bool DecodeQuery(const std::string& query, std::vector<std::pair<std::string, std::string>>* params) {
  for (size_t at = 0; at < query.size();) {
    const size_t end = std::min(query.find('&', at), query.size());
    const std::string pair = query.substr(at, end - at);
    at = end + 1;
    if (pair.empty()) continue;
    const size_t equals = std::min(pair.find('='), pair.size());
    std::string name, value;
    if (!Decode(pair.substr(0, equals), true, &name)) return false;
    if (equals < pair.size() && !Decode(pair.substr(equals + 1), true, &value)) return false;
    params->emplace_back(std::move(name), std::move(value));
  }
  return true;
}

// The comma-separated words of a header's value, lower-cased and trimmed.
std::vector<std::string> Words(const std::string& value) {
  std::vector<std::string> words;
  for (size_t at = 0; at <= value.size();) {
    const size_t end = std::min(value.find(',', at), value.size());
    std::string word = value.substr(at, end - at);
    word.erase(0, word.find_first_not_of(" \t"));
    word.erase(word.find_last_not_of(" \t") + 1);
    if (!word.empty()) words.push_back(Lower(word));
    at = end + 1;
  }
  return words;
}

}  // namespace

bool HttpRequest::HasHeader(const std::string& name) const {
  return std::any_of(headers.begin(), headers.end(), [&](const auto& h) { return SameName(h.first, name); });
}

std::string HttpRequest::Header(const std::string& name) const {
  for (const auto& [key, value] : headers)
    if (SameName(key, name)) return value;
  return "";
}

bool HttpRequest::HasParam(const std::string& name) const {
  return std::any_of(params.begin(), params.end(), [&](const auto& p) { return p.first == name; });
}

std::string HttpRequest::Param(const std::string& name) const {
  for (const auto& [key, value] : params)
    if (key == name) return value;
  return "";
}

HttpRequestReader::Progress HttpRequestReader::Feed(const char* data, size_t size) {
  if (part_ == Part::kDone) return Progress::kDone;
  if (refusal_.status != 0) return Progress::kRefused;
  buffer_.append(data, size);
  if (!buffer_.empty()) started_ = true;
  return Step();
}

HttpRequest HttpRequestReader::Take() {
  HttpRequest taken = std::move(request_);
  request_ = HttpRequest();
  part_ = Part::kRequestLine;
  header_bytes_ = 0;
  body_left_ = 0;
  chunked_ = false;
  head_reported_ = false;
  scanned_ = 0;
  started_ = !buffer_.empty();
  return taken;
}

HttpRequestReader::Progress HttpRequestReader::Refuse(int status, const char* reason, std::string message) {
  refusal_ = {status, reason, std::move(message)};
  buffer_.clear();
  buffer_.shrink_to_fit();
  return Progress::kRefused;
}

// The next line of the buffer without its line end, or false when it has
// not ended yet. A line longer than `limit` refuses the request.
bool HttpRequestReader::NextLine(size_t limit, const char* what, std::string* line) {
  const size_t end = buffer_.find('\n', scanned_);
  if (end == std::string::npos) scanned_ = buffer_.size();
  if ((end == std::string::npos ? buffer_.size() : end) > limit) {
    const std::string message = std::string(what) + " is longer than " + std::to_string(limit) + " bytes";
    if (part_ == Part::kRequestLine) Refuse(414, "line", message);
    else if (part_ == Part::kHeaders || part_ == Part::kTrailers) Refuse(431, "headers", message);
    else Refuse(400, "malformed", message);
    return false;
  }
  if (end == std::string::npos) return false;
  line->assign(buffer_, 0, end > 0 && buffer_[end - 1] == '\r' ? end - 1 : end);
  buffer_.erase(0, end + 1);
  scanned_ = 0;
  return true;
}

size_t HttpRequestReader::HeaderRoom() const {
  return header_bytes_ < kMaxRequestHeaders ? kMaxRequestHeaders - header_bytes_ : 0;
}

HttpRequestReader::Progress HttpRequestReader::Step() {
  std::string line;
  for (;;) {
    switch (part_) {
      case Part::kRequestLine:
        if (!NextLine(kMaxRequestLine, "the request line", &line)) break;
        if (line.empty()) continue;  // blank lines before a request are allowed
        if (!RequestLine(line)) break;
        part_ = Part::kHeaders;
        continue;
      case Part::kHeaders:
        if (!NextLine(HeaderRoom(), "the request's headers", &line)) break;
        header_bytes_ += line.size() + 2;
        if (line.empty()) {
          if (!HeadEnded()) break;
          if (part_ != Part::kDone && !head_reported_) {
            head_reported_ = true;
            return Progress::kHeadRead;
          }
          continue;
        }
        if (!HeaderLine(line)) break;
        continue;
      case Part::kBody:
      case Part::kChunkData: {
        const size_t take = std::min(body_left_, buffer_.size());
        request_.body.append(buffer_, 0, take);
        buffer_.erase(0, take);
        body_left_ -= take;
        if (body_left_ > 0) break;
        part_ = part_ == Part::kBody ? Part::kDone : Part::kChunkEnd;
        continue;
      }
      case Part::kChunkSize:
        if (!NextLine(kMaxChunkLine, "a chunk's size line", &line)) break;
        if (!ChunkSize(line)) break;
        continue;
      case Part::kChunkEnd:
        if (!NextLine(kMaxChunkLine, "a chunk's end", &line)) break;
        if (!line.empty()) {
          Refuse(400, "malformed", "a chunk is longer than its size says");
          break;
        }
        part_ = Part::kChunkSize;
        continue;
      case Part::kTrailers:
        if (!NextLine(HeaderRoom(), "the request's trailers", &line)) break;
        header_bytes_ += line.size() + 2;
        if (line.empty()) part_ = Part::kDone;
        continue;
      case Part::kDone:
        return Progress::kDone;
    }
    return refusal_.status != 0 ? Progress::kRefused : Progress::kNeedMore;
  }
}

bool HttpRequestReader::RequestLine(const std::string& line) {
  const size_t first = line.find(' ');
  const size_t second = first == std::string::npos ? first : line.find(' ', first + 1);
  if (second == std::string::npos || line.find(' ', second + 1) != std::string::npos) {
    Refuse(400, "malformed", "the request line is not 'METHOD target HTTP/1.1'");
    return false;
  }
  request_.method = line.substr(0, first);
  request_.target = line.substr(first + 1, second - first - 1);
  const std::string version = line.substr(second + 1);
  if (!IsToken(request_.method) || request_.target.empty() || request_.target[0] != '/') {
    Refuse(400, "malformed", "the request line is not 'METHOD /path HTTP/1.1'");
    return false;
  }
  if (version != "HTTP/1.1" && version != "HTTP/1.0") {
    Refuse(version.rfind("HTTP/", 0) == 0 ? 505 : 400, "malformed", "this endpoint speaks HTTP/1.0 and HTTP/1.1");
    return false;
  }
  request_.keep_alive = version == "HTTP/1.1";
  const size_t query = std::min(request_.target.find('?'), request_.target.size());
  if (!Decode(request_.target.substr(0, query), false, &request_.path) ||
      (query < request_.target.size() && !DecodeQuery(request_.target.substr(query + 1), &request_.params))) {
    Refuse(400, "malformed", "the request's target has a broken %-escape");
    return false;
  }
  return true;
}

bool HttpRequestReader::HeaderLine(const std::string& line) {
  const size_t colon = line.find(':');
  if (colon == std::string::npos || !IsToken(line.substr(0, colon))) {
    // Folded lines (starting with a blank) are refused as well: they were
    // withdrawn from the protocol because servers read them differently.
    Refuse(400, "malformed", "a header line is not 'Name: value'");
    return false;
  }
  std::string value = line.substr(colon + 1);
  value.erase(0, value.find_first_not_of(" \t"));
  request_.headers.emplace_back(line.substr(0, colon), std::move(value));
  return true;
}

// Decides from the headers how the body comes and what the connection
// does after the answer.
bool HttpRequestReader::HeadEnded() {
  std::string length;
  bool has_length = false;
  for (const auto& [name, value] : request_.headers) {
    if (SameName(name, "Content-Length")) {
      // Two different lengths are how requests are smuggled past proxies.
      if (has_length && value != length) {
        Refuse(400, "malformed", "the request states two different lengths");
        return false;
      }
      has_length = true;
      length = value;
    } else if (SameName(name, "Connection")) {
      for (const std::string& word : Words(value)) {
        if (word == "close") request_.keep_alive = false;
        if (word == "keep-alive") request_.keep_alive = true;
      }
    } else if (SameName(name, "Expect")) {
      request_.expects_continue = Lower(value) == "100-continue";
    }
  }
  const bool has_encoding = request_.HasHeader("Transfer-Encoding");
  if (has_encoding && has_length) {
    Refuse(400, "malformed", "the request states both a length and a transfer encoding");
    return false;
  }
  if (has_encoding) {
    if (Words(request_.Header("Transfer-Encoding")) != std::vector<std::string>{"chunked"}) {
      Refuse(501, "malformed", "the only transfer encoding taken is 'chunked'");
      return false;
    }
    chunked_ = true;
    part_ = Part::kChunkSize;
    return true;
  }
  if (length.empty() && has_length) length = "x";
  if (length.find_first_not_of("0123456789") != std::string::npos || length.size() > 18) {
    Refuse(400, "malformed", "the request's Content-Length is not a number");
    return false;
  }
  // A request without a length has no body: reading to the end of the
  // connection is for answers only.
  body_left_ = length.empty() ? 0 : std::stoull(length);
  if (body_left_ > kMaxRequestBody) {
    Refuse(413, "body", "the request's body is longer than " + std::to_string(kMaxRequestBody) + " bytes");
    return false;
  }
  part_ = body_left_ > 0 ? Part::kBody : Part::kDone;
  return true;
}

bool HttpRequestReader::ChunkSize(const std::string& line) {
  const std::string digits = line.substr(0, line.find_first_of("; \t"));
  if (digits.empty() || digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
    Refuse(400, "malformed", "a chunk's size is not a hex number");
    return false;
  }
  const size_t room = kMaxRequestBody - request_.body.size();
  const size_t significant = digits.size() - std::min(digits.find_first_not_of('0'), digits.size());
  const size_t size = significant > 8 ? room + 1 : std::stoul(digits, nullptr, 16);
  if (size > room) {
    Refuse(413, "body", "the request's body is longer than " + std::to_string(kMaxRequestBody) + " bytes");
    return false;
  }
  body_left_ = size;
  part_ = size == 0 ? Part::kTrailers : Part::kChunkData;
  return true;
}

}  // namespace framework
