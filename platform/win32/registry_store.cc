#include "platform/registry_store.h"

#include <windows.h>

#include <cstring>

namespace platform {
namespace {

static_assert(sizeof(RegistrySecurity) == sizeof(SECURITY_ATTRIBUTES));
static_assert(sizeof(RegistryFileTime) == sizeof(FILETIME));

HKEY Native(RegistryKey key) { return reinterpret_cast<HKEY>(key.bits); }

RegistryKey Portable(HKEY key) { return RegistryKey{reinterpret_cast<uintptr_t>(key)}; }

// DWORD and uint32_t are different types under mingw (unsigned long).
DWORD* Dword(uint32_t* value) { return reinterpret_cast<DWORD*>(value); }

}  // namespace

int OpenRegistryKey(RegistryKey parent, const char* subkey, uint32_t access,
                    RegistryKey* out) {
  HKEY key = nullptr;
  const LONG rc = RegOpenKeyExA(Native(parent), subkey, 0, access, &key);
  *out = rc == ERROR_SUCCESS ? Portable(key) : RegistryKey{};
  return static_cast<int>(rc);
}

int CreateRegistryKey(RegistryKey parent, const char* subkey, const char* class_name,
                      uint32_t options, uint32_t access, const RegistrySecurity* security,
                      RegistryKey* out, uint32_t* disposition) {
  HKEY key = nullptr;
  SECURITY_ATTRIBUTES attributes;
  if (security != nullptr) memcpy(&attributes, security, sizeof attributes);
  const LONG rc = RegCreateKeyExA(Native(parent), subkey, 0, const_cast<char*>(class_name),
                                  options, access, security ? &attributes : nullptr, &key,
                                  Dword(disposition));
  *out = rc == ERROR_SUCCESS ? Portable(key) : RegistryKey{};
  return static_cast<int>(rc);
}

int CloseRegistryKey(RegistryKey key) { return static_cast<int>(RegCloseKey(Native(key))); }

int ReadRegistryValue(RegistryKey key, const char* name, uint32_t* type, void* data,
                      uint32_t* size) {
  return static_cast<int>(RegQueryValueExA(Native(key), name, nullptr, Dword(type),
                                           static_cast<BYTE*>(data), Dword(size)));
}

int WriteRegistryValue(RegistryKey key, const char* name, uint32_t type, const void* data,
                       uint32_t size) {
  return static_cast<int>(
      RegSetValueExA(Native(key), name, 0, type, static_cast<const BYTE*>(data), size));
}

int EnumRegistryValue(RegistryKey key, uint32_t index, char* name, uint32_t* name_size,
                      uint32_t* type, void* data, uint32_t* data_size) {
  return static_cast<int>(RegEnumValueA(Native(key), index, name, Dword(name_size), nullptr,
                                        Dword(type), static_cast<BYTE*>(data),
                                        Dword(data_size)));
}

int EnumRegistrySubkey(RegistryKey key, uint32_t index, char* name, uint32_t* name_size,
                       char* class_name, uint32_t* class_size, RegistryFileTime* last_write) {
  FILETIME written{};
  const LONG rc = RegEnumKeyExA(Native(key), index, name, Dword(name_size), nullptr,
                                class_name, Dword(class_size), &written);
  if (last_write != nullptr) *last_write = {written.dwLowDateTime, written.dwHighDateTime};
  return static_cast<int>(rc);
}

int QueryRegistryKeyInfo(RegistryKey key, RegistryKeyInfo* info) {
  FILETIME written{};
  const LONG rc = RegQueryInfoKeyA(
      Native(key), nullptr, nullptr, nullptr, Dword(&info->subkeys),
      Dword(&info->max_subkey_length), Dword(&info->max_class_length), Dword(&info->values),
      Dword(&info->max_value_name_length), Dword(&info->max_value_length),
      Dword(&info->security_descriptor_size), &written);
  info->last_write = {written.dwLowDateTime, written.dwHighDateTime};
  return static_cast<int>(rc);
}

int DeleteRegistryValue(RegistryKey key, const char* name) {
  return static_cast<int>(RegDeleteValueA(Native(key), name));
}

int DeleteRegistryKey(RegistryKey key, const char* subkey) {
  return static_cast<int>(RegDeleteKeyA(Native(key), subkey));
}

int WatchRegistryKey(RegistryKey key, bool subtree, uint32_t filter, void* event) {
  return static_cast<int>(RegNotifyChangeKeyValue(Native(key), subtree, filter,
                                                  static_cast<HANDLE>(event),
                                                  event != nullptr));
}

int ConnectRegistry(const char* machine, RegistryKey hive, RegistryKey* out) {
  HKEY key = nullptr;
  const LONG rc = RegConnectRegistryA(machine, Native(hive), &key);
  *out = rc == ERROR_SUCCESS ? Portable(key) : RegistryKey{};
  return static_cast<int>(rc);
}

void SetRegistryProblemSink(RegistryProblemSink) {}

}  // namespace platform
