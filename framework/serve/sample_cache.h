// The last sample of every table, taken by the scheduler on an interval so
// that readers (a Prometheus scrape, the status page) never wait on the
// collector.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "framework/serve/sample_capture.h"

namespace framework {

struct CachedTable {
  std::shared_ptr<const CapturedSample> last;       // null before the first sample
  std::shared_ptr<const CapturedSample> last_good;  // the last sample that got its data
  uint64_t samples = 0;
  uint64_t failures = 0;  // samples that could not get their data, or whose request failed
};

class SampleCache {
 public:
  void Store(std::shared_ptr<const CapturedSample> sample, bool failed);
  // Every table sampled so far, by key.
  std::map<std::string, CachedTable> Snapshot() const;

 private:
  mutable std::mutex lock_;
  std::map<std::string, CachedTable> tables_;
};

// Samples every registered table in registration order, then waits the
// interval; the first round starts at once.
class SampleScheduler {
 public:
  SampleScheduler(SampleCache* cache, int interval_seconds) : cache_(cache), interval_(interval_seconds) {}
  ~SampleScheduler() { Stop(); }
  void Start();
  void Stop();
  // Samples every table once on the calling thread.
  void SampleAll();
  // The next sample comes `seconds` after the last one ended. Any thread.
  void SetInterval(int seconds);

 private:
  void Run();

  SampleCache* const cache_;
  int interval_;  // under lock_
  std::mutex lock_;
  std::condition_variable wake_;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace framework
