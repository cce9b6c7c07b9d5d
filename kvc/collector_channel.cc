#include "kvc/collector_channel.h"

#include <utility>

#include "kvc/channel_dispatch.h"
#include "kvc/shared_memory_exchange.h"
#include "kvc/diagnostic_log.h"
#include "platform/clock.h"

namespace kvc {
namespace {

constexpr int kDataTries = 5;
// Without a caller's patience an exchange waits as long as a KVCCOMM call
// waits for the busy channel.
constexpr std::chrono::milliseconds kDefaultPatience{30000};
constexpr int kExchangeCode = 3;  // "get"

thread_local int t_patience_ms = 0;

std::time_t Now() { return static_cast<std::time_t>(platform::NowUnixSeconds()); }

}  // namespace

bool TimedLock::TakeWithin(int code, std::chrono::milliseconds wait) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (!freed_.wait_for(lock, wait, [this] { return holder_ == 0; })) return false;
  holder_ = code;
  return true;
}

void TimedLock::Give() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    holder_ = 0;
  }
  freed_.notify_one();
}

int TimedLock::Holder() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return holder_;
}

ChannelPatience::ChannelPatience(int millis) : previous_(t_patience_ms) { t_patience_ms = millis; }
ChannelPatience::~ChannelPatience() { t_patience_ms = previous_; }
int ChannelPatience::Current() { return t_patience_ms; }

CollectorChannel& SharedChannel() {
  static auto* channel = new CollectorChannel;
  return *channel;
}

void CollectorChannel::SetCollectorProbe(std::function<bool()> collector_running) {
  collector_running_ = std::move(collector_running);
}

bool CollectorChannel::CollectorKnownDown() const {
  const std::time_t unanswered = unanswered_at_;
  return unanswered != 0 && Now() - unanswered < kOutageRetrySeconds && collector_running_ && !collector_running_();
}

ChannelAnswer CollectorChannel::Exchange(const std::string& table, const std::string& session,
                                         const std::vector<std::string>& attributes) {
  if (CollectorKnownDown()) {
    ++skipped_;
    ChannelAnswer answer;
    answer.skipped = true;
    answer.failed_step = "GetData";
    answer.result = kCommTimeout;
    return answer;
  }
  const int patience = ChannelPatience::Current();
  const std::chrono::milliseconds wait = patience > 0 ? std::chrono::milliseconds(patience) : kDefaultPatience;
  if (!lock_.TakeWithin(kExchangeCode, wait)) {
    Log('w', "com0015", "kvccomm busy with call %d for more than %lld ms; call %d not made\n", lock_.Holder(),
        static_cast<long long>(wait.count()), kExchangeCode);
    ++busy_;
    ChannelAnswer answer;
    answer.busy = true;
    return answer;
  }
  ChannelAnswer answer = ExchangeHeld(table, session, attributes);
  if (answer.result == kCommTimeout)
    unanswered_at_ = Now();
  else if (answer.Succeeded())
    unanswered_at_ = 0;
  lock_.Give();
  return answer;
}

ChannelAnswer CollectorChannel::ExchangeHeld(const std::string& table, const std::string& session,
                                             const std::vector<std::string>& attributes) {
  ++exchanges_;
  ChannelAnswer answer;
  KVCCommObject* request = RequestEndpoint();
  KVCCommObject* data = DataEndpoint();
  if (request == nullptr || data == nullptr) {
    answer.unavailable = true;
    return answer;
  }
  const int wait_seconds = AgentWaitSeconds();
  const std::time_t started = Now();
  std::time_t expected = 0;
  last_success_.compare_exchange_strong(expected, started);
  ChannelWatchdog(last_success_);
  std::string unique;
  // The session identifier travels as the request's statement text.
  const std::string statement = session.empty() ? "" : "SPID=" + session;
  const int sent = request->SendRequest(table.c_str(), attributes, &unique,
                                        statement.empty() ? nullptr : statement.c_str(), wait_seconds);
  if (sent != kCommOk) {
    Fail("SendRequest", sent, &answer);
    return answer;
  }
  last_success_ = Now();
  if (ReceiveAnswer(data, wait_seconds, unique, started, &answer)) {
    if (!AcceptRows(table, &answer)) ++refused_;
  } else if (request->WithdrawRequest()) {
    // The collector never took the request: it would only be answered too
    // late, and would hold the area the next exchange needs.
    Log('w', "com2310", "Request for %s withdrawn: the collector did not take it within %d seconds\n", table.c_str(),
        wait_seconds);
  }
  return answer;
}

// Answers to earlier requests (a collector that fell behind) are skipped,
// up to five; the time they take comes out of the one wait.
bool CollectorChannel::ReceiveAnswer(KVCCommObject* data, int wait_seconds, const std::string& unique,
                                     std::time_t started, ChannelAnswer* answer) {
  std::string unique_back;
  for (int tries = 0; tries < kDataTries; ++tries) {
    const std::time_t spent = Now() - started;
    const int remaining = spent >= wait_seconds ? 0 : wait_seconds - static_cast<int>(spent);
    const int rc = data->GetData(unique.c_str(), &unique_back, &answer->numrow, &answer->lenrow, &answer->rows,
                                  remaining);
    if (rc < 0) {
      Fail("GetData", rc, answer);
      return false;
    }
    if (unique_back == unique) return true;
    ++late_;
    Log('i', "tsh0010", "Continue waiting...\n");
  }
  return true;
}

void CollectorChannel::Fail(const char* step, int result, ChannelAnswer* answer) {
  ++(result == kCommTimeout ? timeouts_ : failures_);
  answer->failed_step = step;
  answer->result = result;
  answer->numrow = 0;
  answer->lenrow = 0;
  answer->rows.clear();
}

bool AcceptRows(const std::string& table, ChannelAnswer* answer) {
  if (answer->numrow == 0) {
    answer->rows.clear();
    return true;
  }
  const int64_t needed = static_cast<int64_t>(answer->numrow) * answer->lenrow;
  if (answer->numrow > 0 && answer->lenrow > 0 && static_cast<uint64_t>(needed) <= answer->rows.size()) {
    answer->rows.resize(static_cast<size_t>(needed));
    return true;
  }
  Log('e', "com2300", "Answer to %s refused: %d rows of %d bytes claimed, %lld bytes received\n", table.c_str(),
      answer->numrow, answer->lenrow, static_cast<long long>(answer->rows.size()));
  answer->numrow = 0;
  answer->rows.clear();
  return false;
}

ChannelCounts CollectorChannel::Counts() const {
  ChannelCounts c;
  c.exchanges = exchanges_;
  c.timeouts = timeouts_;
  c.failures = failures_;
  c.refused = refused_;
  c.late = late_;
  c.busy = busy_;
  c.skipped = skipped_;
  const KVCCommObject* request = RequestEndpoint();
  const KVCCommObject* data = DataEndpoint();
  if (request != nullptr && data != nullptr) {
    c.abandoned = request->Abandoned() + data->Abandoned();
    c.repairs = request->Repairs() + data->Repairs();
  }
  return c;
}

}  // namespace kvc
