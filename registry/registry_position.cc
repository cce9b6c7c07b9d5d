#include "registry/registry_position.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "kvc/diagnostic_log.h"
#include "platform/error.h"

using platform::RegistryKey;

namespace {

// Copies `text` into a buffer of `size` characters, cut to fit. False when
// it was cut or the buffer has no room at all.
bool CopyCut(char* buffer, uint32_t size, const char* text) {
  if (size == 0) return false;
  const size_t length = strlen(text);
  const size_t n = std::min<size_t>(length, size - 1);
  memcpy(buffer, text, n);
  buffer[n] = '\0';
  return n == length;
}

template <size_t N>
void SetText(char (&field)[N], const char* text) {
  CopyCut(field, N, text != nullptr ? text : "");
}

char Upper(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; }

bool SamePrefix(const std::string& text, const std::string& prefix) {
  return text.size() >= prefix.size() &&
         std::equal(prefix.begin(), prefix.end(), text.begin(),
                    [](char a, char b) { return Upper(a) == Upper(b); });
}

// True when `path` names the key `key` or one below it.
bool IsAtOrBelow(const std::string& path, const std::string& key) {
  return SamePrefix(path, key) && (path.size() == key.size() || path[key.size()] == '\\');
}

// "A\B\C" -> "\A\B"; "A" -> "\". The result is never longer than the path
// (or than one character).
void UpKey(char* path) {
  const char* last = strrchr(path, '\\');
  const size_t keep = last != nullptr ? static_cast<size_t>(last - path) : 0;
  memmove(path + 1, path, keep);
  path[0] = '\\';
  path[keep + 1] = '\0';
}

bool IsLocalHive(RegistryKey hive) {
  return hive == platform::kLocalMachine || hive == platform::kUsers ||
         hive == platform::kClassesRoot || hive == platform::kCurrentUser;
}

void LogValuesProblem(const char* file, int line, const char* problem) {
  kvc::Log('e', "reg0100", "%s:%d: %s\n", file, line, problem);
}

// Problems in the file-backed store's values files go to the diagnostic log.
void ReportStoreProblemsToLog() {
  static const bool installed = (platform::SetRegistryProblemSink(&LogValuesProblem), true);
  (void)installed;
}

}  // namespace

// --- life cycle --------------------------------------------------------------

CRegistry::CRegistry(const char* machine, RegistryKey hive, const char* path, bool create) {
  ReportStoreProblemsToLog();
  Reset(true);
  Record("Constructor");
  if (machine != nullptr || hive) Open(machine, hive, path, create);
}

CRegistry::CRegistry(const CRegistry& other) {
  CopyFrom(other);
  Record("Copy Constructor");
}

CRegistry& CRegistry::operator=(const CRegistry& other) {
  if (this != &other) {
    if (IsOpen() && is_copy_ == 0) CloseHandles();
    CopyFrom(other);
  }
  Record("Operator =");
  return *this;
}

CRegistry::~CRegistry() {
  Record("Destructor");
  if (IsOpen()) Close();
}

void CRegistry::CopyFrom(const CRegistry& other) {
  memcpy(current_path_, other.current_path_, sizeof current_path_);
  memcpy(class_name_, other.class_name_, sizeof class_name_);
  current_key_ = other.current_key_;
  root_key_ = other.root_key_;
  memcpy(machine_text_, other.machine_text_, sizeof machine_text_);
  machine_name_ = other.machine_name_ != nullptr ? machine_text_ : nullptr;
  custom_attributes_ = other.custom_attributes_;
  memcpy(last_api_, other.last_api_, sizeof last_api_);
  last_result_ = other.last_result_;
  disposition_ = other.disposition_;
  memcpy(last_operation_, other.last_operation_, sizeof last_operation_);
  access_ = other.access_;
  options_ = other.options_;
  security_copy_ = other.security_copy_;
  security_ = other.security_ != nullptr ? &security_copy_ : nullptr;
  is_copy_ = 1;
  EndEnum();
}

void CRegistry::Reset(bool reset_all) {
  current_key_ = {};
  root_key_ = {};
  machine_name_ = nullptr;
  machine_text_[0] = '\0';
  current_path_[0] = '\0';
  EndEnum();
  if (reset_all) {
    custom_attributes_ = 0;
    last_operation_[0] = '\0';
    last_api_[0] = '\0';
    last_result_ = 0;
  }
  if (custom_attributes_ == 0) {
    access_ = platform::kKeyRead;
    security_ = nullptr;
    class_name_[0] = '\0';
    options_ = 0;
  }
}

void CRegistry::Init(bool reset_all) {
  Record("Init");
  Reset(reset_all);
}

void CRegistry::Report() { Record("Report"); }

void CRegistry::Record(const char* operation) { SetText(last_operation_, operation); }

void CRegistry::Called(const char* api, int result) {
  SetText(last_api_, api);
  last_result_ = result;
}

// --- opening and moving ------------------------------------------------------

uint32_t CRegistry::Open(const char* machine, RegistryKey hive, const char* path, bool create) {
  Record("Open");
  if (IsOpen()) return kAlreadyOpen;
  if (is_copy_ != 0) return kOpenOnCopy;
  const uint32_t rc = OpenRoot(machine, hive);
  if (rc != kOk) return rc;
  current_key_ = root_key_;
  return path != nullptr && path[0] != '\0' ? MoveTo(path, create) : kOk;
}

uint32_t CRegistry::OpenRoot(const char* machine, RegistryKey hive) {
  if (!hive) hive = platform::kLocalMachine;
  if (machine != nullptr && machine[0] != '\0') {
    const bool allowed = hive == platform::kUsers || hive == platform::kLocalMachine;
    assert(allowed && "(hKey==HKEY_USERS)||(hKey==HKEY_LOCAL_MACHINE)");
    if (!allowed) return kNotAllowed;
    SetText(machine_text_, machine);
    machine_name_ = machine_text_;
    const int rc = platform::ConnectRegistry(machine_name_, hive, &root_key_);
    Called("RegConnectRegistry", rc);
    if (rc == 0) return kOk;
    machine_name_ = nullptr;
    machine_text_[0] = '\0';
    return kApiFailed;
  }
  const bool allowed = IsLocalHive(hive);
  assert(allowed &&
         "(hKey==HKEY_LOCAL_MACHINE) || (hKey==HKEY_USERS) || (hKey==HKEY_CLASSES_ROOT) || "
         "(hKey==HKEY_CURRENT_USER)");
  if (!allowed) return kNotAllowed;
  int rc = platform::OpenRegistryKey(hive, nullptr, access_, &root_key_);
  if (rc != 0) rc = platform::OpenRegistryKey(hive, nullptr, access_ | platform::kKeyWow64_32Key,
                                              &root_key_);
  Called("RegOpenKeyEx", rc);
  return rc == 0 ? kOk : kApiFailed;
}

uint32_t CRegistry::Position(const char* path, bool create) {
  Record("Position");
  return MoveTo(path, create);
}

uint32_t CRegistry::MoveTo(const char* path, bool create) {
  if (!IsOpen()) return kNotOpen;
  if (path == nullptr || path[0] == '\0') return kNotAllowed;
  char parent[kPathSize];
  if (strcmp(path, "..") == 0) {
    memcpy(parent, current_path_, sizeof parent);
    UpKey(parent);
    path = parent;
  }
  const bool absolute = path[0] == '\\';
  const char* subkey = absolute ? path + 1 : path;
  RegistryKey key;
  if (OpenBelow(absolute ? root_key_ : current_key_, subkey, create, &key) != 0)
    return kApiFailed;
  // A copy may still share the previous key with its original.
  if (current_key_ != root_key_ && is_copy_ == 0) platform::CloseRegistryKey(current_key_);
  current_key_ = key;
  std::string moved = absolute || current_path_[0] == '\0' ? "" : current_path_ + std::string("\\");
  SetText(current_path_, (moved + subkey).c_str());
  return kOk;
}

// Tries the access mask as it is, then once more for the 32-bit view.
int CRegistry::OpenBelow(RegistryKey parent, const char* subkey, bool create,
                         RegistryKey* key) {
  int rc = 0;
  for (uint32_t access : {access_, access_ | platform::kKeyWow64_32Key}) {
    rc = create ? platform::CreateRegistryKey(parent, subkey, class_name_, options_, access,
                                              security_, key, &disposition_)
                : platform::OpenRegistryKey(parent, subkey, access, key);
    if (rc == 0) break;
  }
  Called(create ? "RegCreateKeyEx" : "RegOpenKeyEx", rc);
  return rc;
}

uint32_t CRegistry::Close() {
  Record("Close");
  if (!IsOpen()) return kCloseNotOpen;
  if (is_copy_ != 0) return kOk;
  const bool failed = CloseHandles();
  Reset(false);
  return failed ? kApiFailed : kOk;
}

// Closes the current key (unless it is the root) and the root key; records
// the first failure, else success. True when one failed.
bool CRegistry::CloseHandles() {
  const int current = current_key_ != root_key_ ? platform::CloseRegistryKey(current_key_) : 0;
  const int root = platform::CloseRegistryKey(root_key_);
  Called("RegCloseKey", current != 0 ? current : root);
  return current != 0 || root != 0;
}

void CRegistry::UpKeyAbsolute(char* path) {
  Record("UpKeyAbsolute");
  if (path != nullptr) UpKey(path);
}

// --- values ------------------------------------------------------------------

uint32_t CRegistry::PutValue(const char* name, const char* text) {
  if (text == nullptr) text = "";
  return PutValue(name, text, platform::kRegExpandSz, static_cast<uint32_t>(strlen(text) + 1));
}

uint32_t CRegistry::PutValue(const char* name, const void* data, uint32_t type, uint32_t size) {
  Record("PutValue");
  if (!IsOpen()) return kNotOpen;
  const int rc = platform::WriteRegistryValue(current_key_, name, type, data, size);
  Called("RegSetValueEx", rc);
  return rc == 0 ? kOk : kApiFailed;
}

uint32_t CRegistry::GetValue(const char* name, void* buffer, uint32_t* type, uint32_t* size) {
  Record("GetValue");
  if (!IsOpen()) return kNotOpen;
  const int rc = platform::ReadRegistryValue(current_key_, name, type, buffer, size);
  Called("RegQueryValueEx", rc);
  switch (rc) {
    case 0: return kOk;
    case platform::kErrFileNotFound: return kValueNotFound;
    case platform::kErrMoreData: return kBufferTooSmall;
    default: return kApiFailed;
  }
}

uint32_t CRegistry::DeleteValue(const char* name) {
  Record("DeleteValue");
  if (!IsOpen()) return kNotOpen;
  const int rc = platform::DeleteRegistryValue(current_key_, name);
  Called("RegDeleteValue", rc);
  if (rc == platform::kErrFileNotFound) return kValueNotFound;
  return rc == 0 ? kOk : kApiFailed;
}

// --- diagnostics and attributes ----------------------------------------------

uint32_t CRegistry::Status(uint32_t* is_open, char* operation, uint32_t operation_size,
                           char* path, uint32_t path_size, char* api, uint32_t api_size,
                           int32_t* result, char* machine, uint32_t machine_size) {
  Record("Status");
  uint32_t rc = kOk;
  const auto copy = [&rc](char* buffer, uint32_t size, const char* text) {
    if (buffer != nullptr && !CopyCut(buffer, size, text)) rc = kBufferTooSmall;
  };
  if (is_open != nullptr) *is_open = IsOpen() ? 1 : 0;
  copy(operation, operation_size, last_operation_);
  copy(path, path_size, current_path_);
  copy(api, api_size, last_api_);
  if (result != nullptr) *result = last_result_;
  copy(machine, machine_size, machine_name_ != nullptr ? machine_name_ : "");
  return rc;
}

int32_t CRegistry::QueryError(char* api) {
  Record("QueryError");
  if (api != nullptr) memcpy(api, last_api_, sizeof last_api_);
  return last_result_;
}

uint32_t CRegistry::Attributes(uint32_t access, uint32_t options,
                               const platform::RegistrySecurity* security,
                               const char* class_name) {
  Record("Attributes");
  access_ = access;
  options_ = options;
  SetText(class_name_, class_name);
  if (access != platform::kKeyAllAccess || options != 0 || class_name_[0] != '\0')
    custom_attributes_ = 1;
  security_ = nullptr;
  if (security == nullptr) return kOk;
  security_copy_ = *security;
  security_ = &security_copy_;
  return kSecurityGiven;
}

// --- enumeration -------------------------------------------------------------

uint32_t CRegistry::EnumVals(char* name, uint32_t* name_size, void* data, uint32_t* data_size,
                             uint32_t* type, uint32_t* index, bool from_end) {
  Record("EnumVals");
  if (!IsOpen()) return kNotOpen;
  if (enum_kind_ == kEnumKeys) return kOtherEnumActive;
  if (name == nullptr || name_size == nullptr) return kNoValueNameSize;
  if (data != nullptr && data_size == nullptr) return kNoDataSize;
  if (enum_kind_ == kEnumNone) {
    if (const uint32_t rc = StartEnum(kEnumValues, from_end); rc != kOk) return rc;
  }
  memset(name, 0, *name_size);
  if (data != nullptr) memset(data, 0, *data_size);
  const uint32_t used = enum_index_;
  if (index != nullptr) *index = used;
  const int rc =
      platform::EnumRegistryValue(current_key_, used, name, name_size, type, data, data_size);
  Called("RegEnumValue", rc);
  if (rc == platform::kErrMoreData)
    kvc::Log('t', "reg0010",
             "There is more data from registry entry but the buffer isn't big enough. "
             "dwEnumIndex = %d\n",
             static_cast<int>(used));
  return StepEnum(rc);
}

uint32_t CRegistry::EnumKeys(char* name, uint32_t* name_size, char* class_name,
                             uint32_t* class_size, platform::RegistryFileTime* last_write,
                             uint32_t* index, bool from_end) {
  Record("EnumKeys");
  if (!IsOpen()) return kNotOpen;
  if (enum_kind_ == kEnumValues) return kOtherEnumActive;
  if (name == nullptr || name_size == nullptr) return kNoKeyNameSize;
  if (class_name != nullptr && class_size == nullptr) return kNoClassSize;
  if (enum_kind_ == kEnumNone) {
    if (const uint32_t rc = StartEnum(kEnumKeys, from_end); rc != kOk) return rc;
  }
  memset(name, 0, *name_size);
  if (class_name != nullptr) memset(class_name, 0, *class_size);
  const uint32_t used = enum_index_;
  if (index != nullptr) *index = used;
  const int rc = platform::EnumRegistrySubkey(current_key_, used, name, name_size, class_name,
                                              class_size, last_write);
  Called("RegEnumKeyEx", rc);
  return StepEnum(rc);
}

// Going backwards, values start one past the last (so the first call ends
// at once) and subkeys at the last one; callers rely on both.
uint32_t CRegistry::StartEnum(uint32_t kind, bool from_end) {
  enum_kind_ = kind;
  enum_backwards_ = from_end ? 1 : 0;
  enum_index_ = 0;
  if (!from_end) return kOk;
  uint32_t values = 0;
  uint32_t subkeys = 0;
  if (const uint32_t rc = Counts(&values, &subkeys, nullptr); rc != kOk) {
    EndEnum();
    return rc;
  }
  enum_index_ = kind == kEnumValues ? values : subkeys - 1;
  return kOk;
}

uint32_t CRegistry::StepEnum(int result) {
  if (result == platform::kErrNoMoreItems) {
    EndEnum();
    return kEnumFinished;
  }
  enum_index_ += enum_backwards_ != 0 ? -1 : 1;
  if (result == platform::kErrMoreData) return kBufferTooSmall;
  return result == 0 ? kOk : kApiFailed;
}

void CRegistry::EndEnum() {
  enum_kind_ = kEnumNone;
  enum_backwards_ = 0;
  enum_index_ = 0;
}

// --- key information ---------------------------------------------------------

uint32_t CRegistry::QueryKey(char* path, uint32_t* path_size, uint32_t* values,
                             uint32_t* subkeys, platform::RegistryKeyInfo* info) {
  Record("QueryKey");
  if (!IsOpen()) return kNotOpen;
  uint32_t rc = kOk;
  if (path != nullptr) {
    if (path_size == nullptr) return kNoKeyNameSize;
    if (*path_size < kPathSize) rc = kBufferTooSmall;
    CopyCut(path, *path_size, current_path_);
    *path_size = static_cast<uint32_t>(strlen(current_path_));
  }
  const uint32_t counted = Counts(values, subkeys, info);
  return counted != kOk ? counted : rc;
}

uint32_t CRegistry::Counts(uint32_t* values, uint32_t* subkeys, platform::RegistryKeyInfo* info) {
  platform::RegistryKeyInfo all;
  const int rc = platform::QueryRegistryKeyInfo(current_key_, &all);
  Called("RegQueryInfoKey", rc);
  if (rc != 0) return kApiFailed;
  if (values != nullptr) *values = all.values;
  if (subkeys != nullptr) *subkeys = all.subkeys;
  if (info != nullptr) *info = all;
  return kOk;
}

uint32_t CRegistry::NotifyChange(bool watch_subtree, void* event, uint32_t filter) {
  Record("NotifyChange");
  if (!IsOpen()) return kNotOpen;
  const int rc = platform::WatchRegistryKey(current_key_, watch_subtree, filter, event);
  Called("RegNotifyChangeKeyValue", rc);
  if (rc == platform::kErrInvalidHandle) return kInvalidHandle;
  return rc == 0 ? kOk : kApiFailed;
}

// --- keys of their own -------------------------------------------------------

uint32_t CRegistry::KeyExists(const char* path) {
  Record("KeyExists");
  return Reaches(path) ? 1 : 0;
}

// A fresh object on a new handle to the same root key, at the root.
uint32_t CRegistry::OpenTwin(CRegistry& twin) const {
  if (!IsOpen()) return kNotOpen;
  if (machine_name_ != nullptr) {
    SetText(twin.machine_text_, machine_name_);
    twin.machine_name_ = twin.machine_text_;
  }
  const int rc = platform::OpenRegistryKey(root_key_, nullptr, twin.access_, &twin.root_key_);
  twin.Called("RegOpenKeyEx", rc);
  if (rc != 0) return kApiFailed;
  twin.current_key_ = twin.root_key_;
  return kOk;
}

bool CRegistry::Reaches(const char* path) const {
  CRegistry probe;
  return OpenTwin(probe) == kOk && probe.MoveTo(path, false) == kOk;
}

void CRegistry::AdoptFailure(const CRegistry& twin) {
  Called(twin.last_api_, twin.last_result_);
}

uint32_t CRegistry::DeleteKey(const char* path, bool recursive) {
  Record("DeleteKey");
  if (!IsOpen()) return kNotOpen;
  if (path == nullptr || path[0] == '\0') return kNotAllowed;
  const bool absolute = path[0] == '\\';
  const std::string full = absolute                  ? std::string(path + 1)
                           : current_path_[0] == '\0' ? std::string(path)
                                                      : current_path_ + std::string("\\") + path;
  if (!Reaches(("\\" + full).c_str())) return kKeyNotFound;
  CRegistry twin;
  uint32_t rc = OpenTwin(twin);
  if (rc == kOk) rc = twin.MoveTo(("\\" + full).c_str(), false);
  if (rc == kOk) rc = DeleteSubkeys(twin, recursive);
  if (rc == kApiFailed) AdoptFailure(twin);
  return rc == kOk ? DeleteFound(absolute ? nullptr : path, full, twin) : rc;
}

// Deletes the subkeys of the twin's key, last first, so that the indexes
// still to come stay put. 17 when one of them is left.
uint32_t CRegistry::DeleteSubkeys(CRegistry& twin, bool recursive) {
  uint32_t subkeys = 0;
  if (twin.Counts(nullptr, &subkeys, nullptr) != kOk) return kApiFailed;
  if (subkeys == 0) return kOk;
  if (!recursive) return kSubkeysRemain;
  bool kept = false;
  char name[256];
  for (;;) {
    uint32_t size = sizeof name;
    const uint32_t found = twin.EnumKeys(name, &size, nullptr, nullptr, nullptr, nullptr, true);
    if (found == kEnumFinished) break;
    const uint32_t deleted = found == kOk ? twin.DeleteKey(name, true) : found;
    kept = kept || (deleted != kOk && deleted != kKeyNotFound);
  }
  return kept ? kSubkeysRemain : kOk;
}

// Deletes the key once it has no subkeys: `relative` from the current key,
// or (when null) `full` from the twin's root. Moves to the parent of the
// deleted key when the object's own key went with it.
uint32_t CRegistry::DeleteFound(const char* relative, const std::string& full, CRegistry& twin) {
  const int rc = relative != nullptr
                     ? platform::DeleteRegistryKey(current_key_, relative)
                     : platform::DeleteRegistryKey(twin.root_key_, full.c_str());
  Called("RegDeleteKey", rc);
  if (rc == platform::kErrFileNotFound) return kKeyNotFound;
  if (rc != 0) return kApiFailed;
  const std::string own = current_path_;
  if (!IsAtOrBelow(own, full) || Reaches(("\\" + own).c_str())) return kOk;
  char parent[kPathSize];
  SetText(parent, full.c_str());
  UpKey(parent);
  MoveTo(parent, false);
  return kMovedToParent;
}
