#include "platform/posix/object_access.h"

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <vector>

#include "platform/error.h"
#include "platform/posix/errors.h"

namespace platform::posix {
namespace {

std::optional<gid_t> SharingGroup(const std::string& name) {
  if (name.empty()) return std::nullopt;
  std::vector<char> buffer(16384);
  group entry{};
  group* found = nullptr;
  if (getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr)
    return std::nullopt;
  return entry.gr_gid;
}

int Result(int rc) { return rc == 0 ? kOk : FromErrno(errno); }

}  // namespace

int SecureNewObject(int fd, const ObjectAccess& access) {
  if (access.open) return Result(fchmod(fd, 0666));
  // Without the group, or without the right to give it (the process is not
  // a member), the object stays the account's own.
  const auto gid = SharingGroup(access.group);
  if (gid.has_value() && fchown(fd, static_cast<uid_t>(-1), *gid) == 0) return Result(fchmod(fd, 0660));
  return Result(fchmod(fd, 0600));
}

int AdmitExistingObject(int fd, const ObjectAccess& access) {
  if (access.open) return kOk;
  struct stat st {};
  if (fstat(fd, &st) != 0) return FromErrno(errno);
  if (st.st_uid == geteuid()) return SecureNewObject(fd, access);
  const auto gid = SharingGroup(access.group);
  const bool shared_group = gid.has_value() && st.st_gid == *gid;
  if (st.st_uid != 0 && !shared_group) return kErrInvalidOwner;
  const bool open_to_others = (st.st_mode & 0007) != 0 || (!shared_group && (st.st_mode & 0070) != 0);
  return open_to_others ? kErrInvalidOwner : kOk;
}

std::string SemaphoreFile(const char* object_name) { return std::string("/dev/shm/sem.") + (object_name + 1); }

}  // namespace platform::posix
