#include "platform/dir_watch.h"

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>

#include "platform/posix/errors.h"

namespace platform {
namespace {

// Size and last-write changes show as modifications; a file written and
// closed, created, removed, or renamed into or out of the directory (a log
// being cycled) counts too, as any change of a name does on Windows.
constexpr uint32_t kChangeMask =
    IN_MODIFY | IN_CLOSE_WRITE | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ATTRIB;

class InotifyWatch final : public DirectoryWatch {
 public:
  explicit InotifyWatch(int fd) : fd_(fd) {}
  ~InotifyWatch() override { close(fd_); }

  WatchResult Next(std::vector<std::string>* file_names, int timeout_ms, int* error) override {
    file_names->clear();
    pollfd ready = {fd_, POLLIN, 0};
    const int polled = poll(&ready, 1, timeout_ms);
    if (polled == 0 || (polled < 0 && errno == EINTR)) return WatchResult::kTimeout;
    if (polled < 0) return Failed(errno, error);
    // One read takes the whole batch, as one notification buffer does.
    alignas(inotify_event) char buffer[4096];
    const ssize_t n = read(fd_, buffer, sizeof buffer);
    if (n < 0) return errno == EINTR || errno == EAGAIN ? WatchResult::kTimeout : Failed(errno, error);
    bool overflow = false;
    for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(inotify_event)) <= n;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      overflow = overflow || (event->mask & IN_Q_OVERFLOW) != 0;
      if (event->len != 0) file_names->emplace_back(event->name);  // 0: the directory itself
    }
    if (overflow) return WatchResult::kOverflow;
    return file_names->empty() ? WatchResult::kTimeout : WatchResult::kChanged;
  }

 private:
  static WatchResult Failed(int err, int* error) {
    *error = posix::FromErrno(err);
    return WatchResult::kFailed;
  }
  const int fd_;
};

}  // namespace

std::unique_ptr<DirectoryWatch> WatchDirectory(const std::string& directory, int* error) {
  const int fd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  if (fd < 0) {
    *error = posix::FromErrno(errno);
    return nullptr;
  }
  if (inotify_add_watch(fd, directory.c_str(), kChangeMask | IN_ONLYDIR) < 0) {
    *error = posix::FromErrno(errno);
    close(fd);
    return nullptr;
  }
  return std::make_unique<InotifyWatch>(fd);
}

}  // namespace platform
