// The shared-memory exchange between agent and collector: a request area
// and a data area, each with an "Avail" and a "Fill" semaphore of maximum
// count 1. The agent writes requests and reads data; the collector reads
// requests and writes data. Byte layouts are the collector contract and
// must not change.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/security.h"
#include "platform/semaphore.h"
#include "platform/shared_memory.h"

namespace kvc {

// Results of the transfer operations.
inline constexpr int kCommOk = 0;
inline constexpr int kCommFailed = -1;
inline constexpr int kCommTimeout = -10;

enum AreaKind : int { kRequestArea = 0, kDataArea = 1 };

namespace area {
// Request area (sizes and offsets in bytes).
inline constexpr size_t kRequestSize = 30600;  // the fields past it live in the page rounding
inline constexpr size_t kReqReadIndex = 4;
inline constexpr size_t kReqWriteIndex = 8;
inline constexpr size_t kReqName = 12;
inline constexpr size_t kReqNameWidth = 15;
inline constexpr size_t kReqNameChars = 14;
inline constexpr size_t kReqUnique = 27;
inline constexpr size_t kReqUniqueWidth = 49;
inline constexpr size_t kReqAttributes = 77;
inline constexpr size_t kAttributeSlots = 40;
inline constexpr size_t kAttributeSlotWidth = 20;
inline constexpr size_t kReqStatement = 877;
inline constexpr size_t kReqStatementWidth = 30000;
inline constexpr size_t kReqTimeout = 30880;
inline constexpr size_t kReqFinishWrite = 30884;
inline constexpr size_t kReqDataPending = 30888;
inline constexpr size_t kReqRecordEnd = 30892;
static_assert(kReqAttributes + kAttributeSlots * kAttributeSlotWidth == kReqStatement);
static_assert(kReqStatement + kReqStatementWidth + 3 == kReqTimeout);

// Data area.
inline constexpr size_t kDataSize = 100000;
inline constexpr size_t kDataReadIndex = 4;
inline constexpr size_t kDataWriteIndex = 8;
inline constexpr size_t kDataReaderFinished = 12;
inline constexpr size_t kDataUnique = 16;
inline constexpr size_t kDataUniqueWidth = 52;
inline constexpr size_t kDataUniqueChars = 49;
inline constexpr size_t kDataRows = 68;
inline constexpr size_t kDataRowLength = 72;
inline constexpr size_t kDataPayload = 76;
inline constexpr size_t kChunk = 99000;
// Bytes of the payload the writer put in this chunk; the reader takes no
// more and sets it back to 0, so a count the bytes do not cover shows.
inline constexpr size_t kDataChunkBytes = kDataPayload + kChunk;
static_assert(kDataChunkBytes + 4 <= kDataSize);

inline constexpr int32_t kRequestTimeoutSeconds = 45;
// A request time-out beyond a day is damage, not a setting.
inline constexpr int32_t kLongestRequestTimeout = 86400;
inline constexpr const char* kEmptyAnswer = "NONE";
}  // namespace area

// Seconds since 1970, low 32 bits, as the areas hold them.
int32_t AreaNow();

// Items that travel through a channel; they know when they were made.
class KVCDataObject {
 public:
  KVCDataObject();
  virtual ~KVCDataObject() = default;
  time_t Created() const { return created_; }

 private:
  time_t created_;
};

class KVCRequest : public KVCDataObject {
 public:
  std::string name;
  std::string unique;
  std::string statement;  // empty when none
  std::vector<std::string> attributes;
};

class KVCDataRow : public KVCDataObject {
 public:
  std::string unique;
  std::string rows;  // filled only when numrow is at least 1
  int32_t numrow = 0;
  int32_t lenrow = 0;
};

// The named mapping behind a shared endpoint: created, or opened when it
// exists already, and mapped whole.
class KVCShareMemory {
 public:
  // 0, or the OS error with the mapping left closed.
  int Open(const std::string& name, size_t size, const platform::ObjectAccess& access);
  unsigned char* View() const { return area_ ? area_->Address() : nullptr; }
  bool Existed() const { return existed_; }
  bool IsOpen() const { return area_ != nullptr; }

 private:
  std::unique_ptr<platform::SharedArea> area_;
  bool existed_ = false;
};

// Locks of the in-process channel.
class KVCLockObject {
 public:
  virtual ~KVCLockObject() = default;
  virtual void Acquire() = 0;
  virtual void Release() = 0;
};

class KVCThreadLockObject final : public KVCLockObject {
 public:
  void Acquire() override { mutex_.lock(); }
  void Release() override { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

class KVCCommObject {
 public:
  virtual ~KVCCommObject() = default;
  // Answers this endpoint gave up part-way, and header fields it found out
  // of range and repaired. Any thread.
  uint64_t Abandoned() const { return abandoned_; }
  uint64_t Repairs() const { return repairs_; }
  virtual bool IsValid() const = 0;
  // Writes a request; its unique name comes back in *unique. 0, -1, -10.
  virtual int SendRequest(const char* name, const std::vector<std::string>& attributes,
                          std::string* unique, const char* statement, int timeout) = 0;
  // Reads the next request. 0, -1 (discarded as too late), -10.
  virtual int GetRequest(std::string* name, std::string* unique, std::vector<std::string>* attributes,
                         std::string* statement, int timeout) = 0;
  // Writes an answer of rows x length bytes ("NONE" when empty). 0, -1, -10.
  virtual int SendData(const char* unique, int32_t rows, int32_t length, const char* bytes,
                       int timeout) = 0;
  // Reads an answer into *bytes. 0 or -10.
  virtual int GetData(const char* expected_unique, std::string* unique, int32_t* rows,
                      int32_t* length, std::string* bytes, int timeout) = 0;
  // Puts the area's pair back to Avail = 1, Fill = 0.
  virtual void Reset(int kind) = 0;
  // Takes back a request the reader has not taken yet, freeing the area
  // for the next one; true when there was one.
  virtual bool WithdrawRequest() { return false; }

 protected:
  std::atomic<uint64_t> abandoned_{0};
  std::atomic<uint64_t> repairs_{0};
};

// The shared-memory endpoint of one area.
class ShareCommObject final : public KVCCommObject {
 public:
  // `request_view` is the request area's view, which the data endpoint
  // reads for the request's times; null for the request endpoint itself.
  ShareCommObject(AreaKind kind, const platform::ObjectAccess& access, size_t size,
                  const std::string& area_name, const std::string& semaphore_stem,
                  unsigned char* request_view);
  ~ShareCommObject() override;

  bool IsValid() const override;
  int SendRequest(const char* name, const std::vector<std::string>& attributes, std::string* unique,
                  const char* statement, int timeout) override;
  int GetRequest(std::string* name, std::string* unique, std::vector<std::string>* attributes,
                 std::string* statement, int timeout) override;
  int SendData(const char* unique, int32_t rows, int32_t length, const char* bytes,
               int timeout) override;
  int GetData(const char* expected_unique, std::string* unique, int32_t* rows, int32_t* length,
              std::string* bytes, int timeout) override;
  void Reset(int kind) override;
  bool WithdrawRequest() override;

  unsigned char* View() const { return view_; }
  bool Existed() const { return memory_.Existed(); }

 private:
  std::unique_ptr<platform::Semaphore> OpenSemaphore(const std::string& name, int initial,
                                                     const platform::ObjectAccess& access);
  static void RefuseForeignObject(const std::string& name);
  int ReleaseFill(int kind, const char* failure_id, const char* failure_text);
  int WaitOn(platform::Semaphore* semaphore, int timeout);
  bool CleanStaleData();
  // A header field outside [low, high] is set to `repaired`, with a log line.
  // Returns the field's value afterwards.
  int32_t RepairField(unsigned char* view, size_t offset, const char* name, int32_t low, int32_t high,
                      int32_t repaired);
  // The reader marked the answer being written finished: it gave up on it.
  bool ReaderGaveUp() const;
  // Drops whatever answer the data area holds and hands it to the next writer.
  void ClearDataArea();

  const AreaKind kind_;
  KVCShareMemory memory_;
  unsigned char* view_ = nullptr;
  unsigned char* request_view_;  // the request area, for the data endpoint's time checks
  std::unique_ptr<platform::Semaphore> avail_;
  std::unique_ptr<platform::Semaphore> fill_;
};

// The in-process variant: requests and answers pass through lists.
class KVCThreadCommObject final : public KVCCommObject {
 public:
  bool IsValid() const override { return true; }
  int SendRequest(const char* name, const std::vector<std::string>& attributes, std::string* unique,
                  const char* statement, int timeout) override;
  int GetRequest(std::string* name, std::string* unique, std::vector<std::string>* attributes,
                 std::string* statement, int timeout) override;
  int SendData(const char* unique, int32_t rows, int32_t length, const char* bytes, int timeout) override;
  // Takes the oldest answer; -10 when none is there.
  int GetData(const char* expected_unique, std::string* unique, int32_t* rows, int32_t* length,
              std::string* bytes, int timeout) override;
  void Reset(int) override {}

 private:
  KVCThreadLockObject request_lock_;
  KVCThreadLockObject data_lock_;
  std::deque<KVCRequest> requests_;
  std::deque<KVCDataRow> answers_;
};

// The process's channel: one request endpoint and one data endpoint.
// Opens them under the prefix "<first>_<second>"; 0, or -1 when they
// cannot be made. Does nothing when they exist already.
int InitShareMemory(const char* first, const char* second);
// Creates both endpoints under `prefix`: 1 on success, 0 on failure.
int CreateObjects(const std::string& prefix);
// Closes both endpoints (the names stay on POSIX, as objects a peer may
// still hold).
void DestroyShareMemory();
KVCCommObject* RequestEndpoint();
KVCCommObject* DataEndpoint();

// Console mode: no open descriptor is built for the objects.
void SetChannelConsoleMode(bool console);

// Resets both pairs when no request has succeeded for 180 seconds.
void ChannelWatchdog(time_t last_success);

// The names of the six objects for a prefix, for cleaning up after tests
// and for the collector contract.
std::vector<std::string> ChannelObjectNames(const std::string& prefix);

}  // namespace kvc
