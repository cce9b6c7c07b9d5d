#include "platform/dir_watch.h"

#include <windows.h>

#include <string>
#include <vector>

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

  WatchResult Next(std::vector<std::string>* file_names, int timeout_ms, int* error) override {
    file_names->clear();
    if (!pending_ && !Issue(error)) return WatchResult::kFailed;
    if (WaitForSingleObject(event_, static_cast<DWORD>(timeout_ms)) == WAIT_TIMEOUT) return WatchResult::kTimeout;
    DWORD bytes = 0;
    pending_ = false;
    ResetEvent(event_);
    if (!GetOverlappedResult(directory_, &overlapped_, &bytes, FALSE)) {
      // More changes than the buffer held: they are lost, the watch goes on.
      if (GetLastError() == ERROR_NOTIFY_ENUM_DIR) return WatchResult::kOverflow;
      *error = static_cast<int>(GetLastError());
      return WatchResult::kFailed;
    }
    // No bytes is the same overflow, as some systems report it.
    if (bytes < sizeof(FILE_NOTIFY_INFORMATION)) return WatchResult::kOverflow;
    for (DWORD at = 0;;) {
      const auto* record = reinterpret_cast<const FILE_NOTIFY_INFORMATION*>(buffer_ + at);
      const std::u16string name(reinterpret_cast<const char16_t*>(record->FileName),
                                record->FileNameLength / sizeof(char16_t));
      file_names->push_back(Utf16ToUtf8(name));
      if (record->NextEntryOffset == 0 || at + record->NextEntryOffset >= bytes) break;
      at += record->NextEntryOffset;
    }
    return WatchResult::kChanged;
  }

  // Public for the start: the first read is issued at once, so that the
  // changes between the watch's making and its first wait are kept.
  bool Issue(int* error) {
    if (!ReadDirectoryChangesW(directory_, buffer_, sizeof buffer_, FALSE, kChangeFilter, nullptr, &overlapped_,
                               nullptr)) {
      *error = static_cast<int>(GetLastError());
      return false;
    }
    pending_ = true;
    return true;
  }

 private:
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
  auto watch = std::make_unique<ChangesWatch>(handle, event);
  if (!watch->Issue(error)) return nullptr;
  return watch;
}

}  // namespace platform
