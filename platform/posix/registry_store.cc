#include "platform/registry_store.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_map>

#include "platform/error.h"
#include "platform/file_system.h"
#include "platform/posix/registry_keys.h"

namespace platform {
namespace {

using posix::StoredValue;
using posix::ValuesDocument;

// What a handle stands for. A hive's directory may be missing until the
// first write: that is an empty hive, whereas a missing key directory means
// the key was deleted while open.
struct OpenKey {
  std::string dir;
  bool hive_root = false;
  uint32_t access = 0;
};

class HandleTable {
 public:
  RegistryKey Add(OpenKey key) {
    std::lock_guard<std::mutex> hold(mutex_);
    next_ += 4;
    keys_.emplace(next_, std::move(key));
    return RegistryKey{next_};
  }
  bool Remove(RegistryKey key) {
    std::lock_guard<std::mutex> hold(mutex_);
    return keys_.erase(key.bits) == 1;
  }
  bool Find(RegistryKey key, OpenKey* out) {
    std::lock_guard<std::mutex> hold(mutex_);
    const auto it = keys_.find(key.bits);
    if (it == keys_.end()) return false;
    *out = it->second;
    return true;
  }

 private:
  std::mutex mutex_;
  std::unordered_map<uintptr_t, OpenKey> keys_;
  uintptr_t next_ = 0;
};

HandleTable& Handles() {
  static HandleTable* table = new HandleTable;
  return *table;
}

bool Exists(const std::string& dir) {
  struct stat st {};
  return stat(dir.c_str(), &st) == 0;
}

// The open key behind `key`, which must grant `needed`.
int Resolve(RegistryKey key, uint32_t needed, OpenKey* out) {
  if (const char* hive = posix::HiveDirectoryName(key)) {
    *out = {posix::RegistryRoot() + "/" + hive, true, kKeyAllAccess};
  } else if (!Handles().Find(key, out)) {
    return kErrInvalidHandle;
  }
  if (!out->hive_root && !Exists(out->dir)) return kErrKeyDeleted;
  return (out->access & needed) == needed ? kOk : kErrAccessDenied;
}

// Follows `subkey` down from `parent`, creating missing keys when asked.
int Walk(const OpenKey& parent, const char* subkey, bool create, OpenKey* out,
         bool* created) {
  if (subkey != nullptr && subkey[0] == '\\') return kErrBadPathname;
  *out = parent;
  *created = false;
  for (const char* p = subkey ? subkey : ""; *p != '\0';) {
    const char* end = p + strcspn(p, "\\");
    const std::string name(p, end);
    p = *end ? end + 1 : end;
    if (name.empty()) continue;
    std::string entry;
    const int rc = posix::FindSubkey(out->dir, name, &entry);
    if (rc == kErrFileNotFound && create) {
      entry = posix::EncodeKeyName(name);
      if (const int made = CreateDirectories(out->dir + "/" + entry); made != kOk) return made;
      *created = true;
    } else if (rc != kOk) {
      return rc;
    }
    out->dir += "/" + entry;
    out->hive_root = false;
  }
  return kOk;
}

// Hands `text` to a caller's buffer of *size characters; *size becomes its
// length.
int CopyName(const std::string& text, char* buffer, uint32_t* size) {
  if (buffer == nullptr || size == nullptr) return kErrInvalidParameter;
  if (text.size() + 1 > *size) return kErrMoreData;
  memcpy(buffer, text.c_str(), text.size() + 1);
  *size = static_cast<uint32_t>(text.size());
  return kOk;
}

// Hands a value's type and bytes over, or just its size when `data` is null.
int CopyData(const StoredValue& value, uint32_t* type, void* data, uint32_t* size) {
  if (type != nullptr) *type = value.type;
  if (size == nullptr) return data == nullptr ? kOk : kErrInvalidParameter;
  const auto needed = static_cast<uint32_t>(value.data.size());
  const bool fits = data == nullptr || *size >= needed;
  if (data != nullptr && fits) memcpy(data, value.data.data(), needed);
  *size = needed;
  return fits ? kOk : kErrMoreData;
}

int EnsureDirectory(const OpenKey& key) {
  return key.hive_root ? CreateDirectories(key.dir) : kOk;
}

}  // namespace

int OpenRegistryKey(RegistryKey parent, const char* subkey, uint32_t access,
                    RegistryKey* out) {
  *out = {};
  OpenKey from, key;
  bool created = false;
  int rc = Resolve(parent, 0, &from);
  if (rc == kOk) rc = Walk(from, subkey, false, &key, &created);
  if (rc != kOk) return rc;
  key.access = access;
  *out = Handles().Add(key);
  return kOk;
}

int CreateRegistryKey(RegistryKey parent, const char* subkey, const char*, uint32_t,
                      uint32_t access, const RegistrySecurity*, RegistryKey* out,
                      uint32_t* disposition) {
  *out = {};
  OpenKey from, key;
  bool created = false;
  int rc = Resolve(parent, 0, &from);
  if (rc == kOk) rc = EnsureDirectory(from);
  if (rc == kOk) rc = Walk(from, subkey, true, &key, &created);
  if (rc != kOk) return rc;
  key.access = access;
  *out = Handles().Add(key);
  if (disposition != nullptr) *disposition = created ? kCreatedNewKey : kOpenedExistingKey;
  return kOk;
}

int CloseRegistryKey(RegistryKey key) {
  if (posix::HiveDirectoryName(key) != nullptr) return kOk;
  return Handles().Remove(key) ? kOk : kErrInvalidHandle;
}

int ReadRegistryValue(RegistryKey key, const char* name, uint32_t* type, void* data,
                      uint32_t* size) {
  OpenKey open;
  ValuesDocument values;
  int rc = Resolve(key, kKeyQueryValue, &open);
  if (rc == kOk) rc = posix::LoadValues(open.dir, &values);
  if (rc != kOk) return rc;
  const StoredValue* value = values.Find(name ? name : "");
  return value ? CopyData(*value, type, data, size) : kErrFileNotFound;
}

int WriteRegistryValue(RegistryKey key, const char* name, uint32_t type, const void* data,
                       uint32_t size) {
  if (data == nullptr && size != 0) return kErrInvalidParameter;
  OpenKey open;
  int rc = Resolve(key, kKeySetValue, &open);
  if (rc == kOk) rc = EnsureDirectory(open);
  if (rc != kOk) return rc;
  const StoredValue value{name ? name : "", type,
                          std::string(static_cast<const char*>(data), data ? size : 0)};
  return posix::ChangeValues(open.dir, [&](ValuesDocument& values) {
    values.Set(value);
    return kOk;
  });
}

int EnumRegistryValue(RegistryKey key, uint32_t index, char* name, uint32_t* name_size,
                      uint32_t* type, void* data, uint32_t* data_size) {
  OpenKey open;
  const ValuesDocument* values = nullptr;
  int rc = Resolve(key, kKeyQueryValue, &open);
  if (rc == kOk) rc = posix::LoadValuesOnce(open.dir, &values);
  if (rc != kOk) return rc;
  const StoredValue* value = values->At(index);
  if (value == nullptr) return kErrNoMoreItems;
  rc = CopyName(value->name, name, name_size);
  return rc == kOk ? CopyData(*value, type, data, data_size) : rc;
}

int EnumRegistrySubkey(RegistryKey key, uint32_t index, char* name, uint32_t* name_size,
                       char* class_name, uint32_t* class_size, RegistryFileTime* last_write) {
  OpenKey open;
  std::vector<posix::SubkeyEntry> subkeys;
  int rc = Resolve(key, kKeyEnumerateSubKeys, &open);
  if (rc == kOk) rc = posix::ListSubkeys(open.dir, &subkeys);
  if (rc != kOk) return rc;
  if (index >= subkeys.size()) return kErrNoMoreItems;
  rc = CopyName(subkeys[index].name, name, name_size);
  if (rc == kOk && class_name != nullptr) rc = CopyName("", class_name, class_size);
  if (last_write != nullptr)
    *last_write = posix::LastWriteTime(open.dir + "/" + subkeys[index].entry);
  return rc;
}

int QueryRegistryKeyInfo(RegistryKey key, RegistryKeyInfo* info) {
  OpenKey open;
  ValuesDocument values;
  std::vector<posix::SubkeyEntry> subkeys;
  int rc = Resolve(key, kKeyQueryValue, &open);
  if (rc == kOk) rc = posix::ListSubkeys(open.dir, &subkeys);
  if (rc == kOk) rc = posix::LoadValues(open.dir, &values);
  if (rc != kOk) return rc;
  *info = {};
  info->subkeys = static_cast<uint32_t>(subkeys.size());
  for (const posix::SubkeyEntry& s : subkeys)
    info->max_subkey_length =
        std::max(info->max_subkey_length, static_cast<uint32_t>(s.name.size()));
  info->values = static_cast<uint32_t>(values.Count());
  for (const posix::ValuesLine& line : values.lines) {
    if (!line.value) continue;
    info->max_value_name_length =
        std::max(info->max_value_name_length, static_cast<uint32_t>(line.value->name.size()));
    info->max_value_length =
        std::max(info->max_value_length, static_cast<uint32_t>(line.value->data.size()));
  }
  info->last_write = posix::LastWriteTime(open.dir);
  return kOk;
}

int DeleteRegistryValue(RegistryKey key, const char* name) {
  OpenKey open;
  if (const int rc = Resolve(key, kKeySetValue, &open); rc != kOk) return rc;
  if (!Exists(open.dir)) return kErrFileNotFound;
  return posix::ChangeValues(open.dir, [&](ValuesDocument& values) {
    return values.Remove(name ? name : "") ? kOk : kErrFileNotFound;
  });
}

int DeleteRegistryKey(RegistryKey key, const char* subkey) {
  OpenKey from, doomed;
  bool created = false;
  std::vector<posix::SubkeyEntry> subkeys;
  int rc = Resolve(key, 0, &from);
  if (rc == kOk) rc = Walk(from, subkey, false, &doomed, &created);
  if (rc == kOk && doomed.hive_root) rc = kErrAccessDenied;
  if (rc == kOk) rc = posix::ListSubkeys(doomed.dir, &subkeys);
  if (rc == kOk && !subkeys.empty()) rc = kErrAccessDenied;
  return rc == kOk ? posix::RemoveKeyDirectory(doomed.dir) : rc;
}

int WatchRegistryKey(RegistryKey key, bool, uint32_t, void*) {
  OpenKey open;
  const int rc = Resolve(key, kKeyNotify, &open);
  return rc == kOk ? kErrNotSupported : rc;
}

int ConnectRegistry(const char* machine, RegistryKey hive, RegistryKey* out) {
  *out = {};
  if (machine != nullptr && machine[0] != '\0') return kErrBadNetPath;
  return OpenRegistryKey(hive, nullptr, kKeyAllAccess, out);
}

}  // namespace platform
