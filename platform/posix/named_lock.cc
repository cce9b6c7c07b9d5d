#include "platform/named_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>

#include "platform/clock.h"
#include "platform/error.h"
#include "platform/file_system.h"
#include "platform/posix/errors.h"

namespace platform {
namespace {

// flock() on a lock file in the runtime directory: the kernel drops the lock
// when the holding process dies. flock() does not exclude threads that share
// one descriptor, so a process-local mutex orders the threads first.
class FileLock final : public NamedLock {
 public:
  explicit FileLock(int fd) : fd_(fd) {}
  ~FileLock() override { close(fd_); }

  bool TryLockFor(uint32_t timeout_ms) override {
    const uint64_t deadline = MonotonicMillis() + timeout_ms;
    // Polled rather than a timed wait, which goes through a clock-locking
    // call the thread sanitizer cannot follow.
    while (!threads_.try_lock()) {
      if (MonotonicMillis() >= deadline) return false;
      SleepMillis(1);
    }
    for (;;) {
      if (flock(fd_, LOCK_EX | LOCK_NB) == 0) return true;
      if (errno != EWOULDBLOCK && errno != EINTR) break;
      if (MonotonicMillis() >= deadline) break;
      SleepMillis(1);
    }
    threads_.unlock();
    return false;
  }

  void Unlock() override {
    flock(fd_, LOCK_UN);
    threads_.unlock();
  }

 private:
  const int fd_;
  std::mutex threads_;
};

}  // namespace

std::unique_ptr<NamedLock> CreateNamedLock(const std::string& name, int* error) {
  char object[256];
  if (const int err = PrepareRuntimeDirectory()) {
    *error = err;
    return nullptr;
  }
  const std::string path =
      RuntimeDirectory() + "/kzq-" + (posix::ObjectName(name.c_str(), object) + 1) + ".lock";
  // Owner-only and never through a link: an account that could open the
  // file could hold the lock and silence every writer of the server.
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) {
    *error = posix::FromErrno(errno);
    return nullptr;
  }
  *error = kOk;
  return std::make_unique<FileLock>(fd);
}

}  // namespace platform
