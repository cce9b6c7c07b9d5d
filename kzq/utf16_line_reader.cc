#include "kzq/utf16_line_reader.h"

#include <algorithm>
#include <cstring>

namespace kzq {

Utf16LineReader::Utf16LineReader(FILE* file, size_t buffer_bytes)
    : file_(file), buffer_(std::max<size_t>(buffer_bytes, 2)) {
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
  memmove(buffer_.data(), buffer_.data() + begin_, kept);
  buffer_offset_ += static_cast<long>(begin_);
  begin_ = 0;
  end_ = kept;
  if (feof(file_)) fseek(file_, buffer_offset_ + static_cast<long>(end_), SEEK_SET);
  end_ += fread(buffer_.data() + end_, 1, buffer_.size() - end_, file_);
  return end_ >= 2;
}

// Appends the buffered units up to and including a line feed, stopping at
// `limit` units on the line. True when a line feed ended the line.
bool Utf16LineReader::TakeUnits(std::u16string* line, size_t limit) {
  const unsigned char* bytes = buffer_.data() + begin_;
  const size_t count = std::min((end_ - begin_) / 2, limit - line->size());
  size_t n = 0;
  bool ended = false;
  while (n < count && !ended) {
    ended = bytes[2 * n] == '\n' && bytes[2 * n + 1] == 0;
    ++n;
  }
  const size_t old_size = line->size();
  line->resize(old_size + n);
  char16_t* out = line->data() + old_size;
  for (size_t i = 0; i < n; ++i) out[i] = static_cast<char16_t>(bytes[2 * i] | (bytes[2 * i + 1] << 8));
  begin_ += 2 * n;
  return ended;
}

}  // namespace kzq
