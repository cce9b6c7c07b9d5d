#include "kzq/utf16_line_reader.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace kzq {
namespace {

// How many of the `count` units at `bytes` go up to and including the
// first line feed (all of them when there is none). The line feed's low
// byte is searched for as a byte, many at a time; found at an odd offset
// it is the high byte of some other unit.
size_t UnitsThroughLineFeed(const unsigned char* bytes, size_t count, bool* ended) {
  const unsigned char* const end = bytes + 2 * count;
  for (const unsigned char* at = bytes; at < end;) {
    const auto* hit = static_cast<const unsigned char*>(memchr(at, '\n', static_cast<size_t>(end - at)));
    if (hit == nullptr) break;
    const size_t offset = static_cast<size_t>(hit - bytes);
    if (offset % 2 == 0 && bytes[offset + 1] == 0) {
      *ended = true;
      return offset / 2 + 1;
    }
    at = hit + 1;
  }
  return count;
}

}  // namespace

Utf16LineReader::Utf16LineReader(FILE* file, size_t buffer_bytes)
    : file_(file), buffer_(std::max<size_t>((buffer_bytes + 1) / 2, 1)) {
  const long at = ftell(file_);
  buffer_offset_ = at < 0 ? 0 : at;
}

bool Utf16LineReader::ReadLine(std::u16string* line, size_t max_units) {
  line->clear();
  if (max_units < 2) return false;
  const size_t limit = max_units - 1;
  while (line->size() < limit) {
    if (end_ - begin_ < 2 && !Refill()) break;
    if (TakeUnits(line, limit)) break;
  }
  return !line->empty();
}

bool Utf16LineReader::Seek(long byte_offset) {
  if (fseek(file_, byte_offset, SEEK_SET) != 0) return false;
  buffer_offset_ = byte_offset;
  begin_ = end_ = 0;
  return true;
}

// Keeps the unread bytes (at most half a unit) and reads behind them. After
// the end of the file was reached the file is positioned again, which
// clears the end and lets every C library see text appended since.
bool Utf16LineReader::Refill() {
  const size_t kept = end_ - begin_;
  memmove(Bytes(), Bytes() + begin_, kept);
  buffer_offset_ += static_cast<long>(begin_);
  begin_ = 0;
  end_ = kept;
  if (feof(file_)) fseek(file_, buffer_offset_ + static_cast<long>(end_), SEEK_SET);
  end_ += fread(Bytes() + end_, 1, 2 * buffer_.size() - end_, file_);
  return end_ >= 2;
}

// Appends the buffered units up to and including a line feed, stopping at
// `limit` units on the line. True when a line feed ended the line.
bool Utf16LineReader::TakeUnits(std::u16string* line, size_t limit) {
  // The file's units are little-endian, as on every host the agent runs on:
  // they are copied as they are.
  static_assert(std::endian::native == std::endian::little);
  const size_t count = std::min((end_ - begin_) / 2, limit - line->size());
  bool ended = false;
  const size_t n = UnitsThroughLineFeed(Bytes() + begin_, count, &ended);
  line->append(buffer_.data() + begin_ / 2, n);
  begin_ += 2 * n;
  return ended;
}

}  // namespace kzq
