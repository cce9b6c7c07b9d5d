#include "platform/shared_library.h"

#include <windows.h>

#include <string>

namespace platform {
namespace {

class Win32Library final : public SharedLibrary {
 public:
  explicit Win32Library(HMODULE module) : module_(module) {}
  ~Win32Library() override { FreeLibrary(module_); }
  void* Entry(const char* name) const override { return reinterpret_cast<void*>(GetProcAddress(module_, name)); }

 private:
  const HMODULE module_;
};

// The library beside the executable, by full path: a library of that name
// in a directory of PATH (or the working directory) is never loaded into a
// service's process. Wide names, so that an install directory outside the
// ANSI code page works too.
std::wstring BesideExecutable(const std::string& file_name) {
  std::wstring path(MAX_PATH, L'\0');
  for (;;) {
    const DWORD length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
    if (length == 0) return {};
    if (length < path.size()) {
      path.resize(length);
      break;
    }
    path.resize(path.size() * 2);
  }
  path.erase(path.find_last_of(L'\\') + 1);
  return path + std::wstring(file_name.begin(), file_name.end());
}

}  // namespace

std::unique_ptr<SharedLibrary> LoadSharedLibrary(const std::string& base_name) {
  const std::wstring path = BesideExecutable(base_name + ".dll");
  if (path.empty()) return nullptr;
  // The library's own imports are looked for beside it and in the system
  // directories, not along PATH either.
  HMODULE module = LoadLibraryExW(path.c_str(), nullptr,
                                  LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_SYSTEM32);
  if (module == nullptr) return nullptr;
  return std::make_unique<Win32Library>(module);
}

}  // namespace platform
