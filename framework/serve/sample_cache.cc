#include "framework/serve/sample_cache.h"

#include <chrono>

#include "framework/request.h"
#include "framework/table_manager.h"

namespace framework {

void SampleCache::Store(std::shared_ptr<const CapturedSample> sample, bool failed) {
  std::lock_guard<std::mutex> guard(lock_);
  CachedTable& table = tables_[sample->table];
  ++table.samples;
  if (failed) ++table.failures;
  else table.last_good = sample;
  table.last = std::move(sample);
}

std::map<std::string, CachedTable> SampleCache::Snapshot() const {
  std::lock_guard<std::mutex> guard(lock_);
  return tables_;
}

void SampleScheduler::SampleAll() {
  for (TableManager* manager : TableManager::Registered()) {
    {
      std::lock_guard<std::mutex> guard(lock_);
      if (stopping_) return;
    }
    auto sample = std::make_shared<CapturedSample>();
    const int result = CaptureReportSample(manager->Table(), nullptr, sample.get());
    sample->table = manager->Table();
    cache_->Store(sample, result != kRequestOk || sample->sample_result != 0 || !sample->failure.empty());
  }
}

void SampleScheduler::Start() {
  std::lock_guard<std::mutex> guard(lock_);
  if (thread_.joinable()) return;
  stopping_ = false;
  thread_ = std::thread([this] { Run(); });
}

void SampleScheduler::Stop() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
}

void SampleScheduler::SetInterval(int seconds) {
  {
    std::lock_guard<std::mutex> guard(lock_);
    interval_ = seconds;
  }
  wake_.notify_all();
}

void SampleScheduler::Run() {
  for (;;) {
    SampleAll();
    const auto ended = std::chrono::steady_clock::now();
    std::unique_lock<std::mutex> guard(lock_);
    // Woken by a new interval, the wait goes on to the new due time.
    while (!stopping_ && std::chrono::steady_clock::now() < ended + std::chrono::seconds(interval_))
      wake_.wait_until(guard, ended + std::chrono::seconds(interval_));
    if (stopping_) return;
  }
}

}  // namespace framework
