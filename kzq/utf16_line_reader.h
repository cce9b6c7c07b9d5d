// Reading UTF-16LE text line by line from a file opened "rb", in 16-bit
// units and through a large buffer of its own, while still knowing the exact
// byte position of the next unread unit (the errorlog monitor resumes from
// it).
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

namespace kzq {

class Utf16LineReader {
 public:
  static constexpr size_t kDefaultBufferBytes = 64 * 1024;

  // Reads from the file's current position; the file stays the caller's.
  // The buffer holds whole units: an odd size in bytes is rounded up to
  // the next whole unit.
  explicit Utf16LineReader(FILE* file, size_t buffer_bytes = kDefaultBufferBytes);

  // Replaces `line` with the units up to and including the next line feed,
  // or with the first max_units - 1 units when the line is longer (the rest
  // comes with the next call). False when nothing could be read: end of
  // file, a read error, or a limit below 2. A last line without a line feed
  // is returned as it stands; a lone byte at the end of the file is not a
  // unit and is never returned. A byte-order mark is returned as a unit.
  bool ReadLine(std::u16string* line, size_t max_units);

  // The byte offset of the next unread unit.
  long Tell() const { return buffer_offset_ + static_cast<long>(begin_); }
  // Reads from `byte_offset` next; false (and nothing changed) when the
  // file cannot be positioned there.
  bool Seek(long byte_offset);

 private:
  bool Refill();
  bool TakeUnits(std::u16string* line, size_t limit);

  unsigned char* Bytes() { return reinterpret_cast<unsigned char*>(buffer_.data()); }

  FILE* file_;
  // Held as units so that whole units are copied out of it as they are;
  // read into and counted in bytes, as a unit may come in two reads.
  std::vector<char16_t> buffer_;
  size_t begin_ = 0;        // the next unread byte in the buffer (always a unit's first)
  size_t end_ = 0;          // one past the last byte read into the buffer
  long buffer_offset_ = 0;  // the file offset of buffer_[0]
};

}  // namespace kzq
