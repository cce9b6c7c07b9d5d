#include "platform/posix/registry_keys.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>

#include "platform/environment.h"
#include "platform/error.h"
#include "platform/posix/errors.h"
#include "platform/process.h"

namespace platform {
namespace {

void ReportToStandardError(const char* file, int line, const char* problem) {
  fprintf(stderr, "%s:%d: %s\n", file, line, problem);
}

std::atomic<RegistryProblemSink> problem_sink{&ReportToStandardError};

}  // namespace

void SetRegistryProblemSink(RegistryProblemSink sink) {
  problem_sink = sink != nullptr ? sink : &ReportToStandardError;
}

namespace posix {
namespace {

constexpr char kValuesFile[] = ".values";
constexpr char kDefaultRoot[] = "/etc/kzq/registry";

struct Hive {
  RegistryKey key;
  const char* directory;
};

constexpr Hive kHives[] = {
    {kClassesRoot, "HKEY_CLASSES_ROOT"},
    {kCurrentUser, "HKEY_CURRENT_USER"},
    {kLocalMachine, "HKEY_LOCAL_MACHINE"},
    {kUsers, "HKEY_USERS"},
};

char Upper(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; }

bool NameLess(const SubkeyEntry& a, const SubkeyEntry& b) {
  return std::lexicographical_compare(
      a.name.begin(), a.name.end(), b.name.begin(), b.name.end(),
      [](char x, char y) { return static_cast<unsigned char>(Upper(x)) < static_cast<unsigned char>(Upper(y)); });
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

bool IsDirectory(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

int ReadWholeFile(const std::string& path, std::string* text) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno == ENOENT ? kOk : FromErrno(errno);
  char buffer[8192];
  ssize_t n;
  while ((n = read(fd, buffer, sizeof buffer)) != 0) {
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) break;
    text->append(buffer, static_cast<size_t>(n));
  }
  const int err = n < 0 ? errno : 0;
  close(fd);
  return FromErrno(err);
}

int WriteAll(int fd, const std::string& text) {
  for (size_t done = 0; done < text.size();) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return FromErrno(errno);
    done += static_cast<size_t>(n);
  }
  return kOk;
}

// Writes the whole file under a name of its own, then renames it into place.
int ReplaceFile(const std::string& dir, const std::string& text) {
  static std::atomic<unsigned> sequence{0};
  const std::string temp = dir + "/" + kValuesFile + ".tmp." +
                           std::to_string(CurrentProcessId()) + "." + std::to_string(sequence++);
  const int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (fd < 0) return FromErrno(errno);
  int rc = WriteAll(fd, text);
  if (rc == kOk && fsync(fd) != 0) rc = FromErrno(errno);
  if (close(fd) != 0 && rc == kOk) rc = FromErrno(errno);
  if (rc == kOk && rename(temp.c_str(), (dir + "/" + kValuesFile).c_str()) != 0)
    rc = FromErrno(errno);
  if (rc != kOk) unlink(temp.c_str());
  return rc;
}

void ReportProblems(const std::string& file, const ValuesDocument& document) {
  const RegistryProblemSink sink = problem_sink;
  for (const ValuesProblem& p : document.problems) sink(file.c_str(), p.line, p.message.c_str());
}

uint64_t ModifiedNanoseconds(const std::string& path) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) return 0;
  return static_cast<uint64_t>(st.st_mtim.tv_sec) * 1000000000u +
         static_cast<uint64_t>(st.st_mtim.tv_nsec);
}

}  // namespace

std::string RegistryRoot() {
  return GetEnv("KZQ_REGISTRY_ROOT").value_or(kDefaultRoot);
}

const char* HiveDirectoryName(RegistryKey key) {
  for (const Hive& hive : kHives)
    if (hive.key == key) return hive.directory;
  return nullptr;
}

std::string EncodeKeyName(std::string_view name) {
  std::string entry;
  for (size_t i = 0; i < name.size(); ++i) {
    const char c = name[i];
    if (c == '%' || c == '/' || (c == '.' && i == 0)) {
      char hex[4];
      snprintf(hex, sizeof hex, "%%%02X", static_cast<unsigned char>(c));
      entry += hex;
    } else {
      entry += c;
    }
  }
  return entry;
}

std::string DecodeKeyName(std::string_view entry) {
  std::string name;
  for (size_t i = 0; i < entry.size(); ++i) {
    if (entry[i] == '%' && i + 2 < entry.size() && HexValue(entry[i + 1]) >= 0 &&
        HexValue(entry[i + 2]) >= 0) {
      name += static_cast<char>(HexValue(entry[i + 1]) * 16 + HexValue(entry[i + 2]));
      i += 2;
    } else {
      name += entry[i];
    }
  }
  return name;
}

int ListSubkeys(const std::string& dir, std::vector<SubkeyEntry>* subkeys) {
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return errno == ENOENT ? kOk : FromErrno(errno);
  while (const dirent* e = readdir(d)) {
    if (e->d_name[0] == '.') continue;
    if (!IsDirectory(dir + "/" + e->d_name)) continue;
    subkeys->push_back({DecodeKeyName(e->d_name), e->d_name});
  }
  closedir(d);
  std::sort(subkeys->begin(), subkeys->end(), NameLess);
  return kOk;
}

int FindSubkey(const std::string& dir, std::string_view name, std::string* entry) {
  const std::string exact = EncodeKeyName(name);
  if (IsDirectory(dir + "/" + exact)) {
    *entry = exact;
    return kOk;
  }
  std::vector<SubkeyEntry> subkeys;
  if (const int rc = ListSubkeys(dir, &subkeys); rc != kOk) return rc;
  for (const SubkeyEntry& s : subkeys) {
    if (SameName(s.name, name)) {
      *entry = s.entry;
      return kOk;
    }
  }
  return kErrFileNotFound;
}

int LoadValues(const std::string& dir, ValuesDocument* document) {
  const std::string path = dir + "/" + kValuesFile;
  std::string text;
  if (const int rc = ReadWholeFile(path, &text); rc != kOk) return rc;
  *document = ParseValues(text);
  ReportProblems(path, *document);
  return kOk;
}

int LoadValuesOnce(const std::string& dir, const ValuesDocument** document) {
  struct Kept {
    std::string dir;
    struct stat file {};
    ValuesDocument values;
  };
  thread_local Kept kept;
  struct stat st {};
  const bool exists = stat((dir + "/" + kValuesFile).c_str(), &st) == 0;
  const bool same = exists && kept.dir == dir && st.st_dev == kept.file.st_dev && st.st_ino == kept.file.st_ino &&
                    st.st_size == kept.file.st_size && st.st_mtim.tv_sec == kept.file.st_mtim.tv_sec &&
                    st.st_mtim.tv_nsec == kept.file.st_mtim.tv_nsec;
  if (!same) {
    kept.dir.clear();
    kept.values = ValuesDocument();
    if (const int rc = LoadValues(dir, &kept.values); rc != kOk) return rc;
    if (exists) {
      kept.dir = dir;
      kept.file = st;
    }
  }
  *document = &kept.values;
  return kOk;
}

int ChangeValues(const std::string& dir, const std::function<int(ValuesDocument&)>& change) {
  const int lock = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (lock < 0) return FromErrno(errno);
  int rc = flock(lock, LOCK_EX) == 0 ? kOk : FromErrno(errno);
  ValuesDocument document;
  if (rc == kOk) rc = LoadValues(dir, &document);
  if (rc == kOk) rc = change(document);
  if (rc == kOk) rc = ReplaceFile(dir, FormatValues(document));
  // The rename is durable only once the directory itself is on disk.
  if (rc == kOk) fsync(lock);
  close(lock);
  return rc;
}

int RemoveKeyDirectory(const std::string& dir) {
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return FromErrno(errno);
  while (const dirent* e = readdir(d)) {
    const std::string name = e->d_name;
    if (name[0] == '.' && name != "." && name != "..") unlink((dir + "/" + name).c_str());
  }
  closedir(d);
  if (rmdir(dir.c_str()) == 0) return kOk;
  return errno == ENOTEMPTY || errno == EEXIST ? kErrAccessDenied : FromErrno(errno);
}

RegistryFileTime LastWriteTime(const std::string& dir) {
  constexpr uint64_t kSecondsFrom1601To1970 = 11644473600u;
  const uint64_t ns =
      std::max(ModifiedNanoseconds(dir), ModifiedNanoseconds(dir + "/" + kValuesFile));
  const uint64_t ticks = ns == 0 ? 0 : kSecondsFrom1601To1970 * 10000000u + ns / 100;
  return {static_cast<uint32_t>(ticks), static_cast<uint32_t>(ticks >> 32)};
}

}  // namespace posix
}  // namespace platform
