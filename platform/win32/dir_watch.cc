#include "platform/dir_watch.h"

#include <windows.h>

#include <string>

#include "platform/text.h"

namespace platform {
namespace {

constexpr DWORD kChangeFilter = FILE_NOTIFY_CHANGE_SIZE | FILE_NOTIFY_CHANGE_LAST_WRITE | FILE_NOTIFY_CHANGE_FILE_NAME;

// One overlapped read stays pending across time-outs, so no change that
// happens between two waits is missed.
class ChangesWatch final : public DirectoryWatch {
 public:
  ChangesWatch(HANDLE directory, HANDLE event) : directory_(directory), event_(event) {
    overlapped_.hEvent = event_;
  }
  ~ChangesWatch() override {
    CancelIo(directory_);
    if (pending_) {
      DWORD ignored = 0;
      GetOverlappedResult(directory_, &overlapped_, &ignored, TRUE);
    }
    CloseHandle(event_);
    CloseHandle(directory_);
  }

  WatchResult Next(std::string* file_name, int timeout_ms, int* error) override {
    if (!pending_ && !Issue(error)) return WatchResult::kFailed;
    if (WaitForSingleObject(event_, static_cast<DWORD>(timeout_ms)) == WAIT_TIMEOUT) return WatchResult::kTimeout;
    DWORD bytes = 0;
    pending_ = false;
    ResetEvent(event_);
    if (!GetOverlappedResult(directory_, &overlapped_, &bytes, FALSE)) {
      *error = static_cast<int>(GetLastError());
      return WatchResult::kFailed;
    }
    // No bytes: the buffer overflowed and the batch was lost; the caller
    // reads its file again anyway.
    if (bytes < sizeof(FILE_NOTIFY_INFORMATION)) return WatchResult::kTimeout;
    const auto* record = reinterpret_cast<const FILE_NOTIFY_INFORMATION*>(buffer_);
    const std::u16string name(reinterpret_cast<const char16_t*>(record->FileName),
                              record->FileNameLength / sizeof(char16_t));
    *file_name = Utf16ToUtf8(name);
    return WatchResult::kChanged;
  }

 private:
  bool Issue(int* error) {
    if (!ReadDirectoryChangesW(directory_, buffer_, sizeof buffer_, FALSE, kChangeFilter, nullptr, &overlapped_,
                               nullptr)) {
      *error = static_cast<int>(GetLastError());
      return false;
    }
    pending_ = true;
    return true;
  }

  const HANDLE directory_;
  const HANDLE event_;
  OVERLAPPED overlapped_{};
  alignas(DWORD) char buffer_[4096];
  bool pending_ = false;
};

}  // namespace

std::unique_ptr<DirectoryWatch> WatchDirectory(const std::string& directory, int* error) {
  HANDLE handle = CreateFileA(directory.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                              nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OVERLAPPED, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    *error = static_cast<int>(GetLastError());
    return nullptr;
  }
  HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  if (event == nullptr) {
    *error = static_cast<int>(GetLastError());
    CloseHandle(handle);
    return nullptr;
  }
  return std::make_unique<ChangesWatch>(handle, event);
}

}  // namespace platform
