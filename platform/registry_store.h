// Keys and values of the registry.
//
// On Windows this is the registry itself. On POSIX it is a store of files
// under a root directory (KZQ_REGISTRY_ROOT, default /etc/kzq/registry): one
// directory per key below a directory per hive, and one human-editable
// values file per key. Names of keys and values are matched without regard
// to case, values keep the order in which they were first written, and every
// write replaces the values file atomically.
//
// Every function returns 0 or a Windows error number: 2 no such key or value,
// 5 access denied, 6 invalid handle, 161 bad path, 234 buffer too small,
// 259 no more items, 1018 the key was deleted. Functions may be called from
// any thread; a handle must not be closed while another thread uses it.
#pragma once

#include <cstdint>

#include "platform/error.h"

namespace platform {

// An open key. A handle is a plain value: copies name the same open key,
// which stays open until exactly one of them is passed to CloseRegistryKey.
// The predefined hives are handles that never need closing.
struct RegistryKey {
  uintptr_t bits = 0;
  explicit operator bool() const { return bits != 0; }
  friend bool operator==(RegistryKey, RegistryKey) = default;
};

// The hives carry their Windows numbers, sign-extended as Windows does.
constexpr RegistryKey HiveKey(uint32_t hive) {
  return RegistryKey{static_cast<uintptr_t>(static_cast<intptr_t>(static_cast<int32_t>(hive)))};
}
inline constexpr RegistryKey kClassesRoot = HiveKey(0x80000000);
inline constexpr RegistryKey kCurrentUser = HiveKey(0x80000001);
inline constexpr RegistryKey kLocalMachine = HiveKey(0x80000002);
inline constexpr RegistryKey kUsers = HiveKey(0x80000003);

// Access rights; the file-backed store checks the ones a handle needs for
// reading, writing, enumerating and watching, as Windows does.
inline constexpr uint32_t kKeyQueryValue = 0x0001;
inline constexpr uint32_t kKeySetValue = 0x0002;
inline constexpr uint32_t kKeyEnumerateSubKeys = 0x0008;
inline constexpr uint32_t kKeyNotify = 0x0010;
inline constexpr uint32_t kKeyWow64_32Key = 0x0200;
inline constexpr uint32_t kKeyRead = 0x20019;
inline constexpr uint32_t kKeyAllAccess = 0xF003F;

// Value types.
inline constexpr uint32_t kRegNone = 0;
inline constexpr uint32_t kRegSz = 1;
inline constexpr uint32_t kRegExpandSz = 2;
inline constexpr uint32_t kRegBinary = 3;
inline constexpr uint32_t kRegDword = 4;
inline constexpr uint32_t kRegMultiSz = 7;
inline constexpr uint32_t kRegQword = 11;

// Dispositions of CreateRegistryKey.
inline constexpr uint32_t kCreatedNewKey = 1;
inline constexpr uint32_t kOpenedExistingKey = 2;

// Laid out as SECURITY_ATTRIBUTES, so that callers above this layer can hold
// one without the OS headers.
struct RegistrySecurity {
  uint32_t length = 0;
  void* descriptor = nullptr;
  int32_t inherit = 0;
};

// Laid out as FILETIME: 100 ns units since 1601.
struct RegistryFileTime {
  uint32_t low = 0;
  uint32_t high = 0;
};

struct RegistryKeyInfo {
  uint32_t subkeys = 0;
  uint32_t max_subkey_length = 0;  // characters, without the terminator
  uint32_t max_class_length = 0;
  uint32_t values = 0;
  uint32_t max_value_name_length = 0;
  uint32_t max_value_length = 0;  // bytes
  uint32_t security_descriptor_size = 0;
  RegistryFileTime last_write;
};

// Opens `subkey` below `parent` (null or empty: a new handle to `parent`).
// The file-backed store refuses a subkey that starts with a backslash (161).
int OpenRegistryKey(RegistryKey parent, const char* subkey, uint32_t access,
                    RegistryKey* out);

// Opens `subkey`, creating it and any missing keys on the way. `class_name`,
// `options` and `security` may be null or 0; the file-backed store keeps no
// class names or security. *disposition (when given) says whether the key
// was created or already there.
int CreateRegistryKey(RegistryKey parent, const char* subkey, const char* class_name,
                      uint32_t options, uint32_t access, const RegistrySecurity* security,
                      RegistryKey* out, uint32_t* disposition);

// Closes a handle; closing a hive succeeds and does nothing. 6 for a handle
// that is not open.
int CloseRegistryKey(RegistryKey key);

// Reads value `name` (null or empty: the key's default value). *size is the
// buffer size in bytes on entry and the value's size on return; with a null
// `data` only the size is given, with a buffer that is too small the result
// is 234. `type` may be null.
int ReadRegistryValue(RegistryKey key, const char* name, uint32_t* type, void* data,
                      uint32_t* size);

// Writes value `name`, replacing one of the same name in any case; a new
// value goes after the existing ones.
int WriteRegistryValue(RegistryKey key, const char* name, uint32_t type, const void* data,
                       uint32_t size);

// The value at `index` in the key's order. *name_size is the name buffer's
// size in characters on entry and the name's length on return (234 when it
// does not fit); `data`, `data_size` and `type` work as in ReadRegistryValue
// and may be null. 259 past the last value.
int EnumRegistryValue(RegistryKey key, uint32_t index, char* name, uint32_t* name_size,
                      uint32_t* type, void* data, uint32_t* data_size);

// The subkey at `index` (in name order, as Windows keeps them). Sizes work
// as for value names; `class_name`, `class_size` and `last_write` may be null.
int EnumRegistrySubkey(RegistryKey key, uint32_t index, char* name, uint32_t* name_size,
                       char* class_name, uint32_t* class_size, RegistryFileTime* last_write);

int QueryRegistryKeyInfo(RegistryKey key, RegistryKeyInfo* info);

// 2 when the value does not exist.
int DeleteRegistryValue(RegistryKey key, const char* name);

// Deletes `subkey` below `key`, which must have no subkeys of its own (5
// when it has). Handles still open on it fail with 1018 from then on.
int DeleteRegistryKey(RegistryKey key, const char* subkey);

// Asks to be told of changes below `key`: with an event (a Windows event
// handle) it returns at once and signals the event, without one it waits for
// the change. The file-backed store does not watch: it gives 50 for any open
// handle.
int WatchRegistryKey(RegistryKey key, bool subtree, uint32_t filter, void* event);

// Opens `hive` on another machine (null or empty `machine`: this one). The
// file-backed store has no remote machines and gives 53 for any name.
int ConnectRegistry(const char* machine, RegistryKey hive, RegistryKey* out);

// Receives problems found in the store's own files (a values line that does
// not parse) with the file and the line number. The Windows registry has no
// such files and never calls it. Null restores the default, standard error.
using RegistryProblemSink = void (*)(const char* file, int line, const char* problem);
void SetRegistryProblemSink(RegistryProblemSink sink);

}  // namespace platform
