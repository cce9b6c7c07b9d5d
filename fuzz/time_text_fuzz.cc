// Date and time texts as users and other programs write them.
#include <cctype>
#include <cstdint>
#include <cstring>
#include <string>

#include "kvc/string_time.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);  // terminated, maybe with NULs inside
  for (const int length : {static_cast<int>(size), 0, static_cast<int>(size / 2)}) {
    char stamp[kvc::kTimeStampLength + 1 + 16];
    memset(stamp, 'Z', sizeof stamp);
    const int error = kvc::ToTimeStamp(text.c_str(), length, stamp);
    // The result, a stamp or an error text, always ends inside its 17 bytes.
    if (memchr(stamp, '\0', kvc::kTimeStampLength + 1) == nullptr) __builtin_trap();
    if (error == 0) {
      if (strlen(stamp) != kvc::kTimeStampLength) __builtin_trap();
      for (size_t i = 0; i < kvc::kTimeStampLength; ++i)
        if (!isdigit(static_cast<unsigned char>(stamp[i]))) __builtin_trap();
    }
  }
  platform::LocalTime time{};
  (void)kvc::StringToTime(text.c_str(), &time);
  return 0;
}
