// Helpers the fuzz targets share: the fuzzer's bytes as a file the real
// reader can open, or as UTF-16 units.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

namespace fuzz {

// A directory of this process's own, made once; the targets rewrite the
// same few files in it for every input.
inline const std::string& ScratchDir() {
  static const std::string dir = [] {
    char pattern[] = "/tmp/kzq-fuzz-XXXXXX";
    const char* made = mkdtemp(pattern);
    if (made == nullptr) abort();
    return std::string(made);
  }();
  return dir;
}

// Replaces the file `name` in the scratch directory with `data`; its path.
inline std::string WriteScratchFile(const char* name, const uint8_t* data, size_t size) {
  const std::string path = ScratchDir() + "/" + name;
  FILE* file = fopen(path.c_str(), "wb");
  if (file == nullptr) abort();
  if (size > 0 && fwrite(data, 1, size, file) != size) abort();
  fclose(file);
  return path;
}

// The bytes as little-endian 16-bit units; an odd last byte is dropped.
inline std::u16string Utf16Units(const uint8_t* data, size_t size) {
  std::u16string units(size / 2, u'\0');
  for (size_t i = 0; i < units.size(); ++i)
    units[i] = static_cast<char16_t>(data[2 * i] | (data[2 * i + 1] << 8));
  return units;
}

}  // namespace fuzz
