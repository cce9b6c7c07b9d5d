// The files of the file-backed registry:
//
//   <root>/HKEY_LOCAL_MACHINE/Software/kzq/.values
//
// A key is a directory; its values file is ".values" inside it. Key names
// are stored with '%', '/' and a leading '.' written as %XX, so no key ever
// clashes with the store's own files, which all start with '.'. Results are
// Windows error numbers, as in registry_store.h.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/posix/registry_values.h"
#include "platform/registry_store.h"

namespace platform::posix {

// KZQ_REGISTRY_ROOT, or /etc/kzq/registry when it is unset.
std::string RegistryRoot();

// The directory of a hive below the root ("HKEY_LOCAL_MACHINE"), or null
// when `key` is not one of the four hives.
const char* HiveDirectoryName(RegistryKey key);

std::string EncodeKeyName(std::string_view name);
std::string DecodeKeyName(std::string_view entry);

struct SubkeyEntry {
  std::string name;   // as the key is called
  std::string entry;  // as its directory is called
};

// The subkeys of the key in `dir`, ordered by name without regard to case,
// as Windows orders them. A missing directory has none.
int ListSubkeys(const std::string& dir, std::vector<SubkeyEntry>* subkeys);

// Finds subkey `name` in any case: 0 with *entry set, or 2.
int FindSubkey(const std::string& dir, std::string_view name, std::string* entry);

// Reads the values of the key in `dir` (none when it has no values file).
// Lines that do not parse are reported to the problem sink and kept.
int LoadValues(const std::string& dir, ValuesDocument* document);

// As LoadValues, for a caller that asks for one value after another (an
// enumeration): the file last read by this thread is kept while it is
// unchanged (same file, size and modification time), so a key of n values
// is read once rather than n times. The document stays valid until this
// thread's next call.
int LoadValuesOnce(const std::string& dir, const ValuesDocument** document);

// Applies `change` to the key's values under an exclusive lock on its
// directory, then replaces the values file with a temporary file renamed
// over it, so readers see the old file or the new one and never a part. A
// non-zero result of `change` is returned and nothing is written.
int ChangeValues(const std::string& dir, const std::function<int(ValuesDocument&)>& change);

// Removes the key's directory with its values file and any temporary files
// a crashed writer left. The key must have no subkeys.
int RemoveKeyDirectory(const std::string& dir);

// When the key or its values last changed.
RegistryFileTime LastWriteTime(const std::string& dir);

}  // namespace platform::posix
