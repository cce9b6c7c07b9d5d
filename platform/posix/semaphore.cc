#include "platform/semaphore.h"

#include <fcntl.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "platform/common/sliced_wait.h"
#include "platform/error.h"
#include "platform/posix/errors.h"
#include "platform/posix/object_access.h"

namespace platform {
namespace {

class PosixSemaphore final : public Semaphore {
 public:
  explicit PosixSemaphore(sem_t* sem) : sem_(sem) {}
  ~PosixSemaphore() override { sem_close(sem_); }

  int Wait(uint32_t timeout_ms) override {
    if (timeout_ms > 0 && TakeWithinSpin()) return kOk;
    return SlicedWait(timeout_ms, [this](uint32_t slice_ms) { return WaitAtMost(slice_ms); });
  }

  // A zero wait only tries: a timed wait whose deadline has passed still
  // sleeps for the thread's timer slack, which doubled every round trip.
  int WaitAtMost(uint32_t timeout_ms) {
    if (timeout_ms == 0) return TryWait();
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

  // A peer on another CPU usually posts within microseconds (the next chunk
  // of an answer), while going to sleep and being woken costs tens of
  // microseconds on each side. So the count is tried for a moment first,
  // yielding between tries so that a peer on this same CPU gets to run.
  bool TakeWithinSpin() {
    constexpr long kSpinNanos = 50000;
    timespec start{}, now{};
    clock_gettime(CLOCK_MONOTONIC, &start);
    do {
      if (sem_trywait(sem_) == 0) return true;
      sched_yield();
      clock_gettime(CLOCK_MONOTONIC, &now);
    } while ((now.tv_sec - start.tv_sec) * 1000000000L + (now.tv_nsec - start.tv_nsec) < kSpinNanos);
    return false;
  }

  int TryWait() {
    while (sem_trywait(sem_) != 0) {
      if (errno == EAGAIN) return kErrTimeout;
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

// The semaphore's file is checked after sem_open: /dev/shm is sticky, so
// no other account can swap the file this process opened for its own.
std::unique_ptr<Semaphore> OpenNamedSemaphore(const std::string& name, int initial,
                                              const ObjectAccess& access, int* error) {
  char object[256];
  posix::ObjectName(name.c_str(), object);
  sem_t* sem = sem_open(object, O_CREAT | O_EXCL, 0600, initial > 0 ? 1U : 0U);
  const bool created = sem != SEM_FAILED;
  if (!created && errno == EEXIST) sem = sem_open(object, 0);
  if (sem == SEM_FAILED) {
    *error = posix::FromErrno(errno);
    return nullptr;
  }
  const int fd = open(posix::SemaphoreFile(object).c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    *error = posix::FromErrno(errno);
  } else {
    *error = created ? posix::SecureNewObject(fd, access) : posix::AdmitExistingObject(fd, access);
    close(fd);
  }
  if (*error != kOk) {
    sem_close(sem);
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
