#include "platform/shared_memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/error.h"
#include "platform/posix/errors.h"
#include "platform/posix/object_access.h"

namespace platform {
namespace {

class MappedArea final : public SharedArea {
 public:
  MappedArea(unsigned char* address, size_t size) : address_(address), size_(size) {}
  ~MappedArea() override { munmap(address_, size_); }
  unsigned char* Address() override { return address_; }
  size_t Size() const override { return size_; }

 private:
  unsigned char* const address_;
  const size_t size_;
};

size_t RoundToPages(size_t size) {
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  return (size + page - 1) / page * page;
}

// Opens the object exclusively first so that the creator is known (Windows
// reports the other case as 183), then secures a new object or admits the
// existing one. Returns the descriptor, or -1 with *error set.
int OpenOrCreate(const char* object, const ObjectAccess& access, bool* created, int* error) {
  int fd = shm_open(object, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
  *created = fd >= 0;
  if (fd < 0 && errno == EEXIST) fd = shm_open(object, O_RDWR | O_NOFOLLOW, 0600);
  if (fd < 0) {
    *error = posix::FromErrno(errno);
    return -1;
  }
  *error = *created ? posix::SecureNewObject(fd, access) : posix::AdmitExistingObject(fd, access);
  if (*error == kOk) return fd;
  close(fd);
  return -1;
}

}  // namespace

std::unique_ptr<SharedArea> OpenSharedArea(const std::string& name, size_t size,
                                           const ObjectAccess& access, int* error) {
  char object[256];
  bool created = false;
  const int fd = OpenOrCreate(posix::ObjectName(name.c_str(), object), access, &created, error);
  if (fd < 0) return nullptr;
  const size_t mapped = RoundToPages(size == 0 ? 1 : size);
  struct stat st {};
  // The opener may come before the creator has sized the object; growing it
  // is harmless, since both sides ask for the same size.
  if (fstat(fd, &st) != 0 ||
      (static_cast<size_t>(st.st_size) < mapped && ftruncate(fd, static_cast<off_t>(mapped)) != 0)) {
    *error = posix::FromErrno(errno);
    close(fd);
    return nullptr;
  }
  void* address = mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  const int map_errno = errno;
  close(fd);
  if (address == MAP_FAILED) {
    *error = posix::FromErrno(map_errno);
    return nullptr;
  }
  *error = created ? kOk : kErrAlreadyExists;
  return std::make_unique<MappedArea>(static_cast<unsigned char*>(address), mapped);
}

void RemoveSharedArea(const std::string& name) {
  char object[256];
  shm_unlink(posix::ObjectName(name.c_str(), object));
}

}  // namespace platform
