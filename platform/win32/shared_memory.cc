#include "platform/shared_memory.h"

#include <windows.h>

#include "platform/error.h"
#include "platform/win32/errors.h"
#include "platform/win32/object_access.h"
#include "platform/win32/object_names.h"

namespace platform {
namespace {

class MappedView final : public SharedArea {
 public:
  MappedView(HANDLE mapping, unsigned char* address, size_t size)
      : mapping_(mapping), address_(address), size_(size) {}
  ~MappedView() override {
    UnmapViewOfFile(address_);
    CloseHandle(mapping_);
  }
  unsigned char* Address() override { return address_; }
  size_t Size() const override { return size_; }

 private:
  const HANDLE mapping_;
  unsigned char* const address_;
  const size_t size_;
};

size_t RoundToPages(size_t size) {
  SYSTEM_INFO info;
  GetSystemInfo(&info);
  const size_t page = info.dwPageSize;
  return (size + page - 1) / page * page;
}

}  // namespace

std::unique_ptr<SharedArea> OpenSharedArea(const std::string& name, size_t size,
                                           const ObjectAccess& access, int* error) {
  const size_t mapped = RoundToPages(size == 0 ? 1 : size);
  HANDLE mapping = win32::CreateSharedObject(
      access,
      [&](SECURITY_ATTRIBUTES* attributes) {
        return CreateFileMappingA(INVALID_HANDLE_VALUE, attributes, PAGE_READWRITE,
                                  static_cast<DWORD>(static_cast<uint64_t>(mapped) >> 32),
                                  static_cast<DWORD>(mapped), win32::GlobalObjectName(name).c_str());
      },
      error);
  if (mapping == nullptr) return nullptr;
  const bool existed = *error == kErrAlreadyExists;
  void* address = MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, mapped);
  if (address == nullptr) {
    *error = win32::LastError();
    CloseHandle(mapping);
    return nullptr;
  }
  *error = existed ? kErrAlreadyExists : kOk;
  return std::make_unique<MappedView>(mapping, static_cast<unsigned char*>(address), mapped);
}

void RemoveSharedArea(const std::string&) {}

}  // namespace platform
