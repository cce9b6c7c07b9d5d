#include "platform/shared_library.h"

#include <dlfcn.h>

namespace platform {
namespace {

class PosixLibrary final : public SharedLibrary {
 public:
  explicit PosixLibrary(void* handle) : handle_(handle) {}
  ~PosixLibrary() override { dlclose(handle_); }
  void* Entry(const char* name) const override { return dlsym(handle_, name); }

 private:
  void* const handle_;
};

}  // namespace

std::unique_ptr<SharedLibrary> LoadSharedLibrary(const std::string& base_name) {
  void* handle = dlopen(("lib" + base_name + ".so").c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) return nullptr;
  return std::make_unique<PosixLibrary>(handle);
}

}  // namespace platform
