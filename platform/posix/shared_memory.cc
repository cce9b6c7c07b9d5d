#include "platform/shared_memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/error.h"
#include "platform/posix/errors.h"

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

// Opens the object exclusively first so that the creator is known, then
// falls back to the existing one, which Windows reports as 183.
int OpenOrCreate(const char* object, ObjectAccess access, bool* created) {
  int fd = shm_open(object, O_RDWR | O_CREAT | O_EXCL, 0666);
  *created = fd >= 0;
  if (fd < 0 && errno == EEXIST) fd = shm_open(object, O_RDWR, 0666);
  if (fd >= 0 && *created && access == ObjectAccess::kOpen) fchmod(fd, 0666);
  if (fd >= 0 && *created && access == ObjectAccess::kOwner) fchmod(fd, 0600);
  return fd;
}

}  // namespace

std::unique_ptr<SharedArea> OpenSharedArea(const std::string& name, size_t size,
                                           ObjectAccess access, int* error) {
  char object[256];
  bool created = false;
  const int fd = OpenOrCreate(posix::ObjectName(name.c_str(), object), access, &created);
  if (fd < 0) {
    *error = posix::FromErrno(errno);
    return nullptr;
  }
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
