#include "platform/semaphore.h"

#include <fcntl.h>
#include <semaphore.h>
#include <sys/stat.h>

#include <cerrno>
#include <ctime>

#include "platform/common/sliced_wait.h"
#include "platform/error.h"
#include "platform/posix/errors.h"

namespace platform {
namespace {

class PosixSemaphore final : public Semaphore {
 public:
  explicit PosixSemaphore(sem_t* sem) : sem_(sem) {}
  ~PosixSemaphore() override { sem_close(sem_); }

  int Wait(uint32_t timeout_ms) override {
    return SlicedWait(timeout_ms, [this](uint32_t slice_ms) { return WaitAtMost(slice_ms); });
  }

  int WaitAtMost(uint32_t timeout_ms) {
    timespec deadline{};
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += timeout_ms / 1000;
    deadline.tv_nsec += static_cast<long>(timeout_ms % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
      deadline.tv_sec += 1;
      deadline.tv_nsec -= 1000000000L;
    }
    while (sem_timedwait(sem_, &deadline) != 0) {
      if (errno == ETIMEDOUT) return kErrTimeout;
      if (errno != EINTR) return posix::FromErrno(errno);
    }
    return kOk;
  }

  // The maximum count of 1 is kept by refusing a post at 1, as Windows does
  // with ERROR_TOO_MANY_POSTS.
  int Release() override {
    int value = 0;
    if (sem_getvalue(sem_, &value) != 0) return posix::FromErrno(errno);
    if (value >= 1) return kErrTooManyPosts;
    return sem_post(sem_) == 0 ? kOk : posix::FromErrno(errno);
  }

 private:
  sem_t* const sem_;
};

}  // namespace

std::unique_ptr<Semaphore> OpenNamedSemaphore(const std::string& name, int initial,
                                         ObjectAccess access, int* error) {
  char object[256];
  posix::ObjectName(name.c_str(), object);
  const mode_t mode = access == ObjectAccess::kOpen ? 0666 : 0600;
  // sem_open applies the umask; the open kind must reach other users.
  const mode_t old_mask = access == ObjectAccess::kOpen ? umask(0) : 0;
  sem_t* sem = sem_open(object, O_CREAT | O_EXCL, mode, initial > 0 ? 1U : 0U);
  const bool created = sem != SEM_FAILED;
  if (!created && errno == EEXIST) sem = sem_open(object, 0);
  const int open_errno = errno;
  if (access == ObjectAccess::kOpen) umask(old_mask);
  if (sem == SEM_FAILED) {
    *error = posix::FromErrno(open_errno);
    return nullptr;
  }
  *error = created ? kOk : kErrAlreadyExists;
  return std::make_unique<PosixSemaphore>(sem);
}

void RemoveSemaphore(const std::string& name) {
  char object[256];
  sem_unlink(posix::ObjectName(name.c_str(), object));
}

}  // namespace platform
