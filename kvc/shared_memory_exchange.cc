#include "kvc/shared_memory_exchange.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "kvc/ipc_security.h"
#include "kvc/debug_switches.h"
#include "kvc/string_time.h"
#include "kvc/diagnostic_log.h"
#include "kzq/instance_names.h"
#include "platform/clock.h"
#include "platform/environment.h"
#include "platform/error.h"
#include "platform/process.h"

namespace kvc {
namespace {

// How long a writer waits for the reader to finish the previous answer,
// looking often: a reader that gives up an answer marks it finished, and
// the next answer should follow at once, not at the next of 3-second looks.
constexpr uint64_t kReaderWaitMs = 60000;
constexpr uint32_t kReaderPollMs = 5;
// A data-pending time this far ahead of now is damage; it would keep a
// stuck answer from ever going stale.
constexpr int32_t kFutureSlackSeconds = 60;
constexpr int32_t kWatchdogSeconds = 180;
constexpr int32_t kDefaultStaleSeconds = 90;
constexpr int64_t kLargestReservation = 256LL << 20;
// Above the largest sample a table can hold (100000 rows of at most 3 KB).
constexpr int64_t kLargestAnswer = 512LL << 20;

bool Verbose() { return Debug().full_debug; }
bool DebugOn() { return Debug().debug; }

int32_t ReadInt(const unsigned char* view, size_t offset) {
  int32_t v;
  memcpy(&v, view + offset, sizeof v);
  return v;
}

void WriteInt(unsigned char* view, size_t offset, int32_t v) { memcpy(view + offset, &v, sizeof v); }

// A zero-filled field holding at most `chars` characters of `text`.
void WriteField(unsigned char* view, size_t offset, size_t width, size_t chars, const std::string& text) {
  memset(view + offset, 0, width);
  memcpy(view + offset, text.data(), text.size() < chars ? text.size() : chars);
}

std::string ReadField(const unsigned char* view, size_t offset, size_t width) {
  const char* p = reinterpret_cast<const char*>(view + offset);
  return std::string(p, strnlen(p, width));
}

int32_t StaleLimit() {
  static const int32_t limit = [] {
    const auto value = platform::GetEnv("COLL_DATA_STALE_SECONDS");
    const int n = value.has_value() ? atoi(value->c_str()) : 0;
    return n > 0 ? n : kDefaultStaleSeconds;
  }();
  return limit;
}

std::string NewUniqueName(const char* request) {
  static std::atomic<uint32_t> sequence{0};
  char unique[64];
  snprintf(unique, sizeof unique, "%.14s_%u_%u_%d", request, platform::CurrentProcessId(),
           ++sequence, AreaNow());
  return std::string(unique).substr(0, area::kReqUniqueWidth);
}

// Seconds from `then` to `now`, both as an area holds them. The peer wrote
// `then`, so it may be anything: the difference is taken in 64 bits, where
// it cannot overflow.
// An object another account made: refused by our check, or closed to us
// by its own mode or access list.
bool IsForeign(int error) { return error == platform::kErrInvalidOwner || error == platform::kErrAccessDenied; }

int64_t SecondsSince(int32_t then, int32_t now) { return static_cast<int64_t>(now) - then; }

uint32_t Millis(int timeout_seconds) {
  return timeout_seconds <= 0 ? 0 : static_cast<uint32_t>(timeout_seconds) * 1000;
}

}  // namespace

int32_t AreaNow() { return static_cast<int32_t>(platform::NowUnixSeconds() & 0xFFFFFFFF); }

KVCDataObject::KVCDataObject() : created_(static_cast<time_t>(platform::NowUnixSeconds())) {}

int KVCShareMemory::Open(const std::string& name, size_t size, const platform::ObjectAccess& access) {
  int error = 0;
  area_ = platform::OpenSharedArea(name, size, access, &error);
  existed_ = area_ != nullptr && error == platform::kErrAlreadyExists;
  return area_ != nullptr ? 0 : error;
}

ShareCommObject::ShareCommObject(AreaKind kind, const platform::ObjectAccess& access, size_t size,
                                 const std::string& area_name, const std::string& semaphore_stem,
                                 unsigned char* request_view)
    : kind_(kind), request_view_(request_view) {
  int error = memory_.Open(area_name, size, access);
  if (error != 0) {
    if (IsForeign(error)) {
      RefuseForeignObject(area_name);
    } else {
      Log('e', "nsh0001", "Failed to create file map, error# %d\n", error);
    }
    return;
  }
  const bool existed = memory_.Existed();
  view_ = memory_.View();
  avail_ = OpenSemaphore(semaphore_stem + "Avail", 1, access);
  fill_ = OpenSemaphore(semaphore_stem + "Fill", 0, access);
  if (kind_ == kRequestArea) {
    request_view_ = view_;
    if (!existed) {
      WriteInt(view_, area::kReqTimeout, area::kRequestTimeoutSeconds);
      WriteInt(view_, area::kReqReadIndex, 0);
      WriteInt(view_, area::kReqWriteIndex, 0);
      WriteInt(view_, area::kReqFinishWrite, AreaNow());
    }
    return;
  }
  WriteInt(view_, area::kDataReaderFinished, 1);
  if (!existed) {
    WriteInt(view_, area::kDataReadIndex, 0);
    WriteInt(view_, area::kDataWriteIndex, 0);
    if (request_view_ != nullptr) WriteInt(request_view_, area::kReqDataPending, AreaNow());
  } else if (avail_ != nullptr && fill_ != nullptr && request_view_ != nullptr) {
    // Each side has one process; a process that finds the channel already
    // there replaces one that ended, and an answer that process was writing
    // or reading can never be completed. Left alone, the half-written answer
    // would hold the area until it went stale (a minute and a half).
    ClearDataArea();
  }
}

ShareCommObject::~ShareCommObject() = default;

std::unique_ptr<platform::Semaphore> ShareCommObject::OpenSemaphore(const std::string& name, int initial,
                                                                    const platform::ObjectAccess& access) {
  int error = 0;
  auto semaphore = platform::OpenNamedSemaphore(name, initial, access, &error);
  if (IsForeign(error)) {
    RefuseForeignObject(name);
  } else if (semaphore == nullptr) {
    Log('e', "nlk0001", "Create semaphore failed, error# %d\n", error);
  }
  return semaphore;
}

// Another account's object could read every request and answer, or answer
// in the collector's place; the channel is never made with one.
void ShareCommObject::RefuseForeignObject(const std::string& name) {
  Log('e', "nsh0050",
      "The channel object %s belongs to another account or is open to every account; refused. Remove it, "
      "or run both programs under accounts the channel admits (KZQ_CHANNEL_ACCESS)\n",
      name.c_str());
}

bool ShareCommObject::IsValid() const { return memory_.IsOpen() && avail_ != nullptr && fill_ != nullptr; }

int ShareCommObject::WaitOn(platform::Semaphore* semaphore, int timeout) {
  const int rc = semaphore->Wait(Millis(timeout));
  if (rc == platform::kOk) return kCommOk;
  if (rc == platform::kErrTimeout) {
    if (DebugOn()) Log('i', "nlk0004", "Timeout when acquiring semaphore\n");
  } else {
    Log('e', "nlk0003", "Acquire semaphore failed, error# %d\n", rc);
  }
  return kCommTimeout;
}

int ShareCommObject::ReleaseFill(int kind, const char* failure_id, const char* failure_text) {
  const int rc = fill_->Release();
  if (rc == platform::kOk) return kCommOk;
  if (rc != platform::kErrTooManyPosts) Log('e', "nlk0002", "Release semaphore failed, error# %d\n", rc);
  Reset(kind);
  Log('e', failure_id, "%s", failure_text);
  return kCommFailed;
}

int ShareCommObject::SendRequest(const char* name, const std::vector<std::string>& attributes,
                                 std::string* unique, const char* statement, int timeout) {
  if (Verbose()) Log('t', "ush0280", "SendRequest(%s): %s, timeout=%d\n", FormatNow(nullptr, 1), name, timeout);
  *unique = NewUniqueName(name);
  if (WaitOn(avail_.get(), timeout) != kCommOk) {
    // No reader freed the area in the whole wait: what it holds is a request
    // no reader is serving any more, or a reader ended between taking the
    // request and freeing the area. Either way the area is cleared now, so
    // the next request goes through instead of waiting for the watchdog.
    Log('w', "nsh0042", "Request area not freed within %d seconds; cleared for the next request\n", timeout);
    Reset(kRequestArea);
    return kCommTimeout;
  }
  WriteField(view_, area::kReqName, area::kReqNameWidth, area::kReqNameChars, name);
  WriteField(view_, area::kReqUnique, area::kReqUniqueWidth, area::kReqUniqueWidth, *unique);
  // Written every time: a session id left from an earlier request would
  // make a collector that honours it answer for the wrong session. Only
  // what the last statement used is cleared, not the whole 30000 bytes:
  // readers stop at the terminator, and clearing the rest on every request
  // cost more than the rest of the exchange.
  const std::string text = statement != nullptr ? statement : "";
  const size_t used = strnlen(reinterpret_cast<const char*>(view_ + area::kReqStatement), area::kReqStatementWidth);
  WriteField(view_, area::kReqStatement, std::max(used, text.size()) + 1 > area::kReqStatementWidth
                                             ? area::kReqStatementWidth
                                             : std::max(used, text.size()) + 1,
             area::kReqStatementWidth - 1, text);
  memset(view_ + area::kReqAttributes, 0, area::kAttributeSlots * area::kAttributeSlotWidth);
  for (size_t i = 0; i < attributes.size() && i < area::kAttributeSlots; ++i)
    WriteField(view_, area::kReqAttributes + i * area::kAttributeSlotWidth, area::kAttributeSlotWidth,
               area::kAttributeSlotWidth - 1, attributes[i]);
  // The limit goes with every request: the area outlives both processes,
  // and a value damaged once would otherwise have every later request
  // refused as late. It is how long this requester waits, so the
  // collector drops a request, or an answer, nobody waits for any more.
  WriteInt(view_, area::kReqTimeout,
           timeout > 0 && timeout <= area::kLongestRequestTimeout ? timeout : area::kRequestTimeoutSeconds);
  RepairField(view_, area::kReqReadIndex, "request read index", 0, 0, 0);
  RepairField(view_, area::kReqWriteIndex, "request write index", 0, 0, 0);
  WriteInt(view_, area::kReqFinishWrite, AreaNow());
  if (ReleaseFill(kRequestArea, "nsh0002", "Failed to release Filled semaphore\n") != kCommOk) return kCommFailed;
  if (Verbose())
    Log('t', "ush0290", "It's %s. Finish sending request to share memory, Unique=%s\n", FormatNow(nullptr, 1),
        unique->c_str());
  return kCommOk;
}

int ShareCommObject::GetRequest(std::string* name, std::string* unique, std::vector<std::string>* attributes,
                                std::string* statement, int timeout) {
  if (Verbose()) Log('t', "ush0300", "GetRequest(%s): Entering, timeout=%d\n", FormatNow(nullptr, 1), timeout);
  if (WaitOn(fill_.get(), timeout) != kCommOk) {
    if (Verbose() || DebugOn()) Log('e', "nsh0003", "Failed to acquire Filled semaphore within timeout limit\n");
    return kCommTimeout;
  }
  *unique = ReadField(view_, area::kReqUnique, area::kReqUniqueWidth);
  *name = ReadField(view_, area::kReqName, area::kReqNameWidth);
  attributes->clear();
  for (size_t i = 0; i < area::kAttributeSlots; ++i) {
    const size_t slot = area::kReqAttributes + i * area::kAttributeSlotWidth;
    if (view_[slot] != 0) attributes->push_back(ReadField(view_, slot, area::kAttributeSlotWidth));
  }
  statement->clear();
  if (view_[area::kReqStatement] != 0) *statement = ReadField(view_, area::kReqStatement, area::kReqStatementWidth);
  const int32_t finished = ReadInt(view_, area::kReqFinishWrite);
  const int32_t limit = RepairField(view_, area::kReqTimeout, "request time-out", 1, area::kLongestRequestTimeout,
                                    area::kRequestTimeoutSeconds);
  // The slot is freed only after the drain: freed first, a request the agent
  // wrote in between would be drained with the one just read, and lost.
  Reset(kRequestArea);
  const int32_t now = AreaNow();
  if (SecondsSince(finished, now) > limit) {
    Log('e', "nsh0012", "It's %s. Request '%s' received too late to process(now:%d, finish write:%d, timeout:%d)\n",
        FormatNow(nullptr, 1), unique->c_str(), now, finished, limit);
    return kCommFailed;
  }
  if (Verbose())
    Log('t', "ush0320", "GetRequest(%s): Leaving, unique=%s, timeout=%d\n", FormatNow(nullptr, 1), unique->c_str(),
        timeout);
  return kCommOk;
}

int32_t ShareCommObject::RepairField(unsigned char* view, size_t offset, const char* name, int32_t low,
                                     int32_t high, int32_t repaired) {
  const int32_t value = ReadInt(view, offset);
  if (value >= low && value <= high) return value;
  Log('w', "nsh0045", "Channel header field '%s' held %d, outside %d..%d; repaired to %d\n", name, value, low, high,
      repaired);
  WriteInt(view, offset, repaired);
  ++repairs_;
  return repaired;
}

bool ShareCommObject::ReaderGaveUp() const { return ReadInt(view_, area::kDataReaderFinished) == 1; }

bool ShareCommObject::CleanStaleData() {
  const int32_t now = AreaNow();
  if (ReadInt(request_view_, area::kReqDataPending) != -1)
    RepairField(request_view_, area::kReqDataPending, "data-pending time", INT32_MIN, now + kFutureSlackSeconds, now);
  const int32_t pending = ReadInt(request_view_, area::kReqDataPending);
  if (pending == -1 || SecondsSince(pending, AreaNow()) <= StaleLimit()) return false;
  if (Verbose()) {
    const std::string unique = ReadField(view_, area::kDataUnique, area::kDataUniqueWidth);
    Log('t', "nsh0011", "It's %s. Data for cursor %s are cleaned\n", FormatNow(nullptr, 1), unique.c_str());
    Log('t', "nsh0011", "It's %s. SendData: Data for cursor %s is cleaned\n", FormatNow(nullptr, 1), unique.c_str());
  }
  ClearDataArea();
  return true;
}

// The flag and the pending time are set before Reset frees the area: a
// writer that takes the area next sees the answer it was writing marked
// finished, and stops.
void ShareCommObject::ClearDataArea() {
  WriteInt(view_, area::kDataReadIndex, 0);
  WriteInt(view_, area::kDataWriteIndex, 0);
  WriteInt(view_, area::kDataChunkBytes, 0);
  WriteInt(view_, area::kDataReaderFinished, 1);
  WriteInt(request_view_, area::kReqDataPending, -1);
  Reset(kDataArea);
}

int ShareCommObject::SendData(const char* unique, int32_t rows, int32_t length, const char* bytes, int timeout) {
  const int32_t now = AreaNow();
  const int32_t finished = ReadInt(request_view_, area::kReqFinishWrite);
  const int32_t limit = ReadInt(request_view_, area::kReqTimeout);
  if (SecondsSince(finished, now) > limit) {
    Log('e', "nsh0013", "Data for Request '%s' are too late to send(%d, %d, %d)\n", unique, now, finished, limit);
    return kCommOk;
  }
  CleanStaleData();
  if (Verbose()) {
    Log('t', "ush0340", "SendData(%s): Entering, timeout=%d\n", FormatNow(nullptr, 1), timeout);
    if (unique == nullptr || *unique == '\0') {
      Log('e', "nsh0007", "Unique name is not supplied\n");
      return kCommFailed;
    }
  }
  const int64_t total = static_cast<int64_t>(rows) * length;
  const char* source = total > 0 ? bytes : area::kEmptyAnswer;
  int64_t remaining = total > 0 ? total : static_cast<int64_t>(strlen(area::kEmptyAnswer));
  RepairField(view_, area::kDataReaderFinished, "reader-finished flag", 0, 1, 1);
  const uint64_t give_up = platform::MonotonicMillis() + kReaderWaitMs;
  while (ReadInt(view_, area::kDataReaderFinished) == 0 && platform::MonotonicMillis() < give_up)
    platform::SleepMillis(kReaderPollMs);
  if (ReadInt(view_, area::kDataReaderFinished) == 0 && Verbose())
    Log('t', "ush0350", "Reader should already finish read now!\n");
  WriteInt(view_, area::kDataReaderFinished, 0);
  bool first = true;
  while (remaining > 0) {
    if (WaitOn(avail_.get(), timeout) != kCommOk) {
      Log('e', "nsh0003", "Failed to acquire Available semaphore\n");
      if (!CleanStaleData()) return kCommTimeout;
      WriteInt(view_, area::kDataReaderFinished, 0);  // the area is this writer's again
      continue;
    }
    if (ReaderGaveUp()) {
      // The reader stopped waiting for this answer and cleared the area:
      // the rest would only be taken for the start of the next answer.
      Log('w', "nsh0044", "Answer %s given up by its reader; %lld bytes not sent\n", unique ? unique : "",
          static_cast<long long>(remaining));
      ++abandoned_;
      const int rc = avail_->Release();
      if (rc != platform::kOk && rc != platform::kErrTooManyPosts)
        Log('e', "nlk0002", "Release semaphore failed, error# %d\n", rc);
      return kCommTimeout;
    }
    if (first) {
      WriteField(view_, area::kDataUnique, area::kDataUniqueWidth, area::kDataUniqueChars, unique ? unique : "");
      WriteInt(view_, area::kDataRows, rows);
      WriteInt(view_, area::kDataRowLength, length);
      first = false;
    }
    const size_t chunk = static_cast<size_t>(remaining < static_cast<int64_t>(area::kChunk) ? remaining : area::kChunk);
    // Only the chunk is written: a reader takes no more than the bytes the
    // chunk-bytes field counts, so clearing the rest of the payload (97 KB
    // behind a one-row answer) cost more than the whole exchange and
    // protected nothing.
    memcpy(view_ + area::kDataPayload, source, chunk);
    WriteInt(view_, area::kDataChunkBytes, static_cast<int32_t>(chunk));
    source += chunk;
    remaining -= static_cast<int64_t>(chunk);
    WriteInt(view_, area::kDataWriteIndex, 0);
    WriteInt(request_view_, area::kReqDataPending, AreaNow());
    if (ReleaseFill(kDataArea, "nsh0004", "Failed to Release Filled semaphore\n") != kCommOk) return kCommFailed;
  }
  if (Verbose())
    Log('t', "ush0360", "SendData(%s): Leaving, unique=%s, numrow=%d, lenrow=%d\n", FormatNow(nullptr, 1), unique,
        rows, length);
  return kCommOk;
}

int ShareCommObject::GetData(const char* expected_unique, std::string* unique, int32_t* rows, int32_t* length,
                             std::string* bytes, int timeout) {
  if (Verbose()) Log('t', "ush0370", "GetData(%s): Entering, timeout=%d\n", FormatNow(nullptr, 1), timeout);
  bytes->clear();
  RepairField(view_, area::kDataReaderFinished, "reader-finished flag", 0, 1, 1);
  int64_t remaining = 1;
  bool first = true;
  bool other_request = false;
  while (remaining >= 1) {
    if (WaitOn(fill_.get(), timeout) != kCommOk) {
      // Given up: the area is marked finished, so the collector stops
      // writing this answer and the next one goes through at once.
      if (!first) {
        Log('w', "nsh0043", "Answer %s given up after %lld bytes\n", unique->c_str(),
            static_cast<long long>(bytes->size()));
        ++abandoned_;
      }
      ClearDataArea();
      return kCommTimeout;
    }
    if (first) {
      *unique = ReadField(view_, area::kDataUnique, area::kDataUniqueWidth);
      const std::string expected = expected_unique != nullptr ? expected_unique : "";
      other_request = *unique != expected;
      if (other_request) Log('w', "nsh0014", "Get Data for %s, not for %s\n", unique->c_str(), expected.c_str());
      *rows = ReadInt(view_, area::kDataRows);
      *length = ReadInt(view_, area::kDataRowLength);
      const int64_t total = static_cast<int64_t>(*rows) * *length;
      // A negative product, or one beyond any real answer, is garbage from
      // the writer: read what one chunk holds, and the receiver refuses
      // the rows the bytes do not cover.
      const bool garbage = total < 0 || total > kLargestAnswer;
      if (garbage) Log('e', "nsh0041", "Answer of %d rows of %d bytes is not believed\n", *rows, *length);
      remaining = total == 0 ? static_cast<int64_t>(strlen(area::kEmptyAnswer)) : (garbage ? 1 : total);
      // One allocation for the whole answer instead of a copy per doubling;
      // a size beyond any real answer is not trusted with an allocation.
      if (remaining <= kLargestReservation) bytes->reserve(static_cast<size_t>(remaining));
      first = false;
    }
    const size_t chunk = static_cast<size_t>(remaining < static_cast<int64_t>(area::kChunk) ? remaining : area::kChunk);
    // Only the bytes the writer says it put here: a header that counts more
    // rows than were sent then falls short, and the rows are refused
    // instead of padded with whatever the area held.
    const int32_t written = ReadInt(view_, area::kDataChunkBytes);
    WriteInt(view_, area::kDataChunkBytes, 0);
    const size_t taken = written <= 0 ? 0 : std::min(chunk, static_cast<size_t>(written));
    bytes->append(reinterpret_cast<const char*>(view_ + area::kDataPayload), taken);
    remaining -= static_cast<int64_t>(chunk);
    WriteInt(view_, area::kDataReadIndex, 0);
    // An answer to another request is not waited for past its first chunk:
    // its writer may have stopped, and the answer that is wanted follows.
    if (remaining < 1 || other_request) break;
    const int rc = avail_->Release();
    if (rc != platform::kOk) {
      if (rc != platform::kErrTooManyPosts) Log('e', "nlk0002", "Release semaphore failed, error# %d\n", rc);
      Log('e', "nsh0006", "Failed to release Available semaphore\n");
      break;
    }
  }
  ClearDataArea();
  if (Verbose())
    Log('t', "ush0380", "GetData(%s): get unique=%s, numrow=%d, lenrow=%d\n", FormatNow(nullptr, 1), unique->c_str(),
        *rows, *length);
  return kCommOk;
}

// Drains a Fill left posted, then frees the area. In this order a writer
// cannot post between the two and have its post drained: while the area
// is not free no writer posts. The drain only tries: a 100 ms wait here
// would add itself to every round trip.
void ShareCommObject::Reset(int) {
  if (DebugOn()) Log('i', "nsh0036", "Resetting Semaphore...\n");
  const int drained = fill_->Wait(0);
  if (drained == platform::kErrTimeout) {
    if (DebugOn()) Log('i', "nlk0004", "Timeout when acquiring semaphore\n");
  } else if (drained != platform::kOk) {
    Log('e', "nlk0003", "Acquire semaphore failed, error# %d\n", drained);
  }
  const int rc = avail_->Release();
  if (rc != platform::kOk && rc != platform::kErrTooManyPosts)
    Log('e', "nlk0002", "Release semaphore failed, error# %d\n", rc);
}

// Taking Fill makes this side the area's reader for a moment: only then
// is it freed. When the collector took Fill first, it is reading the
// request and frees the area itself.
bool ShareCommObject::WithdrawRequest() {
  if (fill_->Wait(0) != platform::kOk) return false;
  const int rc = avail_->Release();
  if (rc != platform::kOk && rc != platform::kErrTooManyPosts)
    Log('e', "nlk0002", "Release semaphore failed, error# %d\n", rc);
  return true;
}

int KVCThreadCommObject::SendRequest(const char* name, const std::vector<std::string>& attributes,
                                     std::string* unique, const char* statement, int) {
  KVCRequest request;
  request.name = name;
  request.unique = NewUniqueName(name);
  request.statement = statement != nullptr ? statement : "";
  request.attributes = attributes;
  *unique = request.unique;
  request_lock_.Acquire();
  requests_.push_back(std::move(request));
  request_lock_.Release();
  return kCommOk;
}

int KVCThreadCommObject::GetRequest(std::string* name, std::string* unique, std::vector<std::string>* attributes,
                                    std::string* statement, int timeout) {
  if (Verbose() || DebugOn()) Log('t', "ush0100", "GetRequest, timeout=%d\n", timeout);
  request_lock_.Acquire();
  if (requests_.empty()) {
    request_lock_.Release();
    unique->clear();
    return kCommFailed;
  }
  KVCRequest request = std::move(requests_.front());
  requests_.pop_front();
  request_lock_.Release();
  *name = request.name;
  *unique = request.unique;
  *attributes = request.attributes;
  *statement = request.statement;
  if (Verbose() || DebugOn()) Log('t', "ush0110", "Leaving GetRequest\n");
  return kCommOk;
}

int KVCThreadCommObject::SendData(const char* unique, int32_t rows, int32_t length, const char* bytes, int) {
  if ((Verbose() || DebugOn()) && (unique == nullptr || *unique == '\0')) {
    Log('e', "tsh0001", "Unique name is not supplied\n");
    return kCommFailed;
  }
  KVCDataRow answer;
  answer.unique = unique != nullptr ? unique : "";
  answer.numrow = rows;
  answer.lenrow = length;
  if (rows >= 1 && length > 0) answer.rows.assign(bytes, static_cast<size_t>(rows) * static_cast<size_t>(length));
  data_lock_.Acquire();
  answers_.push_back(std::move(answer));
  data_lock_.Release();
  return kCommOk;
}

int KVCThreadCommObject::GetData(const char*, std::string* unique, int32_t* rows, int32_t* length,
                                 std::string* bytes, int) {
  data_lock_.Acquire();
  if (answers_.empty()) {
    data_lock_.Release();
    return kCommTimeout;
  }
  KVCDataRow answer = std::move(answers_.front());
  answers_.pop_front();
  data_lock_.Release();
  *unique = answer.unique;
  *rows = answer.numrow;
  *length = answer.lenrow;
  *bytes = answer.numrow >= 1 ? std::move(answer.rows) : std::string(area::kEmptyAnswer);
  return kCommOk;
}

namespace {

struct Channel {
  std::unique_ptr<ShareCommObject> request;
  std::unique_ptr<ShareCommObject> data;
  bool console = false;
};

// Never destroyed: the exit routine shuts the channel after static
// objects have been torn down.
Channel& TheChannel() {
  static auto* channel = new Channel;
  return *channel;
}

}  // namespace

std::vector<std::string> ChannelObjectNames(const std::string& prefix) {
  return {prefix + "KVCReqShm",  prefix + "KVCReqSemAvail",  prefix + "KVCReqSemFill",
          prefix + "KVCDataShm", prefix + "KVCDataSemAvail", prefix + "KVCDataSemFill"};
}

namespace {

// The channel admits only the instance's two programs: their accounts when
// both share the kzq group (Linux) or are the services' own (Windows).
// KZQ_CHANNEL_ACCESS=open opens it to every local account, for
// installations that run the two under accounts with nothing in common.
platform::ObjectAccess ChannelObjectAccess() {
  platform::ObjectAccess access;
  access.open = platform::GetEnv("KZQ_CHANNEL_ACCESS").value_or("") == "open";
  access.group = "kzq";
  access.services = {kzq::CollectorServiceName(), kzq::AgentServiceName()};
  return access;
}

}  // namespace

int CreateObjects(const std::string& prefix) {
  Channel& c = TheChannel();
  if (!c.console) {
    platform::SecurityDescriptor* open = nullptr;
    if (CreateOpenDescriptor(&open) != 0) {
      Log('e', "ntp0100", "Error: Unable to create security descriptor.\n");
      return 0;
    }
  }
  const platform::ObjectAccess access = ChannelObjectAccess();
  c.request = std::make_unique<ShareCommObject>(kRequestArea, access, area::kRequestSize, prefix + "KVCReqShm",
                                                prefix + "KVCReqSem", nullptr);
  if (!c.request->IsValid()) Log('e', "nsh0012", "Failed to create Request object\n");
  c.data = std::make_unique<ShareCommObject>(kDataArea, access, area::kDataSize, prefix + "KVCDataShm",
                                             prefix + "KVCDataSem", c.request->View());
  if (!c.data->IsValid()) Log('e', "nsh0013", "Failed to create Data object\n");
  return c.request->IsValid() && c.data->IsValid() ? 1 : 0;
}

int InitShareMemory(const char* first, const char* second) {
  Channel& c = TheChannel();
  if (c.request != nullptr && c.data != nullptr) return 0;
  const std::string prefix = std::string(first ? first : "") + "_" + (second ? second : "");
  if (CreateObjects(prefix) == 1) return 0;
  Log('e', "ush0033", "Failed to initialize share memory and semaphore\n");
  DestroyShareMemory();
  return -1;
}

void DestroyShareMemory() {
  Channel& c = TheChannel();
  c.data.reset();
  c.request.reset();
}

KVCCommObject* RequestEndpoint() { return TheChannel().request.get(); }
KVCCommObject* DataEndpoint() { return TheChannel().data.get(); }

void SetChannelConsoleMode(bool console) { TheChannel().console = console; }

void ChannelWatchdog(time_t last_success) {
  Channel& c = TheChannel();
  const int32_t now = AreaNow();
  if (Verbose()) Log('t', "ush0420", "Time now:%d, last succeed:%d\n", now, static_cast<int32_t>(last_success));
  if (now - static_cast<int32_t>(last_success) <= kWatchdogSeconds || c.request == nullptr || c.data == nullptr)
    return;
  Log('i', "ush0430", "Reseting semaphores...\n");
  c.request->Reset(kRequestArea);
  c.data->Reset(kDataArea);
}

}  // namespace kvc
