#include "platform/shared_library.h"

#include <windows.h>

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

}  // namespace

std::unique_ptr<SharedLibrary> LoadSharedLibrary(const std::string& base_name) {
  HMODULE module = LoadLibraryA((base_name + ".dll").c_str());
  if (module == nullptr) return nullptr;
  return std::make_unique<Win32Library>(module);
}

}  // namespace platform
