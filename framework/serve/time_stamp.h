// The rows' 16-character time stamps (CYYMMDDHHMMSSmmm, local time of the
// agent's host: century digit 0 for 19xx, 1 for 20xx) as moments.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace framework {

struct StampMoment {
  int64_t unix_seconds = 0;
  int millisecond = 0;
  int utc_offset_seconds = 0;  // of the local time the stamp was written in
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
};

// The moment a stamp names; nothing when the text is no valid stamp (the
// all-zero stamp that stands for "no time" included).
std::optional<StampMoment> ReadTimeStamp(std::string_view text);

// "2026-11-23T18:29:47.000+01:00": the stamp's local time and its offset.
std::string Iso8601(const StampMoment& moment);

}  // namespace framework
