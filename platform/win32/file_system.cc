#include "platform/file_system.h"

#include <windows.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>

#include "platform/error.h"
#include "platform/win32/errors.h"
#include "platform/win32/object_access.h"

namespace platform {

int StatPath(const std::string& path, FileStatus* out) {
  struct _stat64 st {};
  if (_stat64(path.c_str(), &st) != 0) return errno;
  out->is_regular = (st.st_mode & _S_IFMT) == _S_IFREG;
  out->is_directory = (st.st_mode & _S_IFMT) == _S_IFDIR;
  out->is_char_device = (st.st_mode & _S_IFMT) == _S_IFCHR;
  out->size = static_cast<uint64_t>(st.st_size);
  out->modified = st.st_mtime;
  out->created = st.st_ctime;  // creation time on Windows
  return 0;
}

int CreateDirectories(const std::string& path) {
  if (path.empty()) return kErrPathNotFound;
  for (size_t end = path.find_first_of("\\/", 1);; end = path.find_first_of("\\/", end + 1)) {
    const std::string prefix = path.substr(0, end);
    const bool drive_only = prefix.size() == 2 && prefix[1] == ':';
    if (!drive_only && !CreateDirectoryA(prefix.c_str(), nullptr) &&
        GetLastError() != ERROR_ALREADY_EXISTS)
      return win32::LastError();
    if (end == std::string::npos) break;
  }
  const DWORD attributes = GetFileAttributesA(path.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) return win32::LastError();
  return (attributes & FILE_ATTRIBUTE_DIRECTORY) ? kOk : kErrAlreadyExists;
}

int MakeDirectory(const std::string& path) {
  if (CreateDirectoryA(path.c_str(), nullptr)) return kOk;
  return win32::LastError();
}

int MakePrivateDirectory(const std::string& path) {
  win32::OwnerSecurity owner;
  if (CreateDirectoryA(path.c_str(), owner.Attributes())) return kOk;
  return win32::LastError();
}

std::vector<std::string> ListDirectory(const std::string& directory) {
  std::vector<std::string> names;
  WIN32_FIND_DATAA found;
  HANDLE search = FindFirstFileA((directory + "\\*").c_str(), &found);
  if (search == INVALID_HANDLE_VALUE) return names;
  do {
    const std::string name = found.cFileName;
    if (name != "." && name != "..") names.push_back(name);
  } while (FindNextFileA(search, &found));
  FindClose(search);
  return names;
}

char PathSeparator() { return '\\'; }

char PathListSeparator() { return ';'; }

const char* DefaultExecutableExtensions() { return ".COM;.EXE;.BAT;.CMD"; }

std::string FindEntryIgnoringCase(const std::string&, const std::string& name) { return name; }

std::string RuntimeDirectory() {
  const char* dir = getenv("KZQ_RUNTIME_DIR");
  if (dir != nullptr && *dir != '\0') return dir;
  char buffer[MAX_PATH + 1];
  const DWORD n = GetTempPathA(sizeof buffer, buffer);
  return n > 0 && n < sizeof buffer ? std::string(buffer, n) : std::string(".");
}

int PrepareRuntimeDirectory() { return CreateDirectories(RuntimeDirectory()); }

// Windows has no links an ordinary account can plant in a service's
// directory; the file is written as it is.
int WriteFileNoFollow(const std::string& path, const std::string& text) {
  HANDLE file = CreateFileA(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr, CREATE_ALWAYS,
                            FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return win32::LastError();
  DWORD written = 0;
  const BOOL ok = WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
  const int err = ok && written == text.size() ? kOk : win32::LastError();
  CloseHandle(file);
  return err;
}

}  // namespace platform
