// Collapses a run of one line in a log: a failure that repeats every
// second would otherwise bury everything else. The first copy is written;
// later copies are counted, and the count is written once a different line
// comes, or once a minute while the run goes on.
//
// Not locked: each writer calls it under the lock that orders its lines.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kvc {

class RepeatedLines {
 public:
  static constexpr uint64_t kSummaryEveryMs = 60000;

  struct Verdict {
    bool write_line = true;  // false: a repeat, counted
    int repeats = 0;         // when > 0, say first how often the line before came again
  };

  Verdict Check(std::string_view line, uint64_t now_ms) {
    Verdict verdict;
    if (line == last_ && !last_.empty()) {
      verdict.write_line = false;
      ++repeats_;
      if (now_ms - summarised_ms_ < kSummaryEveryMs) return verdict;
    } else {
      last_.assign(line);
    }
    verdict.repeats = repeats_;
    repeats_ = 0;
    summarised_ms_ = now_ms;
    return verdict;
  }

 private:
  std::string last_;
  int repeats_ = 0;
  uint64_t summarised_ms_ = 0;
};

}  // namespace kvc
