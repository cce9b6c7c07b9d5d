// CRegistry: one open position in the registry - a root key (a hive of this
// machine or of a remote one), a current key below it and that key's path.
//
// Every operation first records its own name, and every registry call it
// makes records the call's name and result, so that a failure can be
// explained afterwards through QueryError and Status. Nothing throws; all
// results are the codes below.
//
// A copy (copy constructor or assignment) shares the original's handles and
// never closes them, not even the keys it leaves by Position: it must not be
// used after the original's Close. Assigning to an object that owns open
// handles closes them first.
#pragma once

#include <cstdint>
#include <string>

#include "platform/registry_store.h"

class CRegistry {
 public:
  // Results.
  static constexpr uint32_t kOk = 0;
  static constexpr uint32_t kAlreadyOpen = 1;
  static constexpr uint32_t kCloseNotOpen = 2;
  static constexpr uint32_t kNotOpen = 3;
  static constexpr uint32_t kBufferTooSmall = 4;
  static constexpr uint32_t kNotAllowed = 5;  // hive not allowed, or empty path
  static constexpr uint32_t kKeyNotFound = 6;
  static constexpr uint32_t kValueNotFound = 7;
  static constexpr uint32_t kApiFailed = 8;  // the call's error is in QueryError
  static constexpr uint32_t kEnumFinished = 9;
  static constexpr uint32_t kOtherEnumActive = 10;
  static constexpr uint32_t kNoValueNameSize = 11;
  static constexpr uint32_t kNoDataSize = 12;
  static constexpr uint32_t kNoKeyNameSize = 13;  // also QueryKey's path buffer
  static constexpr uint32_t kNoClassSize = 14;
  static constexpr uint32_t kOpenOnCopy = 15;
  static constexpr uint32_t kInvalidHandle = 16;
  static constexpr uint32_t kSubkeysRemain = 17;
  static constexpr uint32_t kMovedToParent = 18;
  static constexpr uint32_t kSecurityGiven = 999;

  // Sizes of the text fields, terminator included.
  static constexpr uint32_t kPathSize = 1024;
  static constexpr uint32_t kClassSize = 512;
  static constexpr uint32_t kMachineSize = 32;
  static constexpr uint32_t kNameSize = 24;

  // Kinds of enumeration in progress.
  static constexpr uint32_t kEnumNone = 0;
  static constexpr uint32_t kEnumValues = 1;
  static constexpr uint32_t kEnumKeys = 2;

  // Starts closed; with a machine or a hive, opens as Open does (the result
  // is then in QueryError and Status).
  explicit CRegistry(const char* machine = nullptr, platform::RegistryKey hive = {},
                     const char* path = nullptr, bool create = false);
  CRegistry(const CRegistry& other);
  CRegistry& operator=(const CRegistry& other);
  virtual ~CRegistry();

  // Opens the hive (HKEY_LOCAL_MACHINE when null) of this machine, or of
  // `machine` (only HKEY_LOCAL_MACHINE and HKEY_USERS), then moves to `path`
  // when one is given. With a path that cannot be reached the object stays
  // open at the root and the result is Position's.
  uint32_t Open(const char* machine, platform::RegistryKey hive, const char* path,
                bool create);
  uint32_t Close();

  // Moves to `path`: relative to the current key, absolute with a leading
  // backslash, or ".." for the parent. `create` makes missing keys with the
  // class, options, access and security set by Attributes.
  uint32_t Position(const char* path, bool create);

  // Writes text as REG_EXPAND_SZ, terminator included.
  uint32_t PutValue(const char* name, const char* text);
  uint32_t PutValue(const char* name, const void* data, uint32_t type, uint32_t size);
  // *size: the buffer's size on entry, the value's on return.
  uint32_t GetValue(const char* name, void* buffer, uint32_t* type, uint32_t* size);
  uint32_t DeleteValue(const char* name);

  // Clears the position; `reset_all` also forgets attributes and the last
  // operation, call and result.
  void Init(bool reset_all);
  void Report();

  // Copies the requested fields (null buffers are skipped); each copy is cut
  // to its buffer, and the result is 4 when one was cut or had no size.
  uint32_t Status(uint32_t* is_open, char* operation, uint32_t operation_size, char* path,
                  uint32_t path_size, char* api, uint32_t api_size, int32_t* result,
                  char* machine, uint32_t machine_size);
  // The result of the last registry call; its name goes to `api` when given
  // (a buffer of kNameSize).
  int32_t QueryError(char* api);

  // One value per call, in the key's order or (from_end) from the end. The
  // first call chooses the direction; result 9 ends the enumeration. The
  // buffers are zeroed to their stated sizes first.
  uint32_t EnumVals(char* name, uint32_t* name_size, void* data, uint32_t* data_size,
                    uint32_t* type, uint32_t* index, bool from_end);
  uint32_t EnumKeys(char* name, uint32_t* name_size, char* class_name, uint32_t* class_size,
                    platform::RegistryFileTime* last_write, uint32_t* index, bool from_end);

  // Rewrites `path` (at least 2 characters of room) as the absolute path of
  // its parent: "A\B\C" becomes "\A\B", "A" becomes "\".
  void UpKeyAbsolute(char* path);

  // Sets the attributes of keys created from now on. The security
  // attributes are copied (their descriptor is not), and giving them
  // results in 999.
  uint32_t Attributes(uint32_t access, uint32_t options,
                      const platform::RegistrySecurity* security, const char* class_name);

  // Copies the current path into `path` (4 when the buffer holds fewer than
  // kPathSize characters; *path_size becomes the path's length), then gives
  // the current key's counts. Every pointer may be null.
  uint32_t QueryKey(char* path, uint32_t* path_size, uint32_t* values, uint32_t* subkeys,
                    platform::RegistryKeyInfo* info = nullptr);

  // Deletes the key at `path` (relative or absolute). With `recursive` its
  // subkeys go first; without, a key that has subkeys is left alone. 17 when
  // subkeys remain; 18 when the object's own key went and it moved to the
  // parent of the deleted key.
  uint32_t DeleteKey(const char* path, bool recursive);

  // Asks for a change notice on the current key: asynchronous with an
  // event, waiting without one.
  uint32_t NotifyChange(bool watch_subtree, void* event, uint32_t filter);

  // 1 when the key at `path` exists, else 0. A relative path is taken from
  // the root, not from the current key.
  uint32_t KeyExists(const char* path);

  uint32_t Disposition() const { return disposition_; }
  uint32_t AccessMask() const { return access_; }
  bool HasCustomAttributes() const { return custom_attributes_ != 0; }

 private:
  bool IsOpen() const { return static_cast<bool>(current_key_); }
  void Record(const char* operation);
  void Called(const char* api, int result);
  void Reset(bool reset_all);
  void CopyFrom(const CRegistry& other);
  bool CloseHandles();
  uint32_t OpenRoot(const char* machine, platform::RegistryKey hive);
  uint32_t MoveTo(const char* path, bool create);
  int OpenBelow(platform::RegistryKey parent, const char* subkey, bool create,
                platform::RegistryKey* key);
  uint32_t StartEnum(uint32_t kind, bool from_end);
  uint32_t StepEnum(int result);
  void EndEnum();
  uint32_t Counts(uint32_t* values, uint32_t* subkeys, platform::RegistryKeyInfo* info);
  uint32_t OpenTwin(CRegistry& twin) const;
  bool Reaches(const char* path) const;
  void AdoptFailure(const CRegistry& twin);
  static uint32_t DeleteSubkeys(CRegistry& twin, bool recursive);
  uint32_t DeleteFound(const char* path, const std::string& full, CRegistry& twin);

  char current_path_[kPathSize] = {};
  char class_name_[kClassSize] = {};
  platform::RegistryKey current_key_;
  platform::RegistryKey root_key_;
  char* machine_name_ = nullptr;
  char machine_text_[kMachineSize] = {};
  uint32_t custom_attributes_ = 0;
  uint32_t enum_kind_ = kEnumNone;
  uint32_t enum_backwards_ = 0;
  uint32_t is_copy_ = 0;
  uint32_t enum_index_ = 0;
  char last_api_[kNameSize] = {};
  int32_t last_result_ = 0;
  uint32_t disposition_ = 0;
  char last_operation_[kNameSize] = {};
  uint32_t access_ = platform::kKeyRead;
  uint32_t options_ = 0;
  platform::RegistrySecurity* security_ = nullptr;
  platform::RegistrySecurity security_copy_;
};
