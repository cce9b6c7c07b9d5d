#include "platform/file_system.h"

#include <dirent.h>
#include <strings.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "platform/error.h"
#include "platform/posix/errors.h"

namespace platform {

int StatPath(const std::string& path, FileStatus* out) {
  struct statx sx {};
  if (statx(AT_FDCWD, path.c_str(), 0, STATX_BASIC_STATS | STATX_BTIME, &sx) != 0)
    return errno;
  const mode_t mode = sx.stx_mode;
  out->is_regular = S_ISREG(mode);
  out->is_directory = S_ISDIR(mode);
  out->is_char_device = S_ISCHR(mode);
  out->size = sx.stx_size;
  out->modified = sx.stx_mtime.tv_sec;
  out->created = (sx.stx_mask & STATX_BTIME) ? sx.stx_btime.tv_sec
                                             : sx.stx_ctime.tv_sec;
  return 0;
}

int CreateDirectories(const std::string& path) {
  if (path.empty()) return kErrPathNotFound;
  for (size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    const std::string prefix = path.substr(0, end);
    if (mkdir(prefix.c_str(), 0777) != 0 && errno != EEXIST)
      return posix::FromErrno(errno);
    if (end == std::string::npos) break;
  }
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) return posix::FromErrno(errno);
  return S_ISDIR(st.st_mode) ? kOk : kErrAlreadyExists;
}

int MakeDirectory(const std::string& path) {
  if (mkdir(path.c_str(), 0777) == 0) return kOk;
  return errno == EEXIST ? kErrAlreadyExists : posix::FromErrno(errno);
}

int MakePrivateDirectory(const std::string& path) {
  if (mkdir(path.c_str(), 0700) == 0) return kOk;
  return errno == EEXIST ? kErrAlreadyExists : posix::FromErrno(errno);
}

std::vector<std::string> ListDirectory(const std::string& directory) {
  std::vector<std::string> names;
  DIR* dir = opendir(directory.c_str());
  if (dir == nullptr) return names;
  for (const dirent* entry = readdir(dir); entry != nullptr; entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(dir);
  return names;
}

char PathSeparator() { return '/'; }

char PathListSeparator() { return ':'; }

const char* DefaultExecutableExtensions() { return ""; }

std::string FindEntryIgnoringCase(const std::string& directory, const std::string& name) {
  DIR* dir = opendir(directory.c_str());
  if (dir == nullptr) return name;
  std::string found = name;
  bool exact = false;
  for (const dirent* entry = readdir(dir); entry != nullptr && !exact; entry = readdir(dir)) {
    exact = name == entry->d_name;
    if (exact || strcasecmp(name.c_str(), entry->d_name) == 0) found = entry->d_name;
  }
  closedir(dir);
  return exact ? name : found;
}

std::string RuntimeDirectory() {
  const char* dir = getenv("KZQ_RUNTIME_DIR");
  if (dir != nullptr && *dir != '\0') return dir;
  const char* user_runtime = getenv("XDG_RUNTIME_DIR");
  if (user_runtime != nullptr && *user_runtime == '/') return std::string(user_runtime) + "/kzq";
  return "/tmp/kzq-" + std::to_string(getuid());
}

int PrepareRuntimeDirectory() {
  const std::string dir = RuntimeDirectory();
  if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
    const int missing_parent = errno == ENOENT ? CreateDirectories(dir) : posix::FromErrno(errno);
    if (missing_parent != kOk) return missing_parent;
    chmod(dir.c_str(), 0700);  // made just now by us; the umask may have widened it
  }
  struct stat st {};
  if (lstat(dir.c_str(), &st) != 0) return posix::FromErrno(errno);
  if (!S_ISDIR(st.st_mode) || st.st_uid != getuid() || (st.st_mode & S_IWOTH) != 0) return kErrAccessDenied;
  return kOk;
}

int WriteFileNoFollow(const std::string& path, const std::string& text) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) return posix::FromErrno(errno);
  const ssize_t written = write(fd, text.data(), text.size());
  const int err = written == static_cast<ssize_t>(text.size()) ? kOk : posix::FromErrno(written < 0 ? errno : ENOSPC);
  close(fd);
  return err;
}

}  // namespace platform
