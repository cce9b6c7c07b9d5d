#include "platform/service_probe.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/error.h"
#include "platform/file_system.h"
#include "platform/posix/errors.h"
#include "platform/posix/service_units.h"

namespace platform {
namespace {

constexpr size_t kMaxNameLength = 256;  // the service manager's own limit
constexpr const char* kBlanks = " \t\r";

ServiceProbe Failed(ServiceProbeStep step, int error) {
  ServiceProbe probe;
  probe.failed_step = step;
  probe.error = error;
  return probe;
}

ServiceProbe Status(uint32_t state, pid_t pid) {
  ServiceProbe probe;
  probe.ok = true;
  probe.state = state;
  probe.process_id = static_cast<uint32_t>(pid);
  return probe;
}

// The name becomes part of a path: it must stay one file name.
bool UsableName(const char* name) {
  const size_t length = name == nullptr ? 0 : strnlen(name, kMaxNameLength + 1);
  return length > 0 && length <= kMaxNameLength && strpbrk(name, "/\\") == nullptr;
}

// The whole of an open file, which it closes; 0 or the errno of the failure.
int ReadAll(FILE* file, std::string* text) {
  char buffer[4096];
  for (size_t n; (n = fread(buffer, 1, sizeof buffer, file)) > 0;) text->append(buffer, n);
  const int err = ferror(file) ? errno : 0;
  fclose(file);
  return err;
}

int ReadText(const std::string& path, std::string* text) {
  FILE* file = fopen(path.c_str(), "rb");
  return file == nullptr ? errno : ReadAll(file, text);
}

// A pid file counts only when this account or root wrote it, and never
// through a link: in a directory others can reach, a planted file would
// report a service that does not run. 0, or the errno of the refusal.
int ReadPidFile(const std::string& path, std::string* text) {
  const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return errno == ELOOP ? EACCES : errno;
  struct stat st {};
  if (fstat(fd, &st) != 0 || (st.st_uid != getuid() && st.st_uid != 0)) {
    close(fd);
    return EACCES;
  }
  FILE* file = fdopen(fd, "rb");
  if (file == nullptr) {
    const int err = errno;
    close(fd);
    return err;
  }
  return ReadAll(file, text);
}

// A decimal process id with blanks around it; 0 for anything else.
pid_t ParsePid(const std::string& line) {
  const size_t first = line.find_first_not_of(kBlanks);
  if (first == std::string::npos) return 0;
  const char* end = line.data() + line.find_last_not_of(kBlanks) + 1;
  pid_t pid = 0;
  const auto [stop, rc] = std::from_chars(line.data() + first, end, pid);
  return rc == std::errc() && stop == end && pid > 0 ? pid : 0;
}

// A process of another user (EPERM) is alive all the same. So is a zombie,
// until its parent has reaped it.
bool Alive(pid_t pid) { return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM); }

// Only the first line counts; a pid that is not a number means stopped.
ServiceProbe FromPidFile(const std::string& text) {
  const pid_t pid = ParsePid(text.substr(0, text.find('\n')));
  return Alive(pid) ? Status(kServiceRunning, pid) : Status(kServiceStopped, 0);
}

// The unit's cgroup, unified hierarchy first, then a version 1 systemd one;
// empty when neither exists, that is the unit is not loaded.
std::string UnitCgroup(const std::string& unit) {
  const char* root = getenv("KZQ_CGROUP_ROOT");
  const std::string base = root != nullptr && *root != '\0' ? root : "/sys/fs/cgroup";
  for (const char* hierarchy : {"/system.slice/", "/systemd/system.slice/"}) {
    const std::string dir = base + hierarchy + unit + ".service";
    FileStatus status;
    if (StatPath(dir, &status) == 0 && status.is_directory) return dir;
  }
  return {};
}

// Running with the first live process of the unit's cgroup.
ServiceProbe FromCgroup(const std::string& unit) {
  const std::string dir = UnitCgroup(unit);
  if (dir.empty()) return Failed(ServiceProbeStep::kOpenService, kErrServiceDoesNotExist);
  std::string procs;
  if (const int err = ReadText(dir + "/cgroup.procs", &procs))
    return Failed(ServiceProbeStep::kQueryStatus, posix::FromErrno(err));
  for (size_t begin = 0; begin < procs.size();) {
    const size_t end = std::min(procs.find('\n', begin), procs.size());
    const pid_t pid = ParsePid(procs.substr(begin, end - begin));
    if (Alive(pid)) return Status(kServiceRunning, pid);
    begin = end + 1;
  }
  return Status(kServiceStopped, 0);
}

}  // namespace

ServiceProbe QueryService(const char* name) {
  if (!UsableName(name)) return Failed(ServiceProbeStep::kOpenService, kErrInvalidName);
  std::string text;
  const int err = ReadPidFile(PidFilePath(name), &text);
  if (err == 0) return FromPidFile(text);
  if (err != ENOENT) return Failed(ServiceProbeStep::kQueryStatus, posix::FromErrno(err));
  const std::optional<std::string> unit = posix::ServiceUnit(name);
  if (!unit) return Failed(ServiceProbeStep::kOpenService, kErrServiceDoesNotExist);
  return FromCgroup(*unit);
}

}  // namespace platform
